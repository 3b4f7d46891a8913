#include "proxy_socket.h"

#include <cstddef>
#include <cstring>

#include "bounded_text.h"
#include "dxsocks_ids.h"
#include "lifecycle.h"
#include "log.h"
#include "result_codes.h"

namespace {
using dxcode::kWouldBlock;
constexpr int kRetryLimit = 100;
// The address of a record ends at its eighth byte.
constexpr int kProxyAddressEnd = static_cast<int>(offsetof(sockaddr_in, sin_addr) + sizeof(in_addr));
}  // namespace

bool CProxySocket::StoreProxy(const sockaddr_in* proxy, int length, const char* user) {
    useProxy = 0;
    proxyChosen = 1;
    if (proxy == nullptr || length < kProxyAddressEnd) return false;
    sockaddr_in given = {};
    size_t size = static_cast<size_t>(length) < sizeof given ? static_cast<size_t>(length) : sizeof given;
    std::memcpy(&given, proxy, size);
    if (given.sin_addr.s_addr == 0) return false;
    proxyAddress = given;
    // At most 510 characters are kept; the last byte of the field stays zero.
    CopyText(userId, kUserIdSize - 1, user);
    userId[kUserIdSize - 1] = '\0';
    useProxy = 1;
    return true;
}

void CProxySocket::ReportEvent(unsigned id) {
    const sockaddr_in* address;
    switch (id) {
        case IDR_CONNECT_REQUEST_DUE: case IDR_BIND_REQUEST_DUE: case IDR_CONNECT_DIRECT:
            address = &targetAddress;
            break;
        case IDR_CONNECT_THROUGH_PROXY: address = &proxyAddress; break;
        default: return;
    }
    ReportMessage(0, id, inet_ntoa(address->sin_addr), static_cast<int>(ntohs(address->sin_port)),
                  static_cast<int>(socket));
}

int CProxySocket::BeginConnect(HWND parent, HWND hiddenWindow) {
    parentWindow = parent;
    if (asyncMode) WSAAsyncSelect(socket, hiddenWindow, WM_SOCKET_EVENT, FD_CONNECT);
    ReportEvent(useProxy ? IDR_CONNECT_THROUGH_PROXY : IDR_CONNECT_DIRECT);
    const sockaddr_in& peer = useProxy ? proxyAddress : targetAddress;
    if (connect(socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != SOCKET_ERROR) return 0;
    int code = WSAGetLastError();
    return code == kWouldBlock ? 0 : code;
}

void CProxySocket::StartReadingAs(const char* owner, int count) {
    SOCKS_LogString("%s::StartReading", owner);
    reading = 1;
    readPointer = receiveBuffer;
    bytesRead = 0;
    bytesRequested = count;
}

int CProxySocket::ReadCounted(const char* owner, int windowEnd) {
    if (!reading) return 0;
    if (bytesRead >= bytesRequested) {
        reading = 0;
        return 0;
    }
    int retries = 0;
    for (;;) {
        int room = bytesRead < windowEnd ? windowEnd - bytesRead : 0;
        int received = recv(socket, reinterpret_cast<char*>(readPointer), room, 0);
        if (received == SOCKET_ERROR) {
            int code = WSAGetLastError();
            if (code != kWouldBlock) {
                SOCKS_LogString("%s::OnRead returned err:%d", owner, code);
                reading = 0;
                return code;
            }
            Sleep(10);
            ++retries;
            received = 0;
        }
        readPointer += received;
        bytesRead += received;
        if (bytesRead >= bytesRequested) {
            reading = 0;
            return 0;
        }
        // Kept: a peer that closed returns 0 bytes, which is no retry: such a read goes on without a limit.
        if (retries >= kRetryLimit) return 0;
    }
}

int CProxySocket::PeekInto(int size, unsigned* error) {
    for (int tries = 0; tries < kRetryLimit; ++tries) {
        int seen = recv(socket, reinterpret_cast<char*>(receiveBuffer), size, MSG_PEEK);
        if (seen != SOCKET_ERROR) {
            *error = 0;
            return seen;
        }
        int code = WSAGetLastError();
        if (code != kWouldBlock) {
            SOCKS_LogString("SocketPeek() returned err:%d", code);
            reading = 0;
            *error = dxcode::kPeekFailed;
            return 0;
        }
        Sleep(10);
    }
    *error = kWouldBlock;
    return 0;
}

int CProxySocket::SendAs(const char* owner, const void* buffer, int length) {
    const char* bytes = static_cast<const char*>(buffer);
    int sent = 0;
    int retries = 0;
    do {
        int result = send(socket, bytes + sent, length - sent, 0);
        if (result == SOCKET_ERROR) {
            int code = WSAGetLastError();
            if (code != kWouldBlock) return code;
            Sleep(0);
            ++retries;
            result = 0;
        }
        sent += result;
    } while (sent < length && retries < kRetryLimit);
    // Kept: logged as complete also when the retries ran out short of the length.
    SOCKS_LogString("%s::Send - %d bytes sent.", owner, length);
    return 0;
}

bool CProxySocket::HandOverToHost(const char* owner, HWND hiddenWindow, unsigned error) {
    if (!asyncMode) return false;
    SOCKS_LogString("%s::OnRead - WSAAsyncSelect(%d, %p, %x, %x)", owner, static_cast<int>(socket), hiddenWindow,
                    0u, 0u);
    WSAAsyncSelect(socket, hiddenWindow, 0, 0);
    if (asyncWindow == nullptr) return false;
    if (asyncEvents & FD_CONNECT) {
        // WSAMAKESELECTREPLY: the event below, the error's low 16 bits above, sign-extended.
        LPARAM value = static_cast<LPARAM>(static_cast<LONG>(MAKELONG(FD_CONNECT, error)));
        SOCKS_LogString("%s::ConnectFinished - PostMessage(%p,%x,%x,%x)", owner, asyncWindow, asyncMessage,
                        static_cast<unsigned>(socket), static_cast<unsigned>(value));
        PostMessageA(asyncWindow, asyncMessage, static_cast<WPARAM>(socket), value);
    }
    // Kept: by subtraction, whether or not the bit was set: a mask without it wraps.
    uint32_t rest = asyncEvents - FD_CONNECT;
    if (rest != 0) WSAAsyncSelect(socket, asyncWindow, asyncMessage, static_cast<long>(rest));
    asyncWindow = nullptr;
    asyncMessage = 0;
    asyncEvents = 0;
    return true;
}

void CProxySocket::PushAsyncSelect(HWND window, unsigned message, unsigned events) {
    asyncWindow = window;
    asyncMessage = message;
    asyncEvents = events;
    asyncMode = 1;
}

void CProxySocket::OnConnected() { state = kConnected; }

// Runs on a host thread while the prompt runs on the handshake's: the flags are written before the
// prompt is told to close, so that they stand when it returns.
void CProxySocket::OnConnectTimeout(void (*closePrompt)()) {
    if (!passwordPrompting) return;
    passwordTimedOut = 1;
    connectError = dxcode::kTimeout;
    closePrompt();
}

// The proxy's address, with the port the host gave for a BIND: what the host hands its peer. The
// address the proxy bound is not used.
void CProxySocket::GetSockName(sockaddr* name, const int* length) const {
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr = proxyAddress.sin_addr;
    local.sin_port = command == kCommandConnect ? 0 : targetAddress.sin_port;
    size_t room = sizeof local;
    if (length != nullptr && *length >= 0 && static_cast<size_t>(*length) < room) room = static_cast<size_t>(*length);
    std::memcpy(name, &local, room);
}

int CProxySocket::ReleaseSocket() {
    uint32_t noted = state;
    state = kIdle;
    reading = 0;
    --useCount;
    // Kept: a close in mid-handshake is never the last close.
    if (noted == kIdle || noted == kFinished || noted == kEstablished) return useCount == 0 ? 1 : 0;
    return 0;
}
