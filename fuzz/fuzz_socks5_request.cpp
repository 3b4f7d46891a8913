// The SOCKS 5 request: written exactly into its size (the buffer is allocated to it, so the address
// sanitizer sees any overrun), a name goes whole behind the low 8 bits of its length.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "socks5_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 7) return 0;
    uint32_t address;
    std::memcpy(&address, data, 4);
    uint8_t command = data[4];
    uint16_t port = static_cast<uint16_t>(data[5] << 8 | data[6]);
    const char* name = reinterpret_cast<const char*>(data + 7);
    size_t nameLength = size - 7 < 1024 ? size - 7 : 1024;

    Socks5RequestLayout layout = LayoutSocks5Request(address, nameLength);
    std::unique_ptr<uint8_t[]> request(new uint8_t[layout.size]);
    WriteSocks5Request(layout, command, address, port, name, nameLength, port, request.get());

    if (request[0] != 5 || request[1] != command || request[2] != 0) std::abort();
    if (address != 0) {
        if (layout.size != 10 || request[3] != 1 || std::memcmp(request.get() + 4, &address, 4) != 0) std::abort();
    } else {
        if (layout.size != nameLength + 7 || request[3] != 3) std::abort();
        if (request[4] != (nameLength & 0xff)) std::abort();
        if (std::memcmp(request.get() + 5, name, nameLength) != 0) std::abort();
        if (request[5 + nameLength] != (port >> 8) || request[6 + nameLength] != (port & 0xff)) std::abort();
    }
    return 0;
}
