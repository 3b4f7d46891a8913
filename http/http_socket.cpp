#include "http_socket.h"

#include <ws2tcpip.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

#include "base64.h"
#include "bounded_text.h"
#include "dxsocks_ids.h"
#include "dxsocks_types.h"
#include "http_wire.h"
#include "lifecycle.h"
#include "log.h"
#include "proxy_socket_manager.h"
#include "resolver.h"
#include "result_codes.h"
#include "suite_library.h"

namespace {

constexpr char kOwner[] = "CHttpSocket";
using dxcode::kWouldBlock;
constexpr int kTargetSize = 1060;        // wide characters of "host:port"
constexpr int kHostPortTextSize = 1059;  // what AddressToHostPortText needs at the least
constexpr int kCredentialsSize = 1024;   // wide characters of the credential text
constexpr size_t kCredentialTextSize = 1024;  // bytes of "user:password", encoded in place
// The longest "user:password" whose encoding, 4/3 as long, still fits the credential text.
constexpr size_t kLongestCredentials = 765;
constexpr int kPasswordSize = 260;       // wide characters of the callback's password buffer
// The formatted lines (at most 1024 characters), the credentials, and the two line ends.
constexpr int kRequestSize = 1025 + kCredentialsSize + 4;

}  // namespace

DXSOCKS_PASSWORD_CALLBACK g_pfnHttpPassword = nullptr;
void* g_httpPasswordContext = nullptr;

CHttpSocket::CHttpSocket(SOCKET s) : CProxySocket(s) {
    SOCKS_LogString("CHttpSocket::CHttpSocket(%d)", static_cast<int>(s));
}

// Without a proxy address: settled, no proxy and no authentication.
void CHttpSocket::SetProxy(const sockaddr_in* proxy, int length, const char* user, unsigned authenticate) {
    useAuthentication = 0;
    if (StoreProxy(proxy, length, user)) useAuthentication = authenticate != 0 ? 1 : 0;
}

int CHttpSocket::StartConnect(unsigned newCommand, const char* host, unsigned port, HWND parent,
                              unsigned* error) {
    const int savedAsyncMode = asyncMode;
    canceled = 0;
    connectError = 0;
    state = kConnecting;
    command = newCommand;
    useCount = 1;
    if (command == kCommandBind) asyncMode = 1;

    // The destination travels as text: a name that only the proxy can resolve must not stop it.
    ResolveHostPort(host, port, &targetAddress);
    if (host != nullptr) CopyText(targetHost, host);
    std::snprintf(targetService, sizeof targetService, "%u", port);

    // In event mode the state reads 1 while the TCP connect is still under way. It is written before
    // the connect starts: the hidden thread may take FD_CONNECT and send the request before connect
    // returns here, and a 1 written after that would have the next FD_READ send the request again.
    if (asyncMode) state = kConnected;
    int outcome = ConnectToServer(parent);
    if (outcome == 0) {
        if (!asyncMode) state = kConnected;
        ReportEvent(command == kCommandConnect ? IDR_CONNECT_REQUEST_DUE : IDR_BIND_REQUEST_DUE);
        if (!asyncMode && state != kEstablished) {
            do {
                outcome = ProcessState();
            } while (outcome == 0 && state != kEstablished);
        }
    }
    if (error != nullptr) {
        lastError = outcome;
        *error = static_cast<unsigned>(outcome);
    }
    asyncMode = savedAsyncMode;
    return savedAsyncMode;
}

int CHttpSocket::ConnectToServer(HWND parent) {
    int code = BeginConnect(parent, g_hHttpWindow);
    if (code != 0) ConnectFinished(static_cast<unsigned>(code));
    return code;
}

int CHttpSocket::ProcessState() {
    if (inProcessState) return 0;
    inProcessState = 1;
    if (asyncMode && WSAAsyncSelect(socket, g_hHttpWindow, WM_SOCKET_EVENT, FD_READ | FD_CLOSE) != 0) {
        inProcessState = 0;
        return WSAGetLastError();
    }
    int result = ProcessHttpState();
    inProcessState = 0;
    return result;
}

int CHttpSocket::ProcessHttpState() {
    if (state == kConnected) {
        int result = SendHttpAuthentication();
        if (result == 0) {
            state = kAwaitHttpReply;
            return 0;
        }
        if (canceled) {
            state = kHttpCancelled;
            ConnectFinished(dxcode::kPasswordCancelled);
        } else {
            state = kFailed;
            ConnectFinished(static_cast<unsigned>(result));
        }
        return result;
    }
    if (state != kAwaitHttpReply) return -1;

    // The reply is what the first peek shows, at most 1024 bytes, and those bytes are consumed.
    receiveBuffer[0] = 0;
    unsigned status = 0;
    int seen = SocketPeek(&status);
    if (status == static_cast<unsigned>(kWouldBlock)) seen = SocketPeek(&status);
    int result = static_cast<int>(status);
    if (seen > 0 && status == 0) {
        StartReading(seen);
        result = OnRead(seen);
    }
    unsigned code = static_cast<unsigned>(WSAGetLastError());
    // Kept: a proxy that closes in silence leaves the first byte at 0, and that counts as success.
    if (result == 0 && receiveBuffer[0] != 0 && OnHttpResponse(&code) != 0) result = -1;
    if (result == 0) {
        ConnectFinished(0);
        state = kEstablished;
    } else {
        ConnectFinished(code);
        state = kFailed;
    }
    bytesRequested = 0;
    receiveBuffer[0] = 0;
    receiveBuffer[1] = 0;
    return result;
}

int CHttpSocket::SendHttpAuthentication() {
    wchar_t target[kTargetSize] = {};
    if (targetHost[0] != '\0') {
        if (MultiByteToWideChar(GetACP(), 0, targetHost, -1, target, kTargetSize) == 0) {
            target[0] = L'\0';
        } else {
            size_t used = std::wcslen(target);
            if (used + 1 < static_cast<size_t>(kTargetSize)) {
                target[used] = L':';
                MultiByteToWideChar(GetACP(), 0, targetService, -1, target + used + 1,
                                    kTargetSize - static_cast<int>(used) - 1);
            }
        }
    } else if (AddressToHostPortText(reinterpret_cast<const sockaddr*>(&targetAddress), sizeof targetAddress, target,
                                     kTargetSize) != 0) {
        target[0] = L'\0';
    }

    const wchar_t* format = L"CONNECT %s HTTP/1.1\r\nHost: %s\r\n";
    wchar_t credentials[kCredentialsSize] = {};
    if (useAuthentication) {
        format = L"CONNECT %s HTTP/1.1\r\nHost: %s\r\nProxy-Authorization: basic ";
        canceled = createUTF8UsernamePassword(credentials, kCredentialsSize) == 0 ? 1 : 0;
    }
    if (passwordTimedOut) {
        canceled = 0;
        SOCKS_LogString("CHttpSocket::SendHttpAuthentication - Password request timeout.");
        WSASetLastError(dxcode::kTimeout);
        return -1;
    }
    if (canceled) {
        SOCKS_LogString("CHttpSocket::SendHttpAuthentication - Password request cancelled.");
        WSASetLastError(dxcode::kPasswordCancelled);
        return -1;
    }

    // wsprintfW writes at most 1024 characters, so a very long target cuts the request there.
    wchar_t request[kRequestSize] = {};
    int length = wsprintfW(request, format, target, target);
    auto append = [&](const wchar_t* text) {
        for (; *text != L'\0' && length < kRequestSize - 1; ++text) request[length++] = *text;
        request[length] = L'\0';
    };
    if (credentials[0] != L'\0') {
        append(credentials);
        append(L"\r\n");
    }
    append(L"\r\n");

    // The narrow block is sized for the UTF-8 text, so that letters beyond ASCII never cut the request.
    int narrowSize = WideCharToMultiByte(CP_UTF8, 0, request, -1, nullptr, 0, nullptr, nullptr);
    char* narrow = new (std::nothrow) char[narrowSize > 0 ? narrowSize : 1]();
    if (narrow == nullptr) return dxcode::kNoBuffers;
    WideCharToMultiByte(CP_UTF8, 0, request, -1, narrow, narrowSize, nullptr, nullptr);
    SOCKS_LogString("CHttpSocket::SendHttpAuthentication - Sending HTTP proxy authentication request.\n%s", narrow);
    int result = Send(narrow, lstrlenA(narrow));
    delete[] narrow;
    return result;
}

int CHttpSocket::createUTF8UsernamePassword(wchar_t* out, int size) {
    SOCKS_LogString("CHttpSocket::createUTF8UsernamePassword - Creating username:password for authentication.");
    char text[kCredentialTextSize] = {};
    CopyText(text, userId);
    size_t userLength = std::strlen(text);
    char* password = text + userLength + 1;
    *password = '\0';
    int result = getPassword(password, static_cast<int>(sizeof text - userLength - 1));
    // The terminator between the two becomes the colon; without a password the user name stands alone.
    if (*password != '\0') text[userLength] = ':';
    // Encoded, a longer text would not fit the credential text: refused as a declined prompt.
    if (std::strlen(text) > kLongestCredentials) {
        SecureZeroMemory(text, sizeof text);
        return 0;
    }
    Base64Encode(text, sizeof text);
    MultiByteToWideChar(GetACP(), 0, text, -1, out, size);
    SecureZeroMemory(text, sizeof text);
    return result;
}

int CHttpSocket::getPassword(char* password, int size) {
    SOCKS_LogString("CHttpSocket::getPassword - Requesting Password.");
    char address[kTargetHostSize] = {};
    AddressToNumericText(reinterpret_cast<const sockaddr*>(&proxyAddress), sizeof proxyAddress, address,
                         sizeof address);
    passwordPrompting = 1;
    passwordTimedOut = 0;
    int result = 0;
    if (g_pfnHttpPassword == nullptr) {
        result = PromptPassword(address, password, size);
    } else {
        wchar_t wideAddress[kTargetHostSize] = {};
        wchar_t user[kUserIdSize] = {};
        wchar_t wide[kPasswordSize] = {};
        MultiByteToWideChar(GetACP(), 0, address, -1, wideAddress, kTargetHostSize);
        MultiByteToWideChar(GetACP(), 0, userId, -1, user, kUserIdSize);
        // An empty password is accepted on this path.
        result = g_pfnHttpPassword(g_httpPasswordContext, wide, kPasswordSize, user, wideAddress);
        if (result != 0 && size > 0) {
            if (WideCharToMultiByte(CP_ACP, 0, wide, -1, password, size, nullptr, nullptr) == 0) password[0] = '\0';
            password[size - 1] = '\0';
        }
        SecureZeroMemory(wide, sizeof wide);
    }
    passwordPrompting = 0;
    return result;
}

// Unlike the host's callback, the prompt's empty password counts as declined.
int CHttpSocket::PromptPassword(const char* address, char* password, int size) {
    bool usable = password != nullptr && size > 0;
    if (usable) password[0] = '\0';
    DWORD result = AskPasswordPrompt(1, parentWindow, userId, address, static_cast<DWORD>(size), [&](const char* text) {
        if (usable) CopyText(password, static_cast<size_t>(size), text);
    });
    return result == 1 && usable && password[0] != '\0' ? 1 : 0;
}

void CHttpSocket::StartReading(int count) { StartReadingAs(kOwner, count); }

// Asks for what is left of `count`: exactly the bytes the peek showed.
int CHttpSocket::OnRead(int count) { return ReadCounted(kOwner, count); }

int CHttpSocket::SocketPeek(unsigned* error) { return PeekInto(kReceiveBufferSize, error); }

int CHttpSocket::Send(const void* buffer, int length) { return SendAs(kOwner, buffer, length); }

int CHttpSocket::OnHttpResponse(unsigned* error) {
    // The 1024th byte gives way to the terminator.
    receiveBuffer[bytesRead < kReceiveBufferSize - 1 ? bytesRead : kReceiveBufferSize - 1] = 0;
    SOCKS_LogString("CHttpSocket::OnHttpResponse - HTTP proxy authentication response read.\n");
    HttpStatus reply = ParseHttpStatus(reinterpret_cast<const char*>(receiveBuffer));
    unsigned code = HttpStatusError(reply.status);
    switch (code) {
        case 0:
            SOCKS_LogString("CHttpSocket::OnHttpResponse - OK 200. '%s'", reply.reason);
            *error = 0;
            return 0;
        case dxcode::kHttpNotFound:
            SOCKS_LogString("CHttpSocket::OnHttpResponse - Unable to resolve host name 404: '%s'", reply.reason);
            break;
        case dxcode::kProxyAuthFailed:
            SOCKS_LogString("CHttpSocket::OnHttpResponse - Proxy Authentication Required 407: '%s'", reply.reason);
            break;
        default:
            SOCKS_LogString("CHttpSocket::OnHttpResponse - %d: '%s'", reply.status, reply.reason);
            break;
    }
    *error = code;
    connectError = code;
    return -1;
}

// Unlike the SOCKS twin, this leaves the WinSock error alone.
void CHttpSocket::ConnectFinished(unsigned error) {
    lastError = static_cast<int32_t>(error);
    state = kFinished;
    HandOverToHost(kOwner, g_hHttpWindow, error);
}

void CHttpSocket::StopEvents() { WSAAsyncSelect(socket, g_hHttpWindow, 0, 0); }

int AddressToHostPortText(const sockaddr* address, int length, wchar_t* out, int size) {
    if (size < kHostPortTextSize) return -1;
    char host[kHostPortTextSize + 40] = {};
    char service[32] = {};
    int code = ResolverGetNameInfo(address, length, host, kHostPortTextSize, service, sizeof service, NI_NUMERICSERV);
    WSASetLastError(code);
    if (code != 0) return WSAGetLastError();
    size_t used = std::strlen(host);
    BoundedWriter joined(host + used, sizeof host - used);
    joined.Put(':');
    joined.Put(service);
    MultiByteToWideChar(GetACP(), 0, host, -1, out, size);
    return 0;
}

int httpHiddenOnSocketEvent(SOCKET s, unsigned error, unsigned events) {
    SOCKS_LogString("httpHiddenOnSocketEvent(socket:%d,error:%d,FD event:%x)", static_cast<int>(s),
                    static_cast<int>(error), events);
    // Kept: a close during the exchange changes no state.
    if (events & FD_CLOSE) {
        SOCKS_LogString("httpHiddenOnSocketEvent(FD_CLOSE). Error %d", static_cast<int>(error));
        return 1;
    }
    // The use keeps the object for this step, should the host remove it meanwhile.
    SharedUse<CHttpSocket> object = g_pProxySocketManager->FindSocket(s).As<CHttpSocket>();
    if (object == nullptr) return 1;
    if ((events & FD_CONNECT) && error == 0) {
        object->OnConnected();
        error = static_cast<unsigned>(object->ProcessState());
        if (error != 0) SOCKS_LogString("httpHiddenOnSocketEvent(FD_CONNECT). Error %d", static_cast<int>(error));
    }
    if ((events & FD_READ) && error == 0) {
        if (object->state == kEstablished) return 1;
        if (object->state == kFailed) {
            object->StopEvents();
            return 1;
        }
        int result = object->ProcessState();
        if (result != 0) SOCKS_LogString("httpHiddenOnSocketEvent(FD_READ). Error %d", result);
    }
    return 1;
}
