/* Blocking use: the handshake runs inside SOCKS_ConnectEx on this thread.
   Usage: blocking PROXY_PORT ECHO_PORT (both on 127.0.0.1). */
#include <winsock2.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "socks_api.h"

int main(int argc, char **argv) {
    WSADATA wsa;
    SOCKET s;
    struct sockaddr_in proxy;
    char reply[64] = {0};
    int received;

    if (argc < 3) return 2;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 3;  /* the host owns WSAStartup */

    s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    memset(&proxy, 0, sizeof proxy);
    proxy.sin_family = AF_INET;
    proxy.sin_port = htons((unsigned short)atoi(argv[1]));
    proxy.sin_addr.s_addr = inet_addr("127.0.0.1");

    /* Name the proxy for this socket (SOCKS 5, no user), then connect through it. */
    SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 5);
    if (SOCKS_ConnectEx(s, "127.0.0.1", (unsigned)atoi(argv[2]), NULL, AF_INET) != 0) {
        fprintf(stderr, "connect failed: WinSock error %d\n", WSAGetLastError());
        return 1;
    }

    /* From here on the socket is an ordinary connected socket. */
    send(s, "hello", 5, 0);
    received = recv(s, reply, sizeof reply - 1, 0);
    printf("%.*s\n", received > 0 ? received : 0, reply);

    SOCKS_closesocket(s);  /* lets the library forget the socket, then closes it */
    WSACleanup();
    return received == 5 ? 0 : 1;
}
