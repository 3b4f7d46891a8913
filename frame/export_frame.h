// The log frame and argument helpers that the exports of both families share.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstddef>

#include "lifecycle.h"
#include "log.h"
#include "proxy_socket_manager.h"
#include "result_codes.h"

// Logs `format` ("Begin addr %s:%d" or "End addr %s:%d") with the record's address and port; a null
// record shows as 0.0.0.0:0.
void LogAddress(const char* format, const sockaddr* address);
// Writes `address` into the host's record, no more than the length it gave (when it gave one).
void StoreAddress(const sockaddr_in& address, sockaddr* destination, const int* length);
// The dotted text and host-order port of an address record; false without a whole IPv4 record.
bool AddressRecordToHostPort(const sockaddr* name, int namelen, char* text, size_t size, unsigned* port);
// bind and connect of both families: the address record's host text and port go to the family's
// BindEx or ConnectEx; a null or short record fails with 10014.
using HostPortCall = int (*)(SOCKET s, const char* host, unsigned port, HWND parent, int family);
int CallWithAddressRecord(HostPortCall call, SOCKET s, const sockaddr* name, int namelen);

// What WinSock on Windows checks before a call that writes an address: a null or negative length is
// 10014 there, while Wine would read through the null pointer or write up to 64 KiB. True (and the
// WinSock error 10014) when the call must not go to the system.
bool AddressLengthFaults(const int* length);

// The socket calls that both families make word for word alike; `name` is the export's.
// `release`, when given, lets the family free what its class holds before the object goes.
using ReleaseHeld = void (*)(CProxySocket* object);
int CloseManagedSocket(const char* name, SOCKET s, ReleaseHeld release = nullptr);
void CleanupManagedSocket(const char* name, SOCKET s, ReleaseHeld release = nullptr);
int GetManagedSockName(const char* name, const char* owner, SOCKET s, sockaddr* address, int* length);
int ListenManaged(const char* name, SOCKET s, int backlog);
int SelectManaged(const char* name, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                  const timeval* timeout);
int AsyncSelectManaged(const char* name, int type, SOCKET s, HWND window, unsigned message, long events);

int ReadCanceled(const char* name, SOCKET s);
unsigned ReadConnectError(const char* name, SOCKET s);
// ConnectTimeout of both families: closes an open first-use prompt (the SOCKS family also notes
// that), then the socket's password prompt, each through `closePrompt`, the UI library's. Neither
// closes the socket nor ends an exchange.
void ReportConnectTimeout(const char* name, SOCKET s, bool notesConfigTimeout, void (*closePrompt)());
// SetParentHWND of both families: one window for both, so the last writer of either decides.
void StoreParentWindow(const char* name, HWND window);

// How a family's BIND wait ends besides a granted request: on a cancelled prompt always, and for
// the HTTP family also on a recorded refusal.
enum class BindWaitEnds { kOnCancel, kOnCancelOrConnectError };

// The family's determination (SOCKS_DetermineProxyEx, HTTP_DetermineProxyEx), which the family's
// exports hand down: the configuration lies above this frame. `extra` is the SOCKS version or the
// HTTP Basic flag, `preset` what it holds before the call.
using DetermineCall = int (*)(const char* host, unsigned port, sockaddr_in* proxy, int proxySize, char* userId,
                              int userIdSize, unsigned* extra, int* family);
struct Determination {
    DetermineCall call;
    unsigned preset;
};

// A socket named no proxy yet gets one from the determination: 1 and the proxy set on the object,
// else 0, the WinSock error as the determination left it.
template <typename Socket>
int DetermineForSocket(Socket& object, const Determination& determination, const char* host, unsigned port,
                       int* family) {
    sockaddr_in address = {};
    char user[512] = {};
    unsigned extra = determination.preset;
    if (determination.call(host, port, &address, sizeof address, user, sizeof user, &extra, family) == 0) return 0;
    object.SetProxy(&address, sizeof address, user, extra);
    return 1;
}

// ConnectEx of both families. A socket named no proxy takes the one the family's determination
// picks; where none applies the call fails: never a direct connection.
template <typename Socket>
int ConnectThroughProxy(const char* name, int type, SOCKET s, const char* host, unsigned port, HWND parent,
                        int family, const Determination& determination) {
    ExportLog log(name, s);
    SOCKS_LogString("Begin host:port %s:%d", host, static_cast<int>(port));
    // The use keeps the object through the determination and the handshake, whoever removes it meanwhile.
    SharedUse<Socket> object = g_pProxySocketManager->FindOrAddSocket(s, type).As<Socket>();
    g_hParentWindow = parent;
    int code = 0;
    if (object == nullptr) {
        code = dxcode::kNotSocket;
    } else if (!object->proxyChosen && DetermineForSocket(*object, determination, host, port, &family) == 0) {
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
    log.End(result);
    if (code > 0) WSASetLastError(code);
    return result;
}

// BindEx of both families: the exchange, then a wait that pumps this thread's messages while the
// hidden thread does the work. It has no time limit.
template <typename Socket>
int BindThroughProxy(const char* name, int type, BindWaitEnds ends, SOCKET s, const char* host, unsigned port,
                     HWND parent, int family, const Determination& determination) {
    ExportLog log(name, s);
    SOCKS_LogString("Begin host:port %s:%d", host, static_cast<int>(port));
    SharedUse<Socket> object = g_pProxySocketManager->FindOrAddSocket(s, type).As<Socket>();
    int code = 0;
    int result;
    if (object == nullptr ||
        (!object->proxyChosen && DetermineForSocket(*object, determination, host, port, &family) == 0)) {
        // Kept: positive, with a WinSock error of 0, where ConnectEx gives -1 and the error.
        result = dxcode::kNotSocket;
    } else {
        unsigned error = 0;
        object->StartConnect(kCommandBind, host, port, parent, &error);
        code = static_cast<int>(error);
        while (object->state != kEstablished) {
            if (object->canceled) {
                code = -1;
                WSASetLastError(dxcode::kPasswordCancelled);
                break;
            }
            if (ends == BindWaitEnds::kOnCancelOrConnectError && object->connectError != 0) {
                code = -1;
                WSASetLastError(static_cast<int>(object->connectError));
                break;
            }
            PumpOneMessage();
        }
        object->readPointer = nullptr;
        object->bytesRead = 0;
        object->bytesRequested = 0;
        result = code == 0 ? 0 : SOCKET_ERROR;
    }
    SOCKS_LogString("End host:port %s:%d", host, static_cast<int>(port));
    SOCKS_LogString("WinSock Error = %d", code);
    log.End(result);
    // Kept: replaces what the wait set, so after a failed wait the WinSock error reads -1.
    WSASetLastError(code);
    return result;
}

// The dispatch tables hold function pointers of any type.
using AnyFunction = void (*)();
template <typename Function>
AnyFunction Slot(Function function) {
    return reinterpret_cast<AnyFunction>(function);
}
