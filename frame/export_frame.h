// The log frame and argument helpers that the exports of both families share.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstddef>

void LogBegin(const char* name, SOCKET s);
void LogEnd(const char* name, int result);
// Logs `format` ("Begin addr %s:%d" or "End addr %s:%d") with the record's address and port; a null
// record shows as 0.0.0.0:0.
void LogAddress(const char* format, const sockaddr* address);
// Writes `address` into the host's record, no more than the length it gave (when it gave one).
void StoreAddress(const sockaddr_in& address, sockaddr* destination, const int* length);
// The dotted text and host-order port of an address record; false without a whole IPv4 record.
bool AddressRecordToHostPort(const sockaddr* name, int namelen, char* text, size_t size, unsigned* port);

// The socket calls that both families make word for word alike; `name` is the export's.
int CloseManagedSocket(const char* name, SOCKET s);
void CleanupManagedSocket(const char* name, SOCKET s);
int GetManagedSockName(const char* name, const char* owner, SOCKET s, sockaddr* address, int* length);
int ListenManaged(const char* name, SOCKET s, int backlog);
int SelectManaged(const char* name, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                  const timeval* timeout);
int AsyncSelectManaged(const char* name, int type, SOCKET s, HWND window, unsigned message, long events);

// The dispatch tables hold function pointers of any type.
using AnyFunction = void (*)();
template <typename Function>
AnyFunction Slot(Function function) {
    return reinterpret_cast<AnyFunction>(function);
}
