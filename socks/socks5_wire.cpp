#include "socks5_wire.h"

#include "bounded_text.h"

size_t BuildSocks5MethodSelect(bool withUser, uint8_t out[kMethodSelectMaxSize]) {
    ByteWriter select(out, kMethodSelectMaxSize);
    select.Put(kSocks5Version);
    if (!withUser) {
        select.Put(1);
        select.Put(kMethodNoAuthentication);
    } else {
        // Username/password is offered ahead of no authentication.
        select.Put(2);
        select.Put(kMethodUserPassword);
        select.Put(kMethodNoAuthentication);
    }
    return select.Position();
}

Socks5RequestLayout LayoutSocks5Request(uint32_t networkAddress, size_t nameLength) {
    if (networkAddress != 0) return {kAddressTypeIPv4, 10};
    return {kAddressTypeName, nameLength + 7};
}

void WriteSocks5Request(const Socks5RequestLayout& layout, uint8_t command, uint32_t networkAddress,
                        uint16_t networkPort, const char* name, size_t nameLength, uint16_t hostPort,
                        uint8_t* out) {
    ByteWriter request(out, layout.size);
    request.Put(kSocks5Version);
    request.Put(command);
    request.Put(0);
    request.Put(layout.addressType);
    if (layout.addressType == kAddressTypeIPv4) {
        request.Put(&networkAddress, 4);
        request.Put(&networkPort, 2);
        return;
    }
    request.Put(static_cast<uint8_t>(nameLength & 0xff));
    request.Put(name, nameLength);
    request.PutBig16(hostPort);
}
