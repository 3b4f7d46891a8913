/* Connects through a SOCKS 4 proxy with the installed DXSOCKS.DLL and echoes one word.
   Usage: consumer_c PROXY_PORT ECHO_PORT (both on 127.0.0.1). */
#include "socks_api.h"
#include "http_api.h"
#include "registry_api.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char **argv) {
    WSADATA wsa;
    SOCKET s;
    struct sockaddr_in proxy;
    char reply[16] = {0};
    int received = 0, n;
    int (*volatile cleanup)(void) = CleanupRegistry;

    if (argc < 3) return 2;
    /* Bound through the import library, not called: it would delete the user's proxy keys. */
    if (cleanup == NULL) return 6;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 3;

    s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    memset(&proxy, 0, sizeof proxy);
    proxy.sin_family = AF_INET;
    proxy.sin_port = htons((unsigned short)atoi(argv[1]));
    proxy.sin_addr.s_addr = inet_addr("127.0.0.1");

    if (SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "consumer", 4) != 0) return 4;
    if (SOCKS_ConnectEx(s, "127.0.0.1", (unsigned)atoi(argv[2]), NULL, AF_INET) != 0) {
        fprintf(stderr, "connect failed: WinSock error %d\n", WSAGetLastError());
        return 1;
    }

    if (send(s, "consumer", 8, 0) != 8) return 5;
    /* The echo may come back in pieces. */
    while (received < 8 && (n = recv(s, reply + received, 8 - received, 0)) > 0) received += n;

    SOCKS_closesocket(s);
    WSACleanup();
    if (received != 8 || memcmp(reply, "consumer", 8) != 0) {
        fprintf(stderr, "echo mismatch: got %d bytes\n", received);
        return 1;
    }
    printf("C consumer: %.8s\n", reply);
    return 0;
}
