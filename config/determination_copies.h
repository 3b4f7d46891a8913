// The determination's out-parameters as the host hands them: a buffer and a size that it chose. No
// byte goes outside it; a null buffer or a size of 0 or less takes nothing. Free of the Windows API.
#pragma once

#include <cstddef>
#include <cstdint>

// Zero over the host's `size` bytes.
void ClearOut(void* out, int size);
// The first bytes of `record` (of `recordSize`) into the host's buffer, as many as it holds.
void CopyOut(void* out, int size, const void* record, size_t recordSize);
// The text emptied: the first character 0.
void ClearTextOut(char* out, int size);
// `text` cut to `size` - 1 characters and terminated; the buffer's last byte is 0 whatever the
// length, as a copy that then closes the buffer leaves it.
void CopyTextOut(char* out, int size, const char* text);
// The port (host order) of an address record of `length` bytes: bytes 2 and 3, most significant
// first; 0 for a null record or one too short to hold them.
uint16_t PortOfRecord(const void* record, int length);
