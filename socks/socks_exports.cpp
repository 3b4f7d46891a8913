// SOCKS_* exports of the connect path, in ordinal order.
#include <cstring>

#include "lifecycle.h"
#include "log.h"
#include "proxy_socket_manager.h"
#include "resolver.h"
#include "socks_api.h"
#include "socks_socket.h"

namespace {

CSocksSocket* FindOrAddSocksSocket(SOCKET s) {
    return static_cast<CSocksSocket*>(g_pProxySocketManager->FindOrAddSocket(s, kSocksSocketType));
}

CSocksSocket* FindSocksSocket(SOCKET s) {
    return static_cast<CSocksSocket*>(g_pProxySocketManager->FindSocket(s));
}

void LogBegin(const char* name, SOCKET s) {
    SOCKS_LogString("Begin func %s", name);
    SOCKS_LogString(" socket = %d", static_cast<int>(s));
}

}  // namespace

extern "C" {

int SOCKS_connect(SOCKET s, const sockaddr* name, int namelen) {
    LogBegin("SOCKS_connect", s);
    int result;
    if (name == nullptr || namelen < static_cast<int>(sizeof(sockaddr_in))) {
        // No address record to read a port from.
        result = SOCKET_ERROR;
        WSASetLastError(WSAEFAULT);
    } else {
        char text[kTargetHostSize] = {};
        AddressToNumericText(name, namelen, text, sizeof text);
        unsigned port = ntohs(reinterpret_cast<const sockaddr_in*>(name)->sin_port);
        result = SOCKS_ConnectEx(s, text, port, nullptr, AF_INET);
    }
    SOCKS_LogString("End func %s", "SOCKS_connect");
    return result;
}

int SOCKS_SetProxy(SOCKET s, const sockaddr_in* proxy, int length, const char* userId) {
    return SOCKS_SetProxyEx(s, proxy, length, userId, 4);
}

int SOCKS_ConnectEx(SOCKET s, const char* host, unsigned int port, HWND parent, int family) {
    LogBegin("SOCKS_ConnectEx", s);
    SOCKS_LogString("Begin host:port %s:%d", host, static_cast<int>(port));
    CSocksSocket* object = FindOrAddSocksSocket(s);
    g_hParentWindow = parent;
    int code;
    if (object == nullptr) {
        code = WSAENOTSOCK;
    } else if (!object->proxyChosen) {
        // No proxy was named for this socket and no proxy map applies: never a direct connection.
        code = WSAGetLastError();
        if (code == 0) code = -1;
    } else {
        unsigned error = 0;
        object->StartConnect(kCommandConnect, host, port, parent, &error);
        code = static_cast<int>(error);
    }
    int result = code == 0 ? 0 : SOCKET_ERROR;
    SOCKS_LogString("End host:port %s:%d", host, static_cast<int>(port));
    SOCKS_LogString("WinSock Error = %d", code);
    SOCKS_LogString(" result = %d", result);
    SOCKS_LogString("End func %s", "SOCKS_ConnectEx");
    if (code > 0) WSASetLastError(code);
    return result;
}

int SOCKS_ConnectCanceled(SOCKET s) {
    LogBegin("SOCKS_ConnectCanceled", s);
    CSocksSocket* object = FindSocksSocket(s);
    int result = object != nullptr ? object->canceled : 0;
    SOCKS_LogString(" result = %d", result);
    SOCKS_LogString("End func %s", "SOCKS_ConnectCanceled");
    return result;
}

unsigned int SOCKS_GetConnectError(SOCKET s) {
    LogBegin("SOCKS_GetConnectError", s);
    CSocksSocket* object = FindSocksSocket(s);
    unsigned result = object != nullptr ? object->connectError : 0;
    SOCKS_LogString(" result = %d", static_cast<int>(result));
    SOCKS_LogString("End func %s", "SOCKS_GetConnectError");
    return result;
}

int SOCKS_SetProxyEx(SOCKET s, const sockaddr_in* proxy, int length, const char* userId, unsigned int version) {
    LogBegin("SOCKS_SetProxyEx", s);
    CSocksSocket* object = FindOrAddSocksSocket(s);
    if (object != nullptr) object->SetProxy(proxy, length, userId, version);
    SOCKS_LogString("End func %s", "SOCKS_SetProxyEx");
    return object != nullptr ? 0 : 1;
}

}  // extern "C"
