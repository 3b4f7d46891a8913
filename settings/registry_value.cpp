#include "registry_value.h"

#include "bounded_text.h"

uint32_t FlagFromValue(uint32_t type, const uint8_t* data, size_t size, uint32_t fallback, TextCompare compare) {
    if (data == nullptr) size = 0;
    if (size > kFlagBufferSize) size = kFlagBufferSize;
    switch (type) {
        case kValueText: {
            char text[kFlagBufferSize];
            BoundedWriter writer(text, sizeof text);
            for (size_t i = 0; i < size && data[i] != 0; ++i) writer.Put(static_cast<char>(data[i]));
            if (compare(text, "true") == 0) return 1;
            if (compare(text, "false") == 0) return 0;
            return fallback;
        }
        case kValueBinary:
            return size > 0 && data[0] == 1 ? 1 : 0;
        case kValueNumber:
            // Kept: only the lowest byte is looked at, so 257 reads as true.
            return size > 0 && data[0] == 1 ? 1 : 0;
        default:
            return 0;
    }
}

uint32_t NumberFromValue(const uint8_t* data, size_t size) {
    uint32_t value = 0;
    if (data == nullptr) return value;
    for (size_t i = 0; i < size && i < sizeof value; ++i) value |= static_cast<uint32_t>(data[i]) << (8 * i);
    return value;
}

uint32_t FinishStringRead(bool succeeded, uint32_t read, const char* fallback, char* buffer, uint32_t size) {
    if (buffer == nullptr || size == 0) return succeeded ? read : 0;
    if (succeeded) {
        // A text stored without its terminator still ends inside the buffer.
        buffer[read < size ? read : size - 1] = '\0';
        return read;
    }
    size_t length = fallback != nullptr ? std::strlen(fallback) : 0;
    if (fallback != nullptr && length < size) return static_cast<uint32_t>(CopyText(buffer, size, fallback));
    buffer[0] = '\0';
    return 0;
}

NameListWriter::NameListWriter(char* buffer, size_t size) : buffer_(buffer), size_(size) {}

bool NameListWriter::Add(const char* name, size_t length) {
    if (!Usable()) return false;
    // The name, its terminator and the list's final terminator.
    if (size_ - used_ < length + 2) return false;
    ByteWriter writer(reinterpret_cast<uint8_t*>(buffer_ + used_), size_ - used_);
    writer.Put(name, length);
    writer.Put(0);
    used_ += writer.Position();
    return true;
}

size_t NameListWriter::Finish() {
    if (!Usable()) return 0;
    buffer_[used_] = '\0';
    return ++used_;
}
