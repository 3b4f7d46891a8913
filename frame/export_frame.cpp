#include "export_frame.h"

#include <algorithm>
#include <cstring>

#include "log.h"
#include "proxy_socket_manager.h"
#include "resolver.h"

// The names of the result codes stand for the system's codes and the public ones.
static_assert(dxcode::kFault == WSAEFAULT && dxcode::kFault == DXSOCKS_WSAEFAULT);
static_assert(dxcode::kInvalid == WSAEINVAL && dxcode::kInvalid == DXSOCKS_WSAEINVAL);
static_assert(dxcode::kWouldBlock == WSAEWOULDBLOCK && dxcode::kWouldBlock == DXSOCKS_WSAEWOULDBLOCK);
static_assert(dxcode::kNotSocket == WSAENOTSOCK && dxcode::kNotSocket == DXSOCKS_WSAENOTSOCK);
static_assert(dxcode::kNoBuffers == WSAENOBUFS);
static_assert(dxcode::kConnectionRefused == WSAECONNREFUSED && dxcode::kConnectionRefused == DXSOCKS_WSAECONNREFUSED);
static_assert(dxcode::kHostNotFound == WSAHOST_NOT_FOUND && dxcode::kHostNotFound == DXSOCKS_WSAHOST_NOT_FOUND);
static_assert(dxcode::kTimeout == ERROR_TIMEOUT && dxcode::kTimeout == DXSOCKS_ERROR_TIMEOUT);
static_assert(dxcode::kCancelled == ERROR_CANCELLED && dxcode::kCancelled == DXSOCKS_ERROR_CANCELLED);
static_assert(dxcode::kHttpNotFound == DXSOCKS_HTTP_NOT_FOUND);
static_assert(dxcode::kProxyAuthFailed == DXSOCKS_PROXY_AUTH_FAILED);
static_assert(dxcode::kPasswordCancelled == DXSOCKS_PASSWORD_CANCELLED);

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

bool AddressLengthFaults(const int* length) {
    if (length != nullptr && *length >= 0) return false;
    WSASetLastError(dxcode::kFault);
    return true;
}

int CallWithAddressRecord(HostPortCall call, SOCKET s, const sockaddr* name, int namelen) {
    char text[kTargetHostSize] = {};
    unsigned port = 0;
    if (!AddressRecordToHostPort(name, namelen, text, sizeof text, &port)) {
        WSASetLastError(dxcode::kFault);
        return SOCKET_ERROR;
    }
    return call(s, text, port, nullptr, AF_INET);
}

int CloseManagedSocket(const char* name, SOCKET s, ReleaseHeld release) {
    ExportLog log(name, s);
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    if (object != nullptr) {
        // A close in mid-handshake, or one of several owed, leaves socket and object alive.
        if (object->ReleaseSocket() == 0) {
            log.End(0);
            return 0;
        }
        if (release != nullptr) release(object.get());
        SOCKS_LogString("g_pProxySocketManager->RemoveSocket(s)");
        // Unlinked now; freed when the last use goes, maybe an event step still running on it.
        g_pProxySocketManager->RemoveSocket(object.get());
    }
    int result = closesocket(s);
    log.End(result);
    return result;
}

// The socket itself isn't closed here.
void CleanupManagedSocket(const char* name, SOCKET s, ReleaseHeld release) {
    ExportLog log(name, s);
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    if (object != nullptr) {
        object->ReleaseSocket();
        if (release != nullptr) release(object.get());
        SOCKS_LogString("g_pProxySocketManager->RemoveSocket(s)");
        g_pProxySocketManager->RemoveSocket(object.get());
    }
    log.End();
}

int GetManagedSockName(const char* name, const char* owner, SOCKET s, sockaddr* address, int* length) {
    ExportLog log(name, s);
    LogAddress("Begin addr %s:%d", address);
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    int result = 0;
    if (object != nullptr && object->useProxy && address != nullptr) {
        SOCKS_LogString("calling %s::GetSockName", owner);
        object->GetSockName(address, length);
    } else {
        SOCKS_LogString("calling ::getsockname");
        result = AddressLengthFaults(length) ? SOCKET_ERROR : getsockname(s, address, length);
    }
    LogAddress("End addr %s:%d", address);
    log.End(result);
    return result;
}

// With a proxy the waiting is the proxy's: WinSock is not asked.
int ListenManaged(const char* name, SOCKET s, int backlog) {
    ExportLog log(name, s);
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    int result = 0;
    if (object != nullptr && object->useProxy) {
        object->readPointer = nullptr;
        object->bytesRead = 0;
        object->bytesRequested = 0;
    } else {
        result = listen(s, backlog);
    }
    log.End(result);
    return result;
}

int SelectManaged(const char* name, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                  const timeval* timeout) {
    ExportLog log(name);
    int result = g_pProxySocketManager->Select(nfds, readfds, writefds, exceptfds, timeout);
    log.End();
    return result;
}

int AsyncSelectManaged(const char* name, int type, SOCKET s, HWND window, unsigned message, long events) {
    ExportLog log(name, s);
    SOCKS_LogString(" %p, %x, %x", window, message, static_cast<unsigned>(events));
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    int result = 0;
    if (object == nullptr && (events & FD_CONNECT)) {
        object = g_pProxySocketManager->AddSocket(s, type);
        SOCKS_LogString("pSocket->PushAsyncSelect");
        if (object != nullptr) {
            object->PushAsyncSelect(window, message, static_cast<unsigned>(events));
        } else {
            result = dxcode::kNotSocket;
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
    log.End(result);
    return result;
}

int ReadCanceled(const char* name, SOCKET s) {
    ExportLog log(name, s);
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    int result = object != nullptr ? object->canceled : 0;
    log.End(result);
    return result;
}

unsigned ReadConnectError(const char* name, SOCKET s) {
    ExportLog log(name, s);
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    unsigned result = object != nullptr ? object->connectError : 0;
    log.End(static_cast<int>(result));
    return result;
}

void StoreParentWindow(const char* name, HWND window) {
    ExportLog log(name);
    g_hParentWindow = window;
    log.End();
}

void ReportConnectTimeout(const char* name, SOCKET s, bool notesConfigTimeout, void (*closePrompt)()) {
    ExportLog log(name, s);
    if (g_configPromptActive) {
        closePrompt();
        if (notesConfigTimeout) g_configPromptTimedOut = 1;
    }
    ProxySocketUse object = g_pProxySocketManager->FindSocket(s);
    if (object != nullptr) object->OnConnectTimeout(closePrompt);
    log.End();
}
