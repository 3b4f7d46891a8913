// SOCKS version 5 packets: method selection and the request with address type 1 or 3.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t kSocks5Version = 5;
constexpr uint8_t kMethodNoAuthentication = 0;
constexpr uint8_t kMethodGssapi = 1;
constexpr uint8_t kMethodUserPassword = 2;
constexpr uint8_t kAddressTypeIPv4 = 1;
constexpr uint8_t kAddressTypeName = 3;

constexpr size_t kMethodSelectMaxSize = 4;

// 5,1,0 without a user name; 5,2,2,0 with one. Returns the size written.
size_t BuildSocks5MethodSelect(bool withUser, uint8_t out[kMethodSelectMaxSize]);

// The request's shape: type 1 when the destination resolved locally, else type 3 with the name.
struct Socks5RequestLayout {
    uint8_t addressType;
    size_t size;  // 10 for type 1; name length + 7 for type 3
};
Socks5RequestLayout LayoutSocks5Request(uint32_t networkAddress, size_t nameLength);

// Writes the request into `out`, which holds layout.size bytes. The length byte of a name keeps only
// its low 8 bits, while the whole name is written.
void WriteSocks5Request(const Socks5RequestLayout& layout, uint8_t command, uint32_t networkAddress,
                        uint16_t networkPort, const char* name, size_t nameLength, uint16_t hostPort,
                        uint8_t* out);
