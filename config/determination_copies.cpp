#include "determination_copies.h"

#include "bounded_text.h"

namespace {

bool Usable(const void* out, int size) { return out != nullptr && size > 0; }

}  // namespace

void ClearOut(void* out, int size) {
    if (!Usable(out, size)) return;
    ByteWriter writer(static_cast<uint8_t*>(out), static_cast<size_t>(size));
    while (writer.Room() > 0) writer.Put(0);
}

void CopyOut(void* out, int size, const void* record, size_t recordSize) {
    if (!Usable(out, size) || record == nullptr) return;
    ByteWriter writer(static_cast<uint8_t*>(out), static_cast<size_t>(size));
    const auto* bytes = static_cast<const uint8_t*>(record);
    for (size_t i = 0; i < recordSize && writer.Room() > 0; ++i) writer.Put(bytes[i]);
}

void ClearTextOut(char* out, int size) {
    if (!Usable(out, size)) return;
    CopyText(out, static_cast<size_t>(size), "");
}

void CopyTextOut(char* out, int size, const char* text) {
    if (!Usable(out, size)) return;
    CopyText(out, static_cast<size_t>(size), text);
    // The last byte closes the buffer even behind a shorter text.
    ByteWriter last(reinterpret_cast<uint8_t*>(out), static_cast<size_t>(size));
    last.Seek(static_cast<size_t>(size) - 1);
    last.Put(0);
}

uint16_t PortOfRecord(const void* record, int length) {
    if (record == nullptr || length < 4) return 0;
    const auto* bytes = static_cast<const uint8_t*>(record);
    return static_cast<uint16_t>((bytes[2] << 8) | bytes[3]);
}
