#include "export_frame.h"

#include <algorithm>
#include <cstring>

#include "log.h"
#include "proxy_socket_manager.h"
#include "resolver.h"
#include "suite_library.h"

void LogBegin(const char* name, SOCKET s) {
    SOCKS_LogString("Begin func %s", name);
    SOCKS_LogString(" socket = %d", static_cast<int>(s));
}

void LogEnd(const char* name, int result) {
    SOCKS_LogString(" result = %d", result);
    SOCKS_LogString("End func %s", name);
}

void LogAddress(const char* format, const sockaddr* address) {
    sockaddr_in shown = {};
    if (address != nullptr) std::memcpy(&shown, address, sizeof shown);
    SOCKS_LogString(format, inet_ntoa(shown.sin_addr), static_cast<int>(ntohs(shown.sin_port)));
}

void StoreAddress(const sockaddr_in& address, sockaddr* destination, const int* length) {
    if (destination == nullptr) return;
    size_t room = sizeof address;
    if (length != nullptr && *length >= 0) room = std::min(room, static_cast<size_t>(*length));
    std::memcpy(destination, &address, room);
}

bool AddressRecordToHostPort(const sockaddr* name, int namelen, char* text, size_t size, unsigned* port) {
    if (name == nullptr || namelen < static_cast<int>(sizeof(sockaddr_in))) return false;
    AddressToNumericText(name, namelen, text, static_cast<int>(size));
    *port = ntohs(reinterpret_cast<const sockaddr_in*>(name)->sin_port);
    return true;
}

int CallWithAddressRecord(HostPortCall call, SOCKET s, const sockaddr* name, int namelen) {
    char text[kTargetHostSize] = {};
    unsigned port = 0;
    if (!AddressRecordToHostPort(name, namelen, text, sizeof text, &port)) {
        WSASetLastError(WSAEFAULT);
        return SOCKET_ERROR;
    }
    return call(s, text, port, nullptr, AF_INET);
}

int CloseManagedSocket(const char* name, SOCKET s) {
    LogBegin(name, s);
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    if (object != nullptr) {
        // A close in mid-handshake, or one of several owed, leaves socket and object alive.
        if (object->ReleaseSocket() == 0) {
            LogEnd(name, 0);
            return 0;
        }
        SOCKS_LogString("g_pProxySocketManager->RemoveSocket(s)");
        g_pProxySocketManager->RemoveSocket(s);
    }
    int result = closesocket(s);
    LogEnd(name, result);
    return result;
}

// The socket itself isn't closed here.
void CleanupManagedSocket(const char* name, SOCKET s) {
    LogBegin(name, s);
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    if (object != nullptr) {
        object->ReleaseSocket();
        SOCKS_LogString("g_pProxySocketManager->RemoveSocket(s)");
        g_pProxySocketManager->RemoveSocket(s);
    }
    SOCKS_LogString("End func %s", name);
}

int GetManagedSockName(const char* name, const char* owner, SOCKET s, sockaddr* address, int* length) {
    LogBegin(name, s);
    LogAddress("Begin addr %s:%d", address);
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    int result = 0;
    if (object != nullptr && object->useProxy && address != nullptr) {
        SOCKS_LogString("calling %s::GetSockName", owner);
        object->GetSockName(address, length);
    } else {
        SOCKS_LogString("calling ::getsockname");
        result = getsockname(s, address, length);
    }
    LogAddress("End addr %s:%d", address);
    LogEnd(name, result);
    return result;
}

// With a proxy the waiting is the proxy's: WinSock is not asked.
int ListenManaged(const char* name, SOCKET s, int backlog) {
    LogBegin(name, s);
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    int result = 0;
    if (object != nullptr && object->useProxy) {
        object->readPointer = nullptr;
        object->bytesRead = 0;
        object->bytesRequested = 0;
    } else {
        result = listen(s, backlog);
    }
    LogEnd(name, result);
    return result;
}

int SelectManaged(const char* name, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                  const timeval* timeout) {
    SOCKS_LogString("Begin func %s", name);
    int result = g_pProxySocketManager->Select(nfds, readfds, writefds, exceptfds, timeout);
    SOCKS_LogString("End func %s", name);
    return result;
}

int AsyncSelectManaged(const char* name, int type, SOCKET s, HWND window, unsigned message, long events) {
    LogBegin(name, s);
    SOCKS_LogString(" %p, %x, %x", window, message, static_cast<unsigned>(events));
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    int result = 0;
    if (object == nullptr && (events & FD_CONNECT)) {
        object = g_pProxySocketManager->AddSocket(s, type);
        SOCKS_LogString("pSocket->PushAsyncSelect");
        if (object != nullptr) {
            object->PushAsyncSelect(window, message, static_cast<unsigned>(events));
        } else {
            result = WSAENOTSOCK;
        }
    } else if (object == nullptr || object->state == kEstablished) {
        SOCKS_LogString("calling ::WSAAsyncSelect");
        result = WSAAsyncSelect(s, window, message, events);
    } else if (object->state == kIdle) {
        SOCKS_LogString("pSocket->PushAsyncSelect");
        object->PushAsyncSelect(window, message, static_cast<unsigned>(events));
    } else {
        // During a handshake, or after a failed one, the host's selection is dropped.
        SOCKS_LogString("do nothing");
    }
    LogEnd(name, result);
    return result;
}

int ReadCanceled(const char* name, SOCKET s) {
    LogBegin(name, s);
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    int result = object != nullptr ? object->canceled : 0;
    LogEnd(name, result);
    return result;
}

unsigned ReadConnectError(const char* name, SOCKET s) {
    LogBegin(name, s);
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    unsigned result = object != nullptr ? object->connectError : 0;
    LogEnd(name, static_cast<int>(result));
    return result;
}

void StoreParentWindow(const char* name, HWND window) {
    SOCKS_LogString("Begin func %s", name);
    g_hParentWindow = window;
    SOCKS_LogString("End func %s", name);
}

void ReportConnectTimeout(const char* name, SOCKET s, bool notesConfigTimeout) {
    LogBegin(name, s);
    if (g_configPromptActive) {
        auto onTimeout = GetSetUIEntry<PFN_PXMSETUIDLL_OnTimeout>("PXMSETUIDLL_OnTimeout");
        if (onTimeout != nullptr) onTimeout();
        if (notesConfigTimeout) g_configPromptTimedOut = 1;
    }
    CProxySocket* object = g_pProxySocketManager->FindSocket(s);
    if (object != nullptr) object->OnConnectTimeout();
    SOCKS_LogString("End func %s", name);
}
