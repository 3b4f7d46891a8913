// Connects through a SOCKS 4 proxy with the installed DXSOCKS.DLL and echoes one word.
// Usage: consumer_cpp PROXY_PORT ECHO_PORT (both on 127.0.0.1).
#include "socks_api.h"
#include "http_api.h"

#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char **argv) {
    if (argc < 3) return 2;
    WSADATA wsa;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 3;

    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in proxy = {};
    proxy.sin_family = AF_INET;
    proxy.sin_port = htons(static_cast<unsigned short>(std::atoi(argv[1])));
    proxy.sin_addr.s_addr = inet_addr("127.0.0.1");

    if (SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "consumer", 4) != 0) return 4;
    if (SOCKS_ConnectEx(s, "127.0.0.1", static_cast<unsigned>(std::atoi(argv[2])), nullptr, AF_INET) != 0) {
        std::cerr << "connect failed: WinSock error " << WSAGetLastError() << "\n";
        return 1;
    }

    const std::string word = "consumer";
    if (send(s, word.data(), static_cast<int>(word.size()), 0) != static_cast<int>(word.size())) return 5;
    std::string reply;
    char buffer[16];
    // The echo may come back in pieces.
    while (reply.size() < word.size()) {
        int n = recv(s, buffer, static_cast<int>(word.size() - reply.size()), 0);
        if (n <= 0) break;
        reply.append(buffer, n);
    }

    SOCKS_closesocket(s);
    WSACleanup();
    if (reply != word) {
        std::cerr << "echo mismatch: got \"" << reply << "\"\n";
        return 1;
    }
    std::cout << "C++ consumer: " << reply << "\n";
    return 0;
}
