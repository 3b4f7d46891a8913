#include "socks5_wire.h"

#include <cstring>

size_t BuildSocks5MethodSelect(bool withUser, uint8_t out[kMethodSelectMaxSize]) {
    out[0] = kSocks5Version;
    if (!withUser) {
        out[1] = 1;
        out[2] = kMethodNoAuthentication;
        return 3;
    }
    // Username/password is offered ahead of no authentication.
    out[1] = 2;
    out[2] = kMethodUserPassword;
    out[3] = kMethodNoAuthentication;
    return 4;
}

Socks5RequestLayout LayoutSocks5Request(uint32_t networkAddress, size_t nameLength) {
    if (networkAddress != 0) return {kAddressTypeIPv4, 10};
    return {kAddressTypeName, nameLength + 7};
}

void WriteSocks5Request(const Socks5RequestLayout& layout, uint8_t command, uint32_t networkAddress,
                        uint16_t networkPort, const char* name, size_t nameLength, uint16_t hostPort,
                        uint8_t* out) {
    out[0] = kSocks5Version;
    out[1] = command;
    out[2] = 0;
    out[3] = layout.addressType;
    if (layout.addressType == kAddressTypeIPv4) {
        std::memcpy(out + 4, &networkAddress, 4);
        std::memcpy(out + 8, &networkPort, 2);
        return;
    }
    out[4] = static_cast<uint8_t>(nameLength & 0xff);
    std::memcpy(out + 5, name, nameLength);
    out[5 + nameLength] = static_cast<uint8_t>(hostPort >> 8);
    out[6 + nameLength] = static_cast<uint8_t>(hostPort & 0xff);
}
