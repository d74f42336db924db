// UTF-8 / UTF-16 conversion. The platform converter is Windows-only, and
// glibc's iconv silently accepts some ill-formed input, so the library
// carries its own strict converter.
#include <cstring>

#include "alloc.h"
#include "util.h"

namespace {

bool is_continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Decodes one code point at text[*i]; false on ill-formed input.
bool decode_utf8(const unsigned char* text, size_t* i, uint32_t* code_point) {
  unsigned char lead = text[*i];
  if (lead < 0x80) {
    *code_point = lead;
    *i += 1;
    return true;
  }
  int length;
  uint32_t cp = 0;
  uint32_t min;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, cp = lead & 0x1F, min = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, cp = lead & 0x0F, min = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, cp = lead & 0x07, min = 0x10000;
  } else {
    return false;
  }
  for (int k = 1; k < length; ++k) {
    unsigned char byte = text[*i + k];  // a terminator stops here: not a continuation
    if (!is_continuation(byte)) return false;
    cp = (cp << 6) | (byte & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
  *code_point = cp;
  *i += length;
  return true;
}

// Decodes one code point at text[*i]; false on a lone surrogate.
bool decode_utf16(const char16_t* text, size_t* i, uint32_t* code_point) {
  uint32_t unit = text[*i];
  if (unit < 0xD800 || unit > 0xDFFF) {
    *code_point = unit;
    *i += 1;
    return true;
  }
  if (unit > 0xDBFF) return false;
  uint32_t low = text[*i + 1];
  if (low < 0xDC00 || low > 0xDFFF) return false;
  *code_point = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
  *i += 2;
  return true;
}

size_t utf8_length(uint32_t cp) { return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4; }

char* encode_utf8(char* out, uint32_t cp) {
  if (cp < 0x80) {
    *out++ = static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out++ = static_cast<char>(0xC0 | (cp >> 6));
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out++ = static_cast<char>(0xE0 | (cp >> 12));
    *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out++ = static_cast<char>(0xF0 | (cp >> 18));
    *out++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  }
  return out;
}

}  // namespace

char16_t* utf8_to_wide(const char* text) {
  if (text == nullptr) return nullptr;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  size_t units = 0;
  uint32_t cp = 0;
  for (size_t i = 0; bytes[i] != 0;) {
    if (!decode_utf8(bytes, &i, &cp)) return nullptr;
    units += cp >= 0x10000 ? 2 : 1;
  }
  auto* out = static_cast<char16_t*>(mem_calloc(units + 1, sizeof(char16_t)));
  if (out == nullptr) return nullptr;
  size_t k = 0;
  for (size_t i = 0; bytes[i] != 0;) {
    decode_utf8(bytes, &i, &cp);
    if (cp >= 0x10000) {
      out[k++] = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
      out[k++] = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      out[k++] = static_cast<char16_t>(cp);
    }
  }
  return out;
}

char* wide_to_utf8(const char16_t* text) {
  if (text == nullptr) return nullptr;
  size_t bytes = 0;
  uint32_t cp = 0;
  for (size_t i = 0; text[i] != 0;) {
    if (!decode_utf16(text, &i, &cp)) return nullptr;
    bytes += utf8_length(cp);
  }
  char* out = static_cast<char*>(mem_calloc(bytes + 1, 1));
  if (out == nullptr) return nullptr;
  char* cursor = out;
  for (size_t i = 0; text[i] != 0;) {
    decode_utf16(text, &i, &cp);
    cursor = encode_utf8(cursor, cp);
  }
  return out;
}

size_t wide_len(const char16_t* text) {
  size_t n = 0;
  if (text != nullptr) {
    while (text[n] != 0) ++n;
  }
  return n;
}

char16_t* wide_dup(const char16_t* text) {
  if (text == nullptr) return nullptr;
  size_t n = wide_len(text);
  auto* copy = static_cast<char16_t*>(mem_malloc((n + 1) * sizeof(char16_t)));
  if (copy != nullptr) std::memcpy(copy, text, (n + 1) * sizeof(char16_t));
  return copy;
}
