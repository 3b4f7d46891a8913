#include "socks_socket.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "bounded_text.h"
#include "lifecycle.h"
#include "log.h"
#include "resolver.h"
#include "socks5_wire.h"

namespace {

constexpr int kWouldBlock = WSAEWOULDBLOCK;
constexpr int kRetryLimit = 100;
// The SOCKS replies all fit here; a counted read never asks for more than what is left of it.
constexpr int kReadWindow = 64;

uint32_t AddressOf(const sockaddr_in& address) { return address.sin_addr.s_addr; }

}  // namespace

CSocksSocket::CSocksSocket(SOCKET s) : CProxySocket(s) {
    SOCKS_LogString("CSocksSocket::CSocksSocket(%d)", static_cast<int>(s));
}

void CSocksSocket::SetProxy(const sockaddr_in* proxy, int length, const char* user, unsigned version) {
    useProxy = 0;
    if (proxy != nullptr && AddressOf(*proxy) != 0) {
        size_t size = length < 0 ? 0 : static_cast<size_t>(length);
        std::memcpy(&proxyAddress, proxy, size < sizeof proxyAddress ? size : sizeof proxyAddress);
        // A count of 511 keeps at most 510 characters and the terminator.
        if (lstrcpynA(userId, user != nullptr ? user : "", kUserIdSize - 1) != nullptr) userId[kUserIdSize - 1] = '\0';
        useProxy = 1;
        protocolVersion = version;
    }
    proxyChosen = 1;
}

int CSocksSocket::StartConnect(unsigned newCommand, const char* host, unsigned port, HWND parent, unsigned* error) {
    const int savedAsyncMode = asyncMode;
    canceled = 0;
    command = newCommand;
    useCount = 1;
    state = kConnecting;
    // A BIND always runs event driven while this call lasts.
    if (command == kCommandBind) asyncMode = 1;

    int outcome = ResolveHostPort(host, port, &targetAddress);
    // Version 5 sends the name to the proxy when it doesn't resolve here.
    if (outcome == 0 || (protocolVersion == 5 && host != nullptr)) {
        CopyText(targetHost, sizeof targetHost, host);
        std::snprintf(targetService, sizeof targetService, "%u", port);
        targetPort = static_cast<uint16_t>(port);
        outcome = ConnectToServer(parent);
        if (outcome == 0) {
            if (!asyncMode) state = kConnected;
            ReportEvent(command == kCommandConnect ? 2000 : 2001);
            if (!asyncMode) {
                while (state != kEstablished && outcome == 0) outcome = ProcessState();
            }
        }
    }
    if (error != nullptr) {
        lastError = outcome;
        *error = static_cast<unsigned>(outcome);
    }
    asyncMode = savedAsyncMode;
    return savedAsyncMode;
}

int CSocksSocket::ConnectToServer(HWND parent) {
    parentWindow = parent;
    if (asyncMode) WSAAsyncSelect(socket, g_hSocksWindow, WM_SOCKET_EVENT, FD_CONNECT);
    ReportEvent(useProxy ? 1003 : 1002);
    const sockaddr_in& peer = useProxy ? proxyAddress : targetAddress;
    int result = connect(socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    if (result != SOCKET_ERROR) return result;
    int code = WSAGetLastError();
    if (code == kWouldBlock) return 0;
    ConnectFinished(code);
    return code;
}

void CSocksSocket::ReportEvent(unsigned id) {
    const sockaddr_in* address;
    switch (id) {
        case 2000: case 2001: case 1002: address = &targetAddress; break;
        case 1003: address = &proxyAddress; break;
        default: return;
    }
    ReportMessage(0, id, inet_ntoa(address->sin_addr), static_cast<int>(ntohs(address->sin_port)),
                  static_cast<int>(socket));
}

int CSocksSocket::ProcessState() {
    // A prompt's message loop may deliver this socket's next event while a step is still running.
    if (inProcessState) return 0;
    inProcessState = 1;
    if (asyncMode && WSAAsyncSelect(socket, g_hSocksWindow, WM_SOCKET_EVENT, FD_READ | FD_CLOSE) != 0) {
        inProcessState = 0;
        return WSAGetLastError();
    }
    int result = 0;
    if (protocolVersion == 4) result = ProcessSocks4State();
    if (protocolVersion == 5) result = ProcessSocks5State();
    inProcessState = 0;
    return result;
}

int CSocksSocket::ProcessSocks4State() {
    switch (state) {
        case kConnected: {
            int result = SendSocks4Request();
            state = result == 0 ? kAwaitSocks4Reply : kFailed;
            return result;
        }
        case kAwaitSocks4Reply: {
            // Each event starts the read afresh: pieces of a reply from earlier events are lost.
            StartReading(kSocks4PacketSize);
            int result = OnRead();
            if (result != 0) return result;
            if (bytesRead < bytesRequested) return 0;
            std::memcpy(socks4Packet, receiveBuffer, kSocks4PacketSize);
            return CheckSocks4Reply();
        }
        default:
            return -1;
    }
}

int CSocksSocket::SendSocks4Request() {
    uint32_t address = AddressOf(targetAddress);
    socks4Packet[0] = 4;
    socks4Packet[1] = static_cast<uint8_t>(command);
    std::memcpy(socks4Packet + 2, &targetAddress.sin_port, 2);
    if (address == 0) return WSAHOST_NOT_FOUND;
    BuildSocks4Header(socks4Packet, static_cast<uint8_t>(command), targetAddress.sin_port, address);
    SOCKS_LogString("CSocksSocket::ProcessState - Sending SOCKS protocol header.");
    // Send reports failure as a positive code, so this test lets it pass and the user id follows.
    if (Send(socks4Packet, kSocks4PacketSize) == -1) return -1;
    SOCKS_LogString("CSocksSocket::ProcessState - Sending SOCKS user id.");
    return Send(userId, static_cast<int>(std::strlen(userId)) + 1);
}

int CSocksSocket::CheckSocks4Reply() {
    Socks4Verdict verdict = JudgeSocks4Reply(socks4Packet);
    if (verdict.reportsCode) {
        ReportMessage(0, verdict.reportId, static_cast<int>(socks4Packet[1]), static_cast<int>(socket));
    } else {
        ReportMessage(0, verdict.reportId, static_cast<int>(socket));
    }
    if (!verdict.granted) {
        ConnectFinished(verdict.error);
        return static_cast<int>(verdict.error);
    }
    uint32_t replyAddress;
    std::memcpy(&replyAddress, socks4Packet + 4, 4);
    if (replyAddress == 0 && command == kCommandBind) std::memcpy(socks4Packet + 4, &proxyAddress.sin_addr, 4);
    ConnectFinished(0);
    state = kEstablished;
    return 0;
}

int CSocksSocket::ProcessSocks5State() {
    switch (state) {
        case kConnected: {
            int result = SendMethodSelect();
            state = result == 0 ? kAwaitMethodReply : kFailed;
            return result;
        }
        case kAwaitMethodReply: {
            int error = PeekReply(2, false);
            if (error != 0) return FailHandshake(error);
            // A reply that doesn't begin with 5 is dropped, and the state waits on.
            if (receiveBuffer[0] == kSocks5Version) {
                int result = OnMethodRecv();
                if (result != 0) error = FailHandshake(result);
            }
            receiveBuffer[0] = 0;
            receiveBuffer[1] = 0;
            bytesRequested = 0;
            return error;
        }
        case kAwaitPasswordStatus: {
            int error = PeekReply(2, false);
            if (error != 0 || receiveBuffer[1] != 0) return FailHandshake(error);
            int result = SendSocks5Request();
            if (result != 0) return FailHandshake(result);
            state = kAwaitConnectReply;
            return 0;
        }
        case kAwaitConnectReply: {
            int error = PeekReply(3, true);
            if (error != 0 || receiveBuffer[1] != 0) return FailHandshake(error);
            ConnectFinished(0);
            state = kEstablished;
            return 0;
        }
        default:
            return -1;
    }
}

// Peeks up to `tries` times while the proxy has sent nothing yet, then reads what the peek saw, or 10
// bytes of a granted connect reply. A proxy that closed shows as nothing seen and no error: then no
// read happens, and what the buffer held before decides.
int CSocksSocket::PeekReply(int tries, bool tenWhenGranted) {
    unsigned error = 0;
    int seen = 0;
    for (int calls = 0; calls < tries; ++calls) {
        seen = SocketPeek(&error);
        if (error != static_cast<unsigned>(kWouldBlock)) break;
    }
    if (seen != 0 && error != static_cast<unsigned>(-1) && error != static_cast<unsigned>(kWouldBlock)) {
        StartReading(tenWhenGranted && receiveBuffer[1] == 0 ? 10 : seen);
        error = static_cast<unsigned>(OnRead());
    }
    return static_cast<int>(error);
}

// Every version 5 failure reaches the host as a refusal, whatever the cause was.
int CSocksSocket::FailHandshake(int error) {
    state = kFailed;
    ConnectFinished(WSAECONNREFUSED);
    return error;
}

int CSocksSocket::SendMethodSelect() {
    uint8_t select[kMethodSelectMaxSize];
    size_t size = BuildSocks5MethodSelect(userId[0] != '\0', select);
    SOCKS_LogString("CSocksSocket::ProcessState - Sending SOCKSv5 method select header.");
    int result = Send(select, static_cast<int>(size));
    state = kAwaitMethodReply;
    return result;
}

int CSocksSocket::SendSocks5Request() {
    uint32_t address = AddressOf(targetAddress);
    size_t nameLength = std::strlen(targetHost);
    Socks5RequestLayout layout = LayoutSocks5Request(address, nameLength);
    auto* request = new (std::nothrow) uint8_t[layout.size]();
    if (request == nullptr) return WSAEINVAL;
    if (layout.addressType == kAddressTypeName && nameLength == 0) {
        delete[] request;
        return WSAEINVAL;
    }
    WriteSocks5Request(layout, static_cast<uint8_t>(command), address, targetAddress.sin_port, targetHost,
                       nameLength, targetPort, request);
    SOCKS_LogString("CSocksSocket::ProcessState - Sending SOCKS protocol header.");
    int result = Send(request, static_cast<int>(layout.size));
    delete[] request;
    return result;
}

int CSocksSocket::OnMethodRecv() {
    switch (receiveBuffer[1]) {
        case kMethodNoAuthentication: {
            int result = SendSocks5Request();
            state = result == 0 ? kAwaitConnectReply : kFailed;
            return result;
        }
        case kMethodGssapi:
            state = kGssapiRefused;
            return -1;
        case kMethodUserPassword:
            break;
        default:
            return -1;
    }
    SOCKS_LogString("CSocksSocket::OnMethodRecv - Requesting Password.");
    char proxyText[kTargetHostSize] = {};
    AddressToNumericText(reinterpret_cast<const sockaddr*>(&proxyAddress), sizeof proxyAddress, proxyText,
                         sizeof proxyText);
    if (!AskPassword()) {
        if (passwordTimedOut) {
            SOCKS_LogString("CSocksSocket::OnMethodRecv - Password dialog timeout.");
            ConnectFinished(ERROR_TIMEOUT);
        } else {
            canceled = 1;
            SOCKS_LogString("CSocksSocket::OnMethodRecv - Password dialog cancelled.");
            ConnectFinished(DXSOCKS_PASSWORD_CANCELLED);
        }
    }
    state = kFailed;
    return -1;
}

// No host password callback and no prompt of the UI library: the prompt counts as declined.
bool CSocksSocket::AskPassword() { return false; }

void CSocksSocket::StartReading(int count) {
    SOCKS_LogString("CSocksSocket::StartReading");
    reading = 1;
    readPointer = receiveBuffer;
    bytesRead = 0;
    bytesRequested = count;
}

int CSocksSocket::OnRead() {
    if (!reading) return 0;
    if (bytesRead >= bytesRequested) {
        reading = 0;
        return 0;
    }
    int retries = 0;
    for (;;) {
        // Whatever has arrived, up to the read window, is taken: more than requested if it is there.
        int room = bytesRead < kReadWindow ? kReadWindow - bytesRead : 0;
        int received = recv(socket, reinterpret_cast<char*>(readPointer), room, 0);
        if (received == SOCKET_ERROR) {
            int code = WSAGetLastError();
            if (code != kWouldBlock) {
                SOCKS_LogString("CSocksSocket::OnRead returned err:%d", code);
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
        // A peer that closed returns 0 bytes, which is no retry: such a read goes on.
        if (retries >= kRetryLimit) return 0;
    }
}

int CSocksSocket::SocketPeek(unsigned* error) {
    for (int tries = 0; tries < kRetryLimit; ++tries) {
        int seen = recv(socket, reinterpret_cast<char*>(receiveBuffer), kReadWindow, MSG_PEEK);
        if (seen != SOCKET_ERROR) {
            *error = 0;
            return seen;
        }
        int code = WSAGetLastError();
        if (code != kWouldBlock) {
            SOCKS_LogString("SocketPeek() returned err:%d", code);
            reading = 0;
            *error = static_cast<unsigned>(-1);
            return 0;
        }
        Sleep(10);
    }
    *error = kWouldBlock;
    return 0;
}

int CSocksSocket::Send(const void* buffer, int length) {
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
    SOCKS_LogString("CSocksSocket::Send - %d bytes sent.", length);
    return 0;
}

void CSocksSocket::ConnectFinished(unsigned error) {
    lastError = static_cast<int32_t>(error);
    state = kFinished;
    if (!asyncMode) return;
    SOCKS_LogString("CSocksSocket::OnRead - WSAAsyncSelect(%d, %p, %x, %x)", static_cast<int>(socket),
                    g_hSocksWindow, 0u, 0u);
    WSAAsyncSelect(socket, g_hSocksWindow, 0, 0);
    if (asyncWindow == nullptr) return;
    if (asyncEvents & FD_CONNECT) {
        // WSAMAKESELECTREPLY: the event below, the error's low 16 bits above, sign-extended.
        LPARAM value = static_cast<LPARAM>(static_cast<LONG>(MAKELONG(FD_CONNECT, error)));
        SOCKS_LogString("CSocksSocket::ConnectFinished - PostMessage(%p,%x,%x,%x)", asyncWindow, asyncMessage,
                        static_cast<unsigned>(socket), static_cast<unsigned>(value));
        PostMessageA(asyncWindow, asyncMessage, static_cast<WPARAM>(socket), value);
    }
    // By subtraction, whether or not the bit was set: a mask without it wraps.
    uint32_t rest = asyncEvents - FD_CONNECT;
    if (rest != 0) WSAAsyncSelect(socket, asyncWindow, asyncMessage, static_cast<long>(rest));
    asyncWindow = nullptr;
    asyncMessage = 0;
    asyncEvents = 0;
    WSASetLastError(static_cast<int>(error));
}

void CSocksSocket::PushAsyncSelect(HWND window, unsigned message, unsigned events) {
    asyncWindow = window;
    asyncMessage = message;
    asyncEvents = events;
    asyncMode = 1;
}

void CSocksSocket::OnConnected() { state = kConnected; }

// The proxy's address, with the port the host gave for a BIND: what the host hands its peer. The
// address the proxy bound is not used.
void CSocksSocket::GetSockName(sockaddr* name, int* length) {
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr = proxyAddress.sin_addr;
    local.sin_port = command == kCommandConnect ? 0 : targetAddress.sin_port;
    size_t room = sizeof local;
    if (length != nullptr && *length >= 0 && static_cast<size_t>(*length) < room) room = static_cast<size_t>(*length);
    std::memcpy(name, &local, room);
}

int CSocksSocket::ReleaseSocket() {
    uint32_t noted = state;
    state = kIdle;
    reading = 0;
    --useCount;
    // A close in mid-handshake is never the last close.
    if (noted == kIdle || noted == kFinished || noted == kEstablished) return useCount == 0 ? 1 : 0;
    return 0;
}
