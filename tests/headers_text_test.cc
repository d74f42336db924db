// Header lists and the text helpers every request path relies on.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "alloc.h"
#include "util.h"
#include "zel_internal.h"

namespace {

std::vector<std::string> lines_of(const ZELHeaders* list) {
  std::vector<std::string> out;
  for (; list != nullptr; list = list->next) out.emplace_back(list->line);
  return out;
}

TEST(HeaderList, AppendPutsInFrontAndCloneReverses) {
  ZELHeaders* list = zel_headers_append(nullptr, "A", "1");
  list = zel_headers_append(list, "B", "2");
  list = zel_headers_append(list, "X-Blank", " spaced");
  EXPECT_EQ(lines_of(list), (std::vector<std::string>{"X-Blank: spaced", "B:2", "A:1"}));
  ZELHeaders* copy = zel_headers_clone(list);
  EXPECT_EQ(lines_of(copy), (std::vector<std::string>{"A:1", "B:2", "X-Blank: spaced"}));
  EXPECT_NE(copy->line, list->next->next->line);  // lines are duplicated, not shared
  EXPECT_EQ(zel_headers_clone(nullptr), nullptr);
  zel_headers_cleanup(list);
  zel_headers_cleanup(copy);
  zel_headers_cleanup(nullptr);
}

TEST(HeaderList, FindMatchesByPrefixAndSkipsEmptyValues) {
  ZELHeaders* list = zel_headers_append(nullptr, "Range", "bytes=0-9");
  list = zel_headers_append(list, "Accept", "");
  list = zel_headers_append(list, "Content-Type", "text/plain");
  EXPECT_STREQ(zel_headers_find(list, "Range"), "bytes=0-9");
  EXPECT_EQ(zel_headers_find(list, "Accept"), nullptr);           // empty value is passed over
  EXPECT_STREQ(zel_headers_find(list, "Content"), "text/plain");  // prefix match
  EXPECT_EQ(zel_headers_find(list, "content-type"), nullptr);     // case matters
  EXPECT_EQ(zel_headers_find(list, ""), nullptr);
  EXPECT_EQ(zel_headers_find(list, nullptr), nullptr);
  EXPECT_EQ(zel_headers_find(nullptr, "Range"), nullptr);
  // The line appended last is found first.
  list = zel_headers_append(list, "Range", "bytes=5-6");
  EXPECT_STREQ(zel_headers_find(list, "Range"), "bytes=5-6");
  // The value pointer lives in the list's own storage.
  EXPECT_EQ(zel_headers_find(list, "Range"), list->line + std::strlen("Range:"));
  zel_headers_cleanup(list);
}

TEST(HeaderList, LongLineIsBoundedAndFailureKeepsList) {
  std::string value(200000, 'v');
  ZELHeaders* list = zel_headers_append(nullptr, "Big", value.c_str());
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(std::strlen(list->line), kHeaderLineMax);
  EXPECT_EQ(std::string(list->line, 4), "Big:");
  mem_fail_at(1);
  ZELHeaders* same = zel_headers_append(list, "C", "3");
  EXPECT_EQ(same, list);
  EXPECT_EQ(lines_of(same).size(), 1u);
  zel_headers_cleanup(list);
}

TEST(Utf, RoundTripsIncludingCharactersOutsideTheBmp) {
  const char* samples[] = {"",
                           "plain",
                           "\xC3\xA9",
                           "caf\xC3\xA9/\xE6\x97\xA5\xE6\x9C\xAC",
                           "\xF0\x9F\x98\x80 smile",
                           "\xEF\xBF\xBF"};
  for (const char* text : samples) {
    char16_t* wide = utf8_to_wide(text);
    ASSERT_NE(wide, nullptr) << text;
    char* back = wide_to_utf8(wide);
    ASSERT_NE(back, nullptr);
    EXPECT_STREQ(back, text);
    mem_free(wide);
    mem_free(back);
  }
  char16_t* e_acute = utf8_to_wide("\xC3\xA9");
  EXPECT_EQ(e_acute[0], u'\u00E9');
  EXPECT_EQ(e_acute[1], 0);
  mem_free(e_acute);
  char16_t* emoji = utf8_to_wide("\xF0\x9F\x98\x80");
  EXPECT_EQ(emoji[0], 0xD83D);
  EXPECT_EQ(emoji[1], 0xDE00);
  EXPECT_EQ(wide_len(emoji), 2u);
  mem_free(emoji);
  EXPECT_EQ(utf8_to_wide(nullptr), nullptr);
  EXPECT_EQ(wide_to_utf8(nullptr), nullptr);
}

TEST(Utf, IllFormedInputGivesNothing) {
  const char* bad_utf8[] = {
      "\x80",              // lone continuation byte
      "\xC3",              // truncated sequence
      "\xC0\xAF",          // overlong "/"
      "\xE0\x80\xAF",      // overlong, three bytes
      "\xED\xA0\x80",      // surrogate code point
      "\xF4\x90\x80\x80",  // beyond U+10FFFF
      "\xFF",              // never valid
      "ok\xC3(",           // bad continuation after a good prefix
  };
  for (const char* text : bad_utf8) EXPECT_EQ(utf8_to_wide(text), nullptr) << text;
  const char16_t lone_high[] = {u'a', 0xD800, u'b', 0};
  const char16_t lone_low[] = {0xDC00, 0};
  const char16_t high_at_end[] = {u'x', 0xDBFF, 0};
  EXPECT_EQ(wide_to_utf8(lone_high), nullptr);
  EXPECT_EQ(wide_to_utf8(lone_low), nullptr);
  EXPECT_EQ(wide_to_utf8(high_at_end), nullptr);
}

TEST(TextHelpers, BoundedDuplicateAndSplit) {
  char* cut = strndup_bounded("abcdef", 3);
  EXPECT_STREQ(cut, "abc");
  mem_free(cut);
  char* whole = strndup_bounded("ab", 10);
  EXPECT_STREQ(whole, "ab");
  mem_free(whole);
  char* empty = strndup_bounded("", 5);
  ASSERT_NE(empty, nullptr);
  EXPECT_STREQ(empty, "");
  mem_free(empty);
  EXPECT_EQ(strndup_bounded(nullptr, 5), nullptr);

  char text[] = "a,,b;c";
  char* cursor = text;
  std::vector<std::string> tokens;
  while (char* token = str_split(&cursor, ",;")) tokens.emplace_back(token);
  EXPECT_EQ(tokens, (std::vector<std::string>{"a", "", "b", "c"}));
  EXPECT_EQ(cursor, nullptr);
  char rest[] = "x,y";
  cursor = rest;
  EXPECT_STREQ(str_split(&cursor, ""), "x,y");
  EXPECT_EQ(cursor, nullptr);
}

TEST(TextHelpers, FileSizeByWideName) {
  std::string path = ::testing::TempDir() + "zel_size_\xC3\xA9.bin";
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  std::vector<char> data(12345, 'z');
  std::fwrite(data.data(), 1, data.size(), f);
  std::fclose(f);
  char16_t* wide = utf8_to_wide(path.c_str());
  uint64_t size = 0;
  EXPECT_EQ(file_size(wide, &size), 0);
  EXPECT_EQ(size, 12345u);
  std::remove(path.c_str());
  EXPECT_EQ(file_size(wide, &size), -1);
  EXPECT_EQ(file_size(nullptr, &size), -1);
  mem_free(wide);
}

}  // namespace

// A node without a line whose copy cannot be allocated is skipped, never
// written through.
TEST(HeaderList, CloneSurvivesAFailedNodeForAMissingLine) {
  ZELHeaders bare{nullptr, nullptr};
  mem_fail_at(1);
  EXPECT_EQ(zel_headers_clone(&bare), nullptr);
  mem_fail_at(0);
  ZELHeaders* copy = zel_headers_clone(&bare);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->line, nullptr);
  zel_headers_cleanup(copy);
}
