// Header lists and the text helpers every request path relies on.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "alloc.h"
#include "util.h"
#include "zel_internal.h"

namespace {

using Lines = std::vector<std::string>;

Lines lines_of(const ZELHeaders* list) {
  Lines out;
  for (; list != nullptr; list = list->next) out.emplace_back(list->line != nullptr ? list->line : "<none>");
  return out;
}

// Lines go in front and a clone reverses them; a find matches by prefix,
// case-sensitively, the newest line first, and passes over empty values;
// an over-long line is cut, and a failed append keeps the list.
TEST(HeaderList, AppendCloneFindAndBounds) {
  ZELHeaders* list = zel_headers_append(nullptr, "Range", "bytes=0-9");
  list = zel_headers_append(list, "Accept", "");
  list = zel_headers_append(list, "Content-Type", " text/plain");
  EXPECT_EQ(lines_of(list), (Lines{"Content-Type: text/plain", "Accept:", "Range:bytes=0-9"}));
  ZELHeaders* copy = zel_headers_clone(list);
  EXPECT_EQ(lines_of(copy), (Lines{"Range:bytes=0-9", "Accept:", "Content-Type: text/plain"}));
  EXPECT_NE(copy->line, list->next->next->line);
  zel_headers_cleanup(copy);
  EXPECT_EQ(zel_headers_find(list, "Accept"), nullptr);
  EXPECT_STREQ(zel_headers_find(list, "Content"), " text/plain");
  EXPECT_EQ(zel_headers_find(list, "content-type"), nullptr);
  EXPECT_EQ(zel_headers_find(list, ""), nullptr);
  list = zel_headers_append(list, "Range", "bytes=5-6");
  EXPECT_STREQ(zel_headers_find(list, "Range"), "bytes=5-6");

  list = zel_headers_append(list, "Big", std::string(200000, 'v').c_str());
  EXPECT_EQ(std::strlen(list->line), kHeaderLineMax);
  EXPECT_EQ(std::string(list->line, 4), "Big:");
  mem_fail_at(1);
  EXPECT_EQ(zel_headers_append(list, "C", "3"), list);
  mem_fail_at(0);
  EXPECT_EQ(lines_of(list).size(), 5u);
  zel_headers_cleanup(list);
}

// A node without a line whose copy cannot be allocated is skipped, never
// written through.
TEST(HeaderList, CloneSurvivesAFailedNodeForAMissingLine) {
  ZELHeaders bare{nullptr, nullptr};
  mem_fail_at(1);
  EXPECT_EQ(zel_headers_clone(&bare), nullptr);
  mem_fail_at(0);
  ZELHeaders* copy = zel_headers_clone(&bare);
  EXPECT_EQ(lines_of(copy), (Lines{"<none>"}));
  zel_headers_cleanup(copy);
}

TEST(Utf, RoundTripsAndIllFormedInput) {
  for (const char* text :
       {"", "caf\xC3\xA9/\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80 smile", "\xEF\xBF\xBF"}) {
    char16_t* wide = utf8_to_wide(text);
    char* back = wide_to_utf8(wide);
    EXPECT_STREQ(back, text);
    mem_free(wide);
    mem_free(back);
  }
  char16_t* emoji = utf8_to_wide("\xF0\x9F\x98\x80");
  EXPECT_EQ(std::u16string(emoji), (std::u16string{0xD83D, 0xDE00}));
  mem_free(emoji);
  // Lone and truncated sequences, overlong forms, surrogates, beyond U+10FFFF.
  for (const char* text :
       {"\x80", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "ok\xC3("})
    EXPECT_EQ(utf8_to_wide(text), nullptr) << text;
  const char16_t lone_high[] = {u'a', 0xD800, u'b', 0}, lone_low[] = {0xDC00, 0},
                 high_at_end[] = {u'x', 0xDBFF, 0};
  for (const char16_t* text : {lone_high, lone_low, high_at_end}) EXPECT_EQ(wide_to_utf8(text), nullptr);
}

// Header lines from the wire are copied through this bound.
TEST(TextHelpers, BoundedDuplicate) {
  for (auto [text, bound, expected] : {std::tuple{"abcdef", 3, "abc"}, {"ab", 10, "ab"}, {"", 5, ""}}) {
    char* copy = strndup_bounded(text, bound);
    EXPECT_STREQ(copy, expected);
    mem_free(copy);
  }
}

}  // namespace
