// CHttpSocket: the per-socket client of an HTTP proxy. One CONNECT request, one reading of the reply,
// and from state 10 on the socket is the host's. States 1 (send the request) and 11 (await the reply)
// are its own; 13 is written and at once replaced by 9.
#pragma once

#include "dxsocks_types.h"
#include "proxy_socket.h"

class CHttpSocket : public CProxySocket {
public:
    explicit CHttpSocket(SOCKET s);
    CHttpSocket(SOCKET s, UnloggedTag) : CProxySocket(s) {}

    void SetProxy(const sockaddr_in* proxy, int length, const char* user, unsigned authenticate);
    int StartConnect(unsigned command, const char* host, unsigned port, HWND parent, unsigned* error);
    int ConnectToServer(HWND parent);
    int ProcessState();
    int ProcessHttpState();
    int SendHttpAuthentication();
    void StartReading(int count);
    int OnRead(int count);
    int SocketPeek(unsigned* error);
    int Send(const void* buffer, int length);
    int OnHttpResponse(unsigned* error);
    void ConnectFinished(unsigned error);
    void StopEvents();

    int32_t useAuthentication = 0;

    // The encoded "user:password" text for the request, in UTF-16. Returns getPassword's result.
    int createUTF8UsernamePassword(wchar_t* out, int size);
    // The password from the host's callback (or the UI library's prompt). Non-zero if one was had.
    int getPassword(char* password, int size);
    // The UI library's prompt for `size` bytes of password; 1 when it gave a non-empty one.
    int PromptPassword(const char* address, char* password, int size);
};

// The host's password callback and its context (HTTP_SetPasswordCallback).
extern DXSOCKS_PASSWORD_CALLBACK g_pfnHttpPassword;
extern void* g_httpPasswordContext;

// Writes "host:port" of an address into `out` (wide characters, at least 1059), the host part a name
// where a reverse lookup finds one. Returns 0, the WinSock error, or -1 if the buffer is too small.
int AddressToHostPortText(const sockaddr* address, int length, wchar_t* out, int size);

// Socket events of the HTTP hidden window.
int httpHiddenOnSocketEvent(SOCKET socket, unsigned error, unsigned events);
