#pragma once
// A request and its response with a body store, and an upload source that
// announces any size without holding it, for tests of the HTTP layer.
// Header-only: the support library does not link zel itself.
#include <cstdint>
#include <string>

#include "alloc.h"
#include "http.h"

namespace zeltest {

struct Exchange {
  HttpRequest* request = http_request_init();
  HttpResponse* response = http_response_init();
  Exchange() {
    response->body = http_body_init();
    response->body->callback = http_body_write;
  }
  ~Exchange() { http_release(request, response); }
  const char* perform() { return http_perform(request, response); }
};

// Upload source for tests: serves the test's text or, past its end, zero
// bytes up to the announced size, so a large announced body needs no large
// buffer. It lives in the body's data field, which the request frees, and
// only points at the text, which the test keeps alive.
struct UploadSource {
  const std::string* text;
  uint64_t offset;
};

inline size_t read_upload(char* bytes, size_t size, size_t count, void* raw) {
  auto* body = static_cast<HttpBody*>(raw);
  auto* source = reinterpret_cast<UploadSource*>(body->data);
  size_t room = size * count;
  uint64_t left = body->size - source->offset;
  size_t n = left < room ? static_cast<size_t>(left) : room;
  for (size_t i = 0; i < n; i++) {
    uint64_t at = source->offset + i;
    bytes[i] = at < source->text->size() ? (*source->text)[at] : '\0';
  }
  source->offset += n;
  return n;
}

inline void attach_upload(HttpRequest* request, const std::string& text, uint64_t size) {
  request->body = http_body_init();
  auto* source = static_cast<UploadSource*>(mem_calloc(1, sizeof(UploadSource)));
  source->text = &text;
  request->body->data = reinterpret_cast<char*>(source);
  request->body->size = size;
  request->body->callback = read_upload;
}

const std::string kNoText;
const std::string kDigits = "0123456789";
const std::string kAbc = "abc";

}  // namespace zeltest
