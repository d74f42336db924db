// Object records: streams, byte ranges, object details, upload sessions, and
// the reading of a session's Range header value.
#include "object.h"

#include <cstdio>
#include <cstring>

#include "alloc.h"
#include "log.h"
#include "util.h"

namespace {
constexpr const char* kLogTag = "src\\object";

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// Decimal digits after optional blanks, up to the first other character.
// Saturates instead of wrapping, so an absurd offset can never turn into a
// small one that looks plausible.
uint64_t read_offset(const char* text) {
  while (is_blank(*text)) ++text;
  uint64_t value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    uint64_t digit = static_cast<uint64_t>(*text - '0');
    if (value > (UINT64_MAX - digit) / 10) return UINT64_MAX;
    value = value * 10 + digit;
  }
  return value;
}

}  // namespace

extern "C" ZEL_EXPORT ZELStream* zel_stream_init(const char16_t* filename) {
  auto* stream = static_cast<ZELStream*>(mem_calloc(1, sizeof(ZELStream)));
  if (stream == nullptr) return nullptr;
  if (filename != nullptr) {
    stream->filename = wide_dup(filename);
    if (stream->filename == nullptr) {
      mem_free(stream);
      return nullptr;
    }
  }
  stream->seek = file_seek64;
  stream->read = std::fread;
  stream->write = std::fwrite;
  return stream;
}

extern "C" ZEL_EXPORT void zel_stream_cleanup(ZELStream* stream) {
  if (stream == nullptr) return;
  mem_free(stream->filename);
  mem_free(stream);
}

extern "C" ZEL_EXPORT ZELByteRanges* zel_byte_ranges_init(void) {
  return static_cast<ZELByteRanges*>(mem_calloc(1, sizeof(ZELByteRanges)));
}

extern "C" ZEL_EXPORT ZELByteRanges* zel_byte_ranges_append(ZELByteRanges* list, uint64_t start,
                                                            uint64_t end) {
  if (list == nullptr) return nullptr;
  auto* item = static_cast<ZELByteRangeItem*>(mem_calloc(1, sizeof(ZELByteRangeItem)));
  if (item == nullptr) {
    ZLOG("Cannot allocate memory for ZELByteRangeItem");
    return list;
  }
  item->start = start;
  item->end = end;
  item->next = list->head;
  list->head = item;
  list->count++;
  return list;
}

extern "C" ZEL_EXPORT void zel_byte_ranges_cleanup(ZELByteRanges* list) {
  if (list == nullptr) return;
  while (list->head != nullptr) {
    ZELByteRangeItem* item = list->head;
    list->head = item->next;
    mem_free(item);
  }
  mem_free(list);
}

extern "C" ZEL_EXPORT ZELObjectDetails* zel_object_details_init(void) {
  auto* details = static_cast<ZELObjectDetails*>(mem_calloc(1, sizeof(ZELObjectDetails)));
  if (details == nullptr) ZLOG("Cannot allocate memory for ZELObjectDetails");
  return details;
}

extern "C" ZEL_EXPORT void zel_object_details_cleanup(ZELObjectDetails* details) {
  if (details == nullptr) return;
  mem_free(details->bucket_key);
  mem_free(details->object_id);
  mem_free(details->object_key);
  mem_free(details->sha1);
  mem_free(details->content_type);
  mem_free(details->location);
  // Zeroed so that a stale pointer to a freed record shows empty values
  // rather than plausible ones.
  std::memset(details, 0, sizeof(*details));
  mem_free(details);
}

extern "C" ZEL_EXPORT ZELObjectSession* zel_object_session_init(void) {
  auto* session = static_cast<ZELObjectSession*>(mem_calloc(1, sizeof(ZELObjectSession)));
  if (session == nullptr) return nullptr;
  session->ranges = zel_byte_ranges_init();
  if (session->ranges == nullptr) {
    ZLOG("Cannot allocate memory for ZELByteRanges");
    mem_free(session);
    return nullptr;
  }
  return session;
}

extern "C" ZEL_EXPORT void zel_object_session_cleanup(ZELObjectSession* session) {
  if (session == nullptr) return;
  mem_free(session->bucket_key);
  mem_free(session->key);
  mem_free(session->session_id);
  zel_byte_ranges_cleanup(session->ranges);
  mem_free(session);
}

ZELStream* stream_clone(const ZELStream* stream) {
  if (stream == nullptr) return nullptr;
  auto* copy = static_cast<ZELStream*>(mem_calloc(1, sizeof(ZELStream)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for ZELStream clone");
    return nullptr;
  }
  if (stream->filename != nullptr) {
    copy->filename = wide_dup(stream->filename);
    if (copy->filename == nullptr) {
      ZLOG("Cannot allocate memory for the ZELStream filename");
      mem_free(copy);
      return nullptr;
    }
  }
  copy->seek = stream->seek;
  copy->read = stream->read;
  copy->write = stream->write;
  return copy;
}

ZELByteRange* byte_range_clone(const ZELByteRange* range) {
  if (range == nullptr) return nullptr;
  auto* copy = static_cast<ZELByteRange*>(mem_malloc(sizeof(ZELByteRange)));
  if (copy == nullptr) {
    ZLOG("Cannot allocate memory for ZELByteRange clone");
    return nullptr;
  }
  *copy = *range;
  return copy;
}

void byte_range_cleanup(ZELByteRange* range) { mem_free(range); }

int byte_ranges_from_header(const char* value, ZELByteRanges* out) {
  if (value == nullptr || out == nullptr) return -1;
  const char* equals = std::strchr(value, '=');
  if (equals == nullptr) return -1;
  const char* piece = equals + 1;
  if (*piece == '\0') return 0;
  for (;;) {
    const char* comma = std::strchr(piece, ',');
    size_t length = comma != nullptr ? static_cast<size_t>(comma - piece) : std::strlen(piece);
    const char* dash = static_cast<const char*>(std::memchr(piece, '-', length));
    if (dash == nullptr) return -1;
    // Both readings stop at the first non-digit, so the end never runs
    // into a further "-" or the next piece.
    uint64_t before = out->count;
    zel_byte_ranges_append(out, read_offset(piece), read_offset(dash + 1));
    if (out->count == before) return -1;
    if (comma == nullptr) return 0;
    piece = comma + 1;
  }
}
