// How the registry layer reads a value's bytes and type, and how it lists names into a caller's
// buffer. Free of the Windows API, so that the rules can be tested and fuzzed on any machine.
#pragma once

#include <cstddef>
#include <cstdint>

// Value types as the registry numbers them.
constexpr uint32_t kValueText = 1;    // REG_SZ
constexpr uint32_t kValueBinary = 3;  // REG_BINARY
constexpr uint32_t kValueNumber = 4;  // REG_DWORD

// The buffer a flag is read into; its last byte stays a terminator.
constexpr size_t kFlagBufferSize = 32;

// Compares two texts without regard to case, as the process's locale does; 0 when equal.
using TextCompare = int (*)(const char* left, const char* right);

// A flag from a value that was read: `size` bytes of `data` (at most kFlagBufferSize are looked at).
// Text "true" gives 1 and "false" 0 under `compare`, other text (the empty one too) `fallback`;
// binary data gives 1 when its first byte is 1; a number gives 1 when its lowest byte is 1; any other
// type gives 0.
uint32_t FlagFromValue(uint32_t type, const uint8_t* data, size_t size, uint32_t fallback, TextCompare compare);

// A number from a value of any type that was read: its bytes (at most four) in the low bytes of a
// word that was zero.
uint32_t NumberFromValue(const uint8_t* data, size_t size);

// Ends ReadString. When the query succeeded, `read` bytes stand in the buffer: the result is that
// count and the buffer is terminated within its size. Otherwise `fallback` is copied when it is
// shorter than the buffer, and its length is the result; if not, the buffer is emptied and the
// result is 0. A buffer of size 0 is never written.
uint32_t FinishStringRead(bool succeeded, uint32_t read, const char* fallback, char* buffer, uint32_t size);

// Writes names one behind the other, each with its terminator, into a caller's buffer, and a final
// terminator behind the last: a list ends at the first name that does not fit with room for that.
class NameListWriter {
public:
    // A buffer below 3 bytes or a null one takes no list at all.
    NameListWriter(char* buffer, size_t size);

    bool Usable() const { return buffer_ != nullptr && size_ >= 3; }
    // Appends `length` characters of `name`; false, with nothing written, when they don't fit.
    bool Add(const char* name, size_t length);
    // Writes the final terminator; the bytes used, 0 for an unusable buffer.
    size_t Finish();

private:
    char* buffer_;
    size_t size_;
    size_t used_ = 0;
};
