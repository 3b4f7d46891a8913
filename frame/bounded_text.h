// Bounded text writing: every byte goes through a writer that knows what is left.
#pragma once

#include <cstddef>
#include <cstring>

// Appends into a fixed buffer of `size` bytes, keeping room for the terminator; what doesn't fit is cut.
class BoundedWriter {
public:
    BoundedWriter(char* buffer, size_t size) : buffer_(buffer), size_(size) {
        if (size_ > 0) buffer_[0] = '\0';
    }

    void Put(char c) {
        if (length_ + 1 < size_) {
            buffer_[length_++] = c;
            buffer_[length_] = '\0';
        }
    }
    void Put(const char* text, size_t count) {
        for (size_t i = 0; i < count; ++i) Put(text[i]);
    }
    void Put(const char* text) { Put(text, std::strlen(text)); }
    void PutRepeated(char c, size_t count) {
        for (size_t i = 0; i < count && length_ + 1 < size_; ++i) Put(c);
    }

    size_t Length() const { return length_; }
    size_t Room() const { return size_ > length_ ? size_ - length_ - 1 : 0; }

private:
    char* buffer_;
    size_t size_;
    size_t length_ = 0;
};

// Copies at most size-1 bytes of `source` and terminates; returns the length copied.
inline size_t CopyText(char* destination, size_t size, const char* source) {
    BoundedWriter writer(destination, size);
    if (source != nullptr) writer.Put(source);
    return writer.Length();
}
