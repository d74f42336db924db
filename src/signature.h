#pragma once
// The one field of a delta signature file that the library reads itself:
// the SHA-1 of the file the signature describes.

// 40 lowercase hexadecimal digits (mem_free), or nullptr (logged) when the
// file cannot be opened or is too short to hold the digest.
char* signature_sha1(const char16_t* path);
