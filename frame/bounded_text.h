// Bounded writing: every byte goes through a writer that knows what is left, so that each bound is
// visible at the call. Free of the Windows API.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>

// Appends text into a fixed buffer of `size` characters, keeping room for the terminator; what
// doesn't fit is cut. Narrow and wide alike.
template <typename Char>
class BasicBoundedWriter {
public:
    BasicBoundedWriter(Char* buffer, size_t size) : buffer_(buffer), size_(size) {
        if (size_ > 0) buffer_[0] = Char();
    }

    void Put(Char c) {
        if (length_ + 1 < size_) {
            buffer_[length_++] = c;
            buffer_[length_] = Char();
        }
    }
    void Put(const Char* text, size_t count) {
        for (size_t i = 0; i < count && length_ + 1 < size_; ++i) Put(text[i]);
    }
    void Put(const Char* text) {
        for (; *text != Char() && length_ + 1 < size_; ++text) Put(*text);
    }
    void PutRepeated(Char c, size_t count) {
        for (size_t i = 0; i < count && length_ + 1 < size_; ++i) Put(c);
    }

    size_t Length() const { return length_; }
    size_t Room() const { return size_ > length_ ? size_ - length_ - 1 : 0; }

private:
    Char* buffer_;
    size_t size_;
    size_t length_ = 0;
};

using BoundedWriter = BasicBoundedWriter<char>;
using WideBoundedWriter = BasicBoundedWriter<wchar_t>;

// Copies at most size-1 characters of `source` (null: none) and terminates; returns the length copied.
template <typename Char>
size_t CopyText(Char* destination, size_t size, const Char* source) {
    BasicBoundedWriter<Char> writer(destination, size);
    if (source != nullptr) writer.Put(source);
    return writer.Length();
}

// The same into an array, whose size is the bound.
template <typename Char, size_t Size>
size_t CopyText(Char (&destination)[Size], const Char* source) {
    return CopyText(destination, Size, source);
}

// Writes packet bytes at a position within `size`; a byte that finds no room is dropped and noted.
class ByteWriter {
public:
    ByteWriter(uint8_t* buffer, size_t size) : buffer_(buffer), size_(size) {}

    void Put(uint8_t byte) {
        if (position_ < size_) {
            buffer_[position_] = byte;
        } else {
            overflowed_ = true;
        }
        ++position_;
    }
    void Put(const void* bytes, size_t count) {
        const auto* p = static_cast<const uint8_t*>(bytes);
        for (size_t i = 0; i < count; ++i) Put(p[i]);
    }
    // A 16-bit value, most significant byte first.
    void PutBig16(uint16_t value) {
        Put(static_cast<uint8_t>(value >> 8));
        Put(static_cast<uint8_t>(value & 0xff));
    }
    // Moves the position, for a field that is written over bytes already written.
    void Seek(size_t position) { position_ = position; }

    size_t Position() const { return position_; }
    size_t Room() const { return size_ > position_ ? size_ - position_ : 0; }
    bool Overflowed() const { return overflowed_; }

private:
    uint8_t* buffer_;
    size_t size_;
    size_t position_ = 0;
    bool overflowed_ = false;
};
