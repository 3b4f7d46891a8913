// Base64 of the "user:password" text for the Proxy-Authorization line.
#pragma once

#include <cstddef>

// Encodes the text in place, without line breaks: the "=" padding is laid down first, then the
// groups of three bytes are encoded over it. Returns 1, or 0 with the text unchanged when a byte is at
// or above 0x80 (such a text goes out as it stands) or when the encoding would not fit `capacity`.
int Base64Encode(char* text, size_t capacity);
