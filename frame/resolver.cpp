#include "resolver.h"

#include <ws2tcpip.h>

#include <cstdio>
#include <cstring>

int ResolveHostPort(const char* host, unsigned port, sockaddr_in* address) {
    char service[16];
    std::snprintf(service, sizeof service, "%u", port);
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    int code = getaddrinfo(host, service, &hints, &result);
    WSASetLastError(code);
    if (code != 0) return code;
    // Only the first answer is used; there is no second attempt at another address.
    size_t length = result->ai_addrlen < sizeof *address ? result->ai_addrlen : sizeof *address;
    std::memcpy(address, result->ai_addr, length);
    freeaddrinfo(result);
    return 0;
}

int AddressToNumericText(const sockaddr* address, int length, char* buffer, int size) {
    char service[32] = {};
    int code = getnameinfo(address, length, buffer, size, service, sizeof service, NI_NUMERICHOST | NI_NUMERICSERV);
    WSASetLastError(code);
    return code == 0 ? 0 : WSAGetLastError();
}
