#include "socks_socket.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

#include "bounded_text.h"
#include "dxsocks_ids.h"
#include "identity_mapping.h"
#include "lifecycle.h"
#include "log.h"
#include "resolver.h"
#include "result_codes.h"
#include "socks5_wire.h"
#include "socks_password.h"
#include "suite_library.h"

namespace {

constexpr char kOwner[] = "CSocksSocket";
// Wide characters of the password buffer the callback fills.
constexpr int kPasswordSize = 260;
// The prompt's password is measured within 130 characters, and a longer one counts as none.
constexpr size_t kLongestPromptedPassword = 129;
using dxcode::kWouldBlock;
// The SOCKS replies all fit here; a counted read never asks for more than what is left of it.
constexpr int kReadWindow = 64;

uint32_t AddressOf(const sockaddr_in& address) { return address.sin_addr.s_addr; }

}  // namespace

DXSOCKS_PASSWORD_CALLBACK g_pfnSocksPassword = nullptr;
void* g_socksPasswordContext = nullptr;

CSocksSocket::CSocksSocket(SOCKET s) : CProxySocket(s) {
    SOCKS_LogString("CSocksSocket::CSocksSocket(%d)", static_cast<int>(s));
}

// Without a proxy address the version stays as it was.
void CSocksSocket::SetProxy(const sockaddr_in* proxy, int length, const char* user, unsigned version) {
    if (StoreProxy(proxy, length, user)) protocolVersion = version;
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
        CopyText(targetHost, host);
        std::snprintf(targetService, sizeof targetService, "%u", port);
        targetPort = static_cast<uint16_t>(port);
        outcome = ConnectToServer(parent);
        if (outcome == 0) {
            AddIdentity();
            if (!asyncMode) state = kConnected;
            ReportEvent(command == kCommandConnect ? IDR_CONNECT_REQUEST_DUE : IDR_BIND_REQUEST_DUE);
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
    int code = BeginConnect(parent, g_hSocksWindow);
    if (code != 0) ConnectFinished(code);
    return code;
}

void CSocksSocket::AddIdentity() {
    // The table's calls leave the WinSock error as the connect left it for the host.
    const int savedError = WSAGetLastError();
    AddIdentityEntry();
    WSASetLastError(savedError);
}

void CSocksSocket::AddIdentityEntry() {
    // A handshake that ended without ConnectFinished left its entry and mapping: retries don't pile up.
    DropIdentity();
    sockaddr_in local = {};
    int length = sizeof local;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) != 0) return;
    SOCKS_LogString("CSocksSocket::ProcessState - getsockname %s:%d", inet_ntoa(local.sin_addr),
                    static_cast<int>(ntohs(local.sin_port)));
    HANDLE mapping = IdentityOpen(FILE_MAP_WRITE);
    if (mapping == nullptr) {
        SOCKS_LogString("Could not create memory mapped file.");
        return;
    }
    identityLocalPort = ntohs(local.sin_port);
    unsigned remotePort = ntohs(proxyAddress.sin_port);
    SOCKS_LogString("IdentityAdd(%p,%u,%u,%s)", mapping, static_cast<unsigned>(identityLocalPort), remotePort, userId);
    if (!IdentityAdd(mapping, identityLocalPort, remotePort, userId)) {
        SOCKS_LogString("Could not write to memory mapped file.");
    }
    // Handed to the object only now: on the hidden thread the handshake may end meanwhile, and its
    // ConnectFinished must not close the mapping under this add. If it has ended, the entry goes now.
    InterlockedExchangePointer(&identityHandle, mapping);
    if (state == kFinished || state == kEstablished) DropIdentity();
}

void CSocksSocket::DropIdentity() {
    HANDLE mapping = InterlockedExchangePointer(&identityHandle, nullptr);
    if (mapping == nullptr) return;
    const int savedError = WSAGetLastError();
    IdentityRemove(mapping, identityLocalPort, ntohs(proxyAddress.sin_port));
    CloseHandle(mapping);
    WSASetLastError(savedError);
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
            // Kept: each event starts the read afresh; pieces of a reply from earlier events are lost.
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
    // Kept: a destination without an address leaves the first four bytes written, the rest as it was.
    ByteWriter header(socks4Packet, sizeof socks4Packet);
    header.Put(4);
    header.Put(static_cast<uint8_t>(command));
    header.Put(&targetAddress.sin_port, 2);
    if (address == 0) return dxcode::kHostNotFound;
    BuildSocks4Header(socks4Packet, static_cast<uint8_t>(command), targetAddress.sin_port, address);
    SOCKS_LogString("CSocksSocket::ProcessState - Sending SOCKS protocol header.");
    // Kept: Send reports failure as a positive code, so this test lets it pass and the user id follows.
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
            // Kept: a reply that doesn't begin with 5 is dropped, and the state waits on.
            if (error != 0) {
                FailHandshake(error);
            } else if (receiveBuffer[0] == kSocks5Version) {
                int result = OnMethodRecv();
                if (result != 0) error = FailHandshake(result);
            }
            // A failed peek or read clears them too: no stale reply byte outlives the step.
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
    if (seen != 0 && error != dxcode::kPeekFailed && error != static_cast<unsigned>(kWouldBlock)) {
        StartReading(tenWhenGranted && receiveBuffer[1] == 0 ? 10 : seen);
        error = static_cast<unsigned>(OnRead());
    }
    return static_cast<int>(error);
}

// Kept: every version 5 failure reaches the host as a refusal, whatever the cause was.
int CSocksSocket::FailHandshake(int error) {
    state = kFailed;
    ConnectFinished(dxcode::kConnectionRefused);
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
    if (request == nullptr) return dxcode::kInvalid;
    if (layout.addressType == kAddressTypeName && nameLength == 0) {
        delete[] request;
        return dxcode::kInvalid;
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
    // The password lives in this frame only, and is wiped before it goes.
    wchar_t password[kPasswordSize] = {};
    bool send = AskPassword(proxyText, password);
    passwordPrompting = 0;
    int result = -1;
    if (send) {
        SOCKS_LogString("CSocksSocket::OnMethodRecv - Send Password.");
        result = SendPassword(password);
        state = result == 0 ? kAwaitPasswordStatus : kFailed;
    } else if (passwordTimedOut) {
        SOCKS_LogString("CSocksSocket::OnMethodRecv - Password dialog timeout.");
        ConnectFinished(dxcode::kTimeout);
    } else {
        canceled = 1;
        SOCKS_LogString("CSocksSocket::OnMethodRecv - Password dialog cancelled.");
        ConnectFinished(dxcode::kPasswordCancelled);
    }
    SecureZeroMemory(password, sizeof password);
    if (!send) state = kFailed;
    return result;
}

// The host's callback decides; without one, the UI library's prompt.
bool CSocksSocket::AskPassword(const char* proxyText, wchar_t* password) {
    passwordPrompting = 1;
    passwordTimedOut = 0;
    if (g_pfnSocksPassword == nullptr) return PromptPassword(proxyText, password);
    wchar_t address[kTargetHostSize] = {};
    wchar_t user[kUserIdSize] = {};
    MultiByteToWideChar(GetACP(), 0, proxyText, -1, address, kTargetHostSize);
    MultiByteToWideChar(GetACP(), 0, userId, -1, user, kUserIdSize);
    // An empty password the callback accepts goes out with length 0.
    return g_pfnSocksPassword(g_socksPasswordContext, password, kPasswordSize, user, address) != 0;
}

bool CSocksSocket::PromptPassword(const char* proxyText, wchar_t* password) {
    DWORD result = AskPasswordPrompt(0, parentWindow, userId, proxyText, kPasswordSize, [&](const char* text) {
        if (MultiByteToWideChar(GetACP(), 0, text, -1, password, kPasswordSize) == 0) password[0] = L'\0';
        password[kPasswordSize - 1] = L'\0';
    });
    // Kept: a password of 130 characters or more has no terminator in this window and counts as none.
    size_t length = wcsnlen(password, kLongestPromptedPassword + 1);
    if (length > kLongestPromptedPassword) length = 0;
    return result == 1 && length != 0;
}

int CSocksSocket::SendPassword(const wchar_t* password) {
    size_t count = std::wcslen(password);
    // A password longer than the narrow buffer is cut there.
    char narrow[kPasswordSize] = {};
    char converted[4 * kPasswordSize] = {};
    if (WideCharToMultiByte(CP_ACP, 0, password, static_cast<int>(count), converted, sizeof converted - 1, nullptr,
                            nullptr) > 0) {
        CopyText(narrow, converted);
    }
    uint8_t request[kPasswordRequestSize] = {};
    size_t userLength = std::strlen(userId);
    size_t written = BuildPasswordRequest(userId, userLength, narrow, std::strlen(narrow), count, request);
    int result = Send(request, static_cast<int>(written));
    SecureZeroMemory(narrow, sizeof narrow);
    SecureZeroMemory(converted, sizeof converted);
    SecureZeroMemory(request, sizeof request);
    return result;
}

void CSocksSocket::StartReading(int count) { StartReadingAs(kOwner, count); }

// Asks for what is left of the read window, not of the request: a read takes everything that has
// arrived, up to 64 bytes.
int CSocksSocket::OnRead() { return ReadCounted(kOwner, kReadWindow); }

int CSocksSocket::SocketPeek(unsigned* error) { return PeekInto(kReadWindow, error); }

int CSocksSocket::Send(const void* buffer, int length) { return SendAs(kOwner, buffer, length); }

void CSocksSocket::ConnectFinished(unsigned error) {
    lastError = static_cast<int32_t>(error);
    state = kFinished;
    // For blocking sockets too: the proxy has had its chance to ask.
    DropIdentity();
    if (HandOverToHost(kOwner, g_hSocksWindow, error)) WSASetLastError(static_cast<int>(error));
}
