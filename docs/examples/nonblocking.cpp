// Non-blocking use: the handshake runs on the library's hidden thread, and its outcome arrives at the
// host's window as FD_CONNECT with the error in the upper 16 bits of lParam.
// Usage: nonblocking PROXY_PORT ECHO_PORT (both on 127.0.0.1).
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "socks_api.h"

namespace {
constexpr UINT kSocketMessage = WM_APP + 1;
}

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    WSADATA wsa;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 3;
    SOCKS_Startup(nullptr, 0);  // starts the hidden thread that runs non-blocking handshakes

    HWND window = CreateWindowExA(0, "STATIC", "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in proxy = {};
    proxy.sin_family = AF_INET;
    proxy.sin_port = htons(static_cast<u_short>(std::atoi(argv[1])));
    proxy.sin_addr.s_addr = inet_addr("127.0.0.1");

    // Select FD_CONNECT (and what else the host wants) before connecting: the library keeps the
    // selection until the handshake is over, then posts the outcome and selects the rest.
    SOCKS_WSAAsyncSelect(s, window, kSocketMessage, FD_CONNECT | FD_READ | FD_CLOSE);
    SOCKS_SetProxyEx(s, &proxy, sizeof proxy, "", 4);
    SOCKS_ConnectEx(s, "127.0.0.1", static_cast<unsigned>(std::atoi(argv[2])), window, AF_INET);  // 0: under way

    int status = 1;
    MSG message;
    DWORD start = GetTickCount();
    while (GetTickCount() - start < 10000) {  // a failed TCP connect is never posted: keep a limit
        if (!PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
            MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
            continue;
        }
        if (message.message != kSocketMessage) {
            DispatchMessageA(&message);
            continue;
        }
        if (WSAGETSELECTEVENT(message.lParam) == FD_CONNECT) {
            int error = WSAGETSELECTERROR(message.lParam);
            if (error != 0) {
                std::fprintf(stderr, "connect failed: %d\n", error);
                break;
            }
            send(s, "hello", 5, 0);
        } else if (WSAGETSELECTEVENT(message.lParam) == FD_READ) {
            char reply[64];
            int received = recv(s, reply, sizeof reply, 0);
            if (received > 0) {
                std::printf("%.*s\n", received, reply);
                status = received == 5 ? 0 : 1;
                break;
            }
        }
    }

    SOCKS_closesocket(s);
    DestroyWindow(window);
    SOCKS_Cleanup();
    WSACleanup();
    return status;
}
