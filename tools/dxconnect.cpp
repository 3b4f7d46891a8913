// dxconnect: connects to a destination through a proxy with DXSOCKS.DLL, the way a host program
// does, then relays stdin to the connection and the connection to stdout.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include "config_api.h"
#include "http_api.h"
#include "registry_api.h"
#include "socks_api.h"
#include "tool_options.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

enum ExitCode { kExitOk = 0, kExitConnectFailed = 1, kExitUsage = kToolExitUsage, kExitSetup = 3 };

const char kUsage[] =
    "Usage: dxconnect [options] DEST_HOST DEST_PORT\n"
    "       dxconnect [-v] -r FILE\n"
    "       dxconnect [-v] --cleanup-registry\n"
    "       dxconnect [-v] --show-config\n"
    "\n"
    "Connects to DEST_HOST:DEST_PORT through a proxy with DXSOCKS.DLL, then sends standard input\n"
    "to the connection and writes what comes back to standard output.\n"
    "\n"
    "Options:\n"
    "  -t TYPE        proxy type: socks4 (default), socks5 or http; without -x only the family\n"
    "                 counts (socks4 and socks5 both ask the SOCKS maps, whose version decides)\n"
    "  -x HOST:PORT   proxy address; HOST is a dotted IPv4 address or a name. Without -x the\n"
    "                 library determines the proxy from the settings file's maps (asking the user\n"
    "                 through pxmSetUI.dll's first-use prompt when there are none)\n"
    "  -d             only ask: print the proxy, user and version (or Basic flag) that the settings\n"
    "                 file picks for DEST_HOST:DEST_PORT, and exit 0, or 1 when none applies\n"
    "  -u USER        user id for the proxy (default empty); with -t http, -u or -p turns on\n"
    "                 Basic authentication\n"
    "  -p PASSWORD    password for a proxy that asks for one (the library asks this program\n"
    "                 through its password callback); without -p, the password prompt of\n"
    "                 pxmSetUI.dll beside DXSOCKS.DLL asks the user\n"
    "  -v             print every library log line to standard error\n"
    "  -n             non-blocking mode: the handshake runs on the library's hidden thread and\n"
    "                 its outcome arrives at this program's window as FD_CONNECT\n"
    "  -w SECONDS     after standard input ends, keep reading the connection for this long,\n"
    "                 unless the peer closes first (default 2)\n"
    "  -r FILE        load the XML registry text in FILE through SOCKS_SetXMLConfig (the\n"
    "                 grammar is in dxsocks_types.h), print what SOCKS_GetXMLConfig gives back\n"
    "                 and exit; needs no proxy and no destination\n"
    "  --cleanup-registry\n"
    "                 delete the older proxy configuration of the current user from the\n"
    "                 registry (Software\\Verdane\\Network Protocols) through CleanupRegistry\n"
    "                 and exit\n"
    "  --show-config  print the proxy configuration as GetRegConfig gives it: the settings\n"
    "                 file's maps, else those of the older registry configuration, as the\n"
    "                 settings file's XML; writes nothing\n"
    "  -h             show this help\n"
    "\n"
    "Exit status: 0 done, 1 connect failed, connection lost, no proxy applies, registry not\n"
    "loaded or no configuration to show,\n"
    "2 usage error, 3 local setup failed.\n";

enum class ProxyType { Socks4, Socks5, Http };
const char *const kTypeNames[] = {"socks4", "socks5", "http"};

struct Options {
    ProxyType type = ProxyType::Socks4;
    std::string proxy;  // as given to -x, for messages
    std::string proxyHost;
    unsigned proxyPort = 0;
    std::string user;
    std::string password;
    bool havePassword = false;
    std::string destHost;
    unsigned destPort = 0;
    bool verbose = false;
    bool nonBlocking = false;
    double waitSeconds = 2.0;
    std::string registryFile;  // -r: load and print an XML registry instead of connecting
    bool cleanupRegistry = false;
    bool showConfig = false;  // --show-config: print GetRegConfig's text instead of connecting
    bool named = false;       // -x given; else the library determines the proxy
    bool determineOnly = false;  // -d: print what the determination gives, connect nothing
};

const char *TypeName(ProxyType type) { return kTypeNames[static_cast<int>(type)]; }

bool ParsePort(const std::string &text, unsigned *port) { return ReadDecimal(text, 1, 65535, port); }

int UsageError(const std::string &message) { return ToolUsageError("dxconnect", message); }

// Returns -1 when the command line is good, else the exit code (0 after -h).
int ParseOptions(int argc, char **argv, Options *o) {
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    std::vector<std::string> positional;
    bool optionsEnded = false;
    bool haveProxy = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (arg == "--cleanup-registry") {
            o->cleanupRegistry = true;
            continue;
        }
        if (arg == "--show-config") {
            o->showConfig = true;
            continue;
        }
        const OptionWord word = ReadOptionWord("hvnd", "txupwr", argc, argv, &i);
        if (!word.fault.empty()) return UsageError(word.fault);
        const char flag = word.flag;
        const std::string &value = word.value;
        if (flag == 'h') {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        if (flag == 'v') {
            o->verbose = true;
        } else if (flag == 'd') {
            o->determineOnly = true;
        } else if (flag == 'n') {
            o->nonBlocking = true;
        } else if (flag == 't') {
            if (value == "socks4") o->type = ProxyType::Socks4;
            else if (value == "socks5") o->type = ProxyType::Socks5;
            else if (value == "http") o->type = ProxyType::Http;
            else return UsageError("-t: unknown proxy type '" + value + "' (use socks4, socks5 or http)");
        } else if (flag == 'x') {
            const size_t colon = value.rfind(':');
            if (colon == std::string::npos || colon == 0 || !ParsePort(value.substr(colon + 1), &o->proxyPort))
                return UsageError("-x: '" + value + "' is not HOST:PORT with a port from 1 to 65535");
            o->proxy = value;
            o->proxyHost = value.substr(0, colon);
            haveProxy = true;
        } else if (flag == 'u') {
            o->user = value;
        } else if (flag == 'p') {
            o->password = value;
            o->havePassword = true;
        } else if (flag == 'r') {
            if (value.empty()) return UsageError("-r: the file name is empty");
            o->registryFile = value;
        } else {
            char *end = nullptr;
            const double seconds = std::strtod(value.c_str(), &end);
            // The upper bound keeps the time in milliseconds far from overflow.
            if (value.empty() || *end != '\0' || !(seconds >= 0 && seconds <= 1e6))
                return UsageError("-w: '" + value + "' is not a number of seconds from 0 to 1000000");
            o->waitSeconds = seconds;
        }
    }
    if (o->showConfig) {
        if (haveProxy || !positional.empty() || !o->registryFile.empty() || o->cleanupRegistry)
            return UsageError("--show-config takes no other option but -v");
        return -1;
    }
    if (o->cleanupRegistry) {
        if (haveProxy || !positional.empty() || !o->registryFile.empty())
            return UsageError("--cleanup-registry takes no other option but -v");
        return -1;
    }
    if (!o->registryFile.empty()) {
        if (haveProxy || !positional.empty()) return UsageError("-r takes no proxy and no destination");
        return -1;
    }
    if (o->determineOnly && haveProxy) return UsageError("-d asks the settings file: it takes no -x");
    o->named = haveProxy;
    if (positional.size() != 2) return UsageError("expected DEST_HOST DEST_PORT after the options");
    if (positional[0].empty()) return UsageError("DEST_HOST is empty");
    if (!ParsePort(positional[1], &o->destPort))
        return UsageError("DEST_PORT '" + positional[1] + "' is not a port from 1 to 65535");
    o->destHost = positional[0];
    return -1;
}

const struct {
    int code;
    const char *text;
} kMeanings[] = {
    {WSAECONNREFUSED, "connection refused by the proxy"},
    {WSAHOST_NOT_FOUND, "host not found"},
    {WSAETIMEDOUT, "connection timed out"},
    {WSAEHOSTUNREACH, "no route to the host"},
    {WSAEWOULDBLOCK, "the operation would block"},
    {WSAENOTSOCK, "not a socket, or the library could not keep state for it"},
    {WSAEINVAL, "invalid argument"},
    {DXSOCKS_HTTP_NOT_FOUND, "HTTP proxy could not resolve the destination"},
    {DXSOCKS_PROXY_AUTH_FAILED, "proxy authentication required or refused"},
    {DXSOCKS_PASSWORD_CANCELLED, "password prompt cancelled"},
    {DXSOCKS_ERROR_CANCELLED, "cancelled"},
    {DXSOCKS_ERROR_TIMEOUT, "timed out"},
};

std::string Meaning(int code) {
    // A refusal the library reports by its result alone leaves no WinSock error behind.
    if (code == 0 || code == -1) return "the proxy refused or the handshake failed";
    for (const auto &m : kMeanings)
        if (m.code == code) return m.text;
    char text[256];
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             static_cast<DWORD>(code), 0, text, static_cast<DWORD>(sizeof text), nullptr);
    while (n > 0 && std::strchr("\r\n .", text[n - 1]) != nullptr) --n;
    return n > 0 ? std::string(text, n) : "unknown error";
}

// One way of connecting s through the proxy. On failure *error is the WinSock error to report.
using Connector = bool (*)(SOCKET s, const Options &o, const sockaddr_in &proxy, int *error);

// The library's password callback: the -p text, in the ANSI code page, as the proxy will get it.
int GivePassword(void *context, wchar_t *password, int size, const wchar_t *, const wchar_t *) {
    const auto *o = static_cast<const Options *>(context);
    if (size <= 0) return 0;
    password[0] = L'\0';
    if (!o->password.empty() &&
        MultiByteToWideChar(CP_ACP, 0, o->password.c_str(), -1, password, size) == 0) {
        return 0;  // too long for the library's buffer
    }
    return 1;
}

// The calls of one family of the library, so that both proxy kinds take the same roads.
struct Family {
    int (*startup)(void *, int);
    int (*asyncSelect)(SOCKET, HWND, unsigned int, long);
    int (*connectEx)(SOCKET, const char *, unsigned int, HWND, int);
    int (*connectCanceled)(SOCKET);
    unsigned int (*connectError)(SOCKET);
};

const Family kSocks = {SOCKS_Startup, SOCKS_WSAAsyncSelect, SOCKS_ConnectEx, SOCKS_ConnectCanceled,
                       SOCKS_GetConnectError};
const Family kHttp = {HTTP_Startup, HTTP_WSAAsyncSelect, HTTP_ConnectEx, HTTP_ConnectCanceled, HTTP_GetConnectError};

const Family &FamilyOf(const Options &o) { return o.type == ProxyType::Http ? kHttp : kSocks; }

// Names the proxy for s: 0, or 1 when the library kept no state for it.
int SetProxy(SOCKET s, const Options &o, const sockaddr_in &proxy) {
    const int length = static_cast<int>(sizeof proxy);
    switch (o.type) {
        case ProxyType::Http:
            return HTTP_SetProxy(s, &proxy, length, o.user.c_str(), !o.user.empty() || o.havePassword ? 1 : 0);
        case ProxyType::Socks5: return SOCKS_SetProxyEx(s, &proxy, length, o.user.c_str(), 5);
        default: return SOCKS_SetProxyEx(s, &proxy, length, o.user.c_str(), 4);
    }
}

// The error to show for a failed connect whose WinSock error says nothing of its own.
int ExplainFailure(SOCKET s, const Family &family, int error) {
    const unsigned recorded = family.connectError(s);
    if (recorded != 0) return static_cast<int>(recorded);
    if (family.connectCanceled(s)) return DXSOCKS_PASSWORD_CANCELLED;
    return error;
}

bool ConnectBlocking(SOCKET s, const Options &o, const sockaddr_in &proxy, int *error) {
    const Family &family = FamilyOf(o);
    if (o.named && SetProxy(s, o, proxy) != 0) {
        *error = WSAENOTSOCK;
        return false;
    }
    WSASetLastError(0);  // so that a refusal without an error of its own shows as 0
    if (family.connectEx(s, o.destHost.c_str(), o.destPort, nullptr, AF_INET) == 0) return true;
    *error = ExplainFailure(s, family, WSAGetLastError());
    return false;
}

constexpr UINT kSocketMessage = WM_APP + 1;
constexpr DWORD kHandshakeLimitMs = 30000;

// The non-blocking road: the library keeps our selection until the handshake ends, then posts
// FD_CONNECT with the outcome in the upper 16 bits to our window.
bool ConnectNonBlocking(SOCKET s, const Options &o, const sockaddr_in &proxy, int *error) {
    const Family &family = FamilyOf(o);
    if (!family.startup(nullptr, 0)) {
        *error = static_cast<int>(GetLastError());
        return false;
    }
    HWND window = CreateWindowExA(0, "STATIC", "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    bool connected = false;
    *error = WSAETIMEDOUT;
    if (window == nullptr) {
        *error = static_cast<int>(GetLastError());
    } else if (family.asyncSelect(s, window, kSocketMessage, FD_CONNECT) != 0 ||
               (o.named && SetProxy(s, o, proxy) != 0)) {
        *error = WSAENOTSOCK;
    } else if (family.connectEx(s, o.destHost.c_str(), o.destPort, nullptr, AF_INET) != 0) {
        *error = WSAGetLastError();
    } else {
        // A failed TCP connect to the proxy is never posted, so the wait has a limit of our own.
        const DWORD start = GetTickCount();
        MSG message;
        while (GetTickCount() - start < kHandshakeLimitMs) {
            if (!PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
                MsgWaitForMultipleObjects(0, nullptr, FALSE, 100, QS_ALLINPUT);
                continue;
            }
            if (message.message == kSocketMessage && WSAGETSELECTEVENT(message.lParam) == FD_CONNECT) {
                // The error word holds 16 bits: 65532 and its neighbours arrive whole.
                *error = WSAGETSELECTERROR(message.lParam);
                connected = *error == 0;
                break;
            }
            DispatchMessageA(&message);
        }
    }
    if (window != nullptr) DestroyWindow(window);
    // The relay wants a plain blocking socket again.
    WSAAsyncSelect(s, nullptr, 0, 0);
    u_long blocking = 0;
    ioctlsocket(s, FIONBIO, &blocking);
    return connected;
}

Connector ChooseConnector(const Options &o) { return o.nonBlocking ? ConnectNonBlocking : ConnectBlocking; }

// Returns 0, or the lookup's WinSock error.
int ResolveProxy(const Options &o, sockaddr_in *address) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int rc = getaddrinfo(o.proxyHost.c_str(), nullptr, &hints, &found);
    if (rc != 0) return rc;
    std::memcpy(address, found->ai_addr, sizeof *address);
    address->sin_port = htons(static_cast<u_short>(o.proxyPort));
    freeaddrinfo(found);
    return 0;
}

void LogToStream(void *context, const char *text) {
    // One call per line, so lines from the library's threads do not interleave.
    std::fprintf(static_cast<FILE *>(context), "%s\n", text);
}

struct Relay {
    SOCKET s = INVALID_SOCKET;
    std::chrono::steady_clock::time_point inputEndedAt;  // written before inputEnded is set
    std::atomic<bool> inputEnded{false};
};

bool SendAll(SOCKET s, const char *data, int size) {
    while (size > 0) {
        const int sent = send(s, data, size, 0);
        if (sent == SOCKET_ERROR) return false;
        data += sent;
        size -= sent;
    }
    return true;
}

bool WriteAll(HANDLE out, const char *data, DWORD size) {
    if (out == nullptr || out == INVALID_HANDLE_VALUE) return true;  // no stdout: drop the data
    while (size > 0) {
        DWORD written = 0;
        if (!WriteFile(out, data, size, &written, nullptr) || written == 0) return false;
        data += written;
        size -= written;
    }
    return true;
}

void PumpInput(std::shared_ptr<Relay> relay) {
    const HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
    char buffer[16384];
    DWORD got = 0;
    // A pipe whose writer closed fails with ERROR_BROKEN_PIPE; like a 0-byte read it is the end.
    while (in != nullptr && in != INVALID_HANDLE_VALUE &&
           ReadFile(in, buffer, static_cast<DWORD>(sizeof buffer), &got, nullptr) && got > 0) {
        if (!SendAll(relay->s, buffer, static_cast<int>(got))) break;
    }
    // No half-close: many proxies end the whole tunnel at the client's FIN and drop what is still
    // on its way back. The -w time after the end of input lets the rest come in.
    relay->inputEndedAt = std::chrono::steady_clock::now();
    relay->inputEnded = true;
}

// Copies the connection to stdout until the peer closes, or until the -w time after the end of
// input has passed. Returns 0, or the WinSock error that broke the connection.
int PumpOutput(Relay *relay, double waitSeconds) {
    using namespace std::chrono;
    const long kPollMs = 100;  // how soon the end of input is noticed
    const auto linger = duration_cast<milliseconds>(duration<double>(waitSeconds));
    const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    char buffer[16384];
    for (;;) {
        long waitMs = kPollMs;
        if (relay->inputEnded) {
            const auto left = duration_cast<milliseconds>(relay->inputEndedAt + linger - steady_clock::now());
            if (left.count() <= 0) return 0;
            waitMs = static_cast<long>(left.count());
        }
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(relay->s, &readable);
        timeval timeout{waitMs / 1000, (waitMs % 1000) * 1000};
        const int ready = select(0, &readable, nullptr, nullptr, &timeout);
        if (ready == SOCKET_ERROR) return WSAGetLastError();
        if (ready == 0) continue;
        const int got = recv(relay->s, buffer, static_cast<int>(sizeof buffer), 0);
        if (got == 0) return 0;
        if (got == SOCKET_ERROR) return WSAGetLastError();
        if (!WriteAll(out, buffer, static_cast<DWORD>(got))) return 0;  // nobody reads our output
    }
}

// What the settings file picks for the destination, asked as a host asks before it connects.
struct Determined {
    int result = 0;
    int error = 0;
    sockaddr_in proxy{};
    char user[512] = {};
    unsigned int extra = 0;  // SOCKS version, or HTTP Basic flag
};

Determined Determine(const Options &o) {
    Determined d;
    int family = AF_INET;
    WSASetLastError(0);
    try {
        if (o.type == ProxyType::Http) {
            d.result = HTTP_DetermineProxyEx(o.destHost.c_str(), o.destPort, &d.proxy, sizeof d.proxy, d.user,
                                             sizeof d.user, &d.extra, &family);
        } else {
            d.result = SOCKS_DetermineProxyEx(o.destHost.c_str(), o.destPort, &d.proxy, sizeof d.proxy, d.user,
                                              sizeof d.user, &d.extra, &family);
        }
        d.error = WSAGetLastError();
    } catch (...) {
        // A number in the settings file that is none raises out of the library.
        d.result = -1;
    }
    return d;
}

std::string AddressText(const sockaddr_in &address) {
    char text[32];
    const unsigned char *b = reinterpret_cast<const unsigned char *>(&address.sin_addr);
    std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", b[0], b[1], b[2], b[3], ntohs(address.sin_port));
    return text;
}

// Why the determination gave no proxy, for the user.
void ReportNoProxy(const Options &o, const Determined &d) {
    if (d.result < 0) {
        std::fprintf(stderr, "dxconnect: the settings file holds a number that is not one\n");
    } else if (d.error == DXSOCKS_ERROR_CANCELLED) {
        std::fprintf(stderr, "dxconnect: no proxy is configured\n");
    } else if (d.error != 0) {
        std::fprintf(stderr, "dxconnect: the proxy for %s:%u cannot be found: WinSock error %d (%s)\n",
                     o.destHost.c_str(), o.destPort, d.error, Meaning(d.error).c_str());
    } else {
        std::fprintf(stderr, "dxconnect: no proxy applies to %s:%u\n", o.destHost.c_str(), o.destPort);
    }
}

// -d: the answer alone.
int AskOnly(const Options &o) {
    const Determined d = Determine(o);
    if (d.result != 1) {
        ReportNoProxy(o, d);
        return kExitConnectFailed;
    }
    std::printf("proxy %s\nuser %s\n", AddressText(d.proxy).c_str(), d.user);
    if (o.type == ProxyType::Http) {
        std::printf("basic %u\n", d.extra);
    } else {
        std::printf("version %u\n", d.extra);
    }
    return kExitOk;
}

int ConnectAndRelay(const Options &o, Connector connector) {
    sockaddr_in proxy{};
    std::string proxyText = o.proxy;
    if (!o.named) {
        // Asked first, as a host that wants to know does; the connect then determines again itself.
        const Determined d = Determine(o);
        if (d.result != 1) {
            ReportNoProxy(o, d);
            return kExitConnectFailed;
        }
        proxyText = AddressText(d.proxy) + " (from the settings file)";
    } else if (const int rc = ResolveProxy(o, &proxy)) {
        std::fprintf(stderr, "dxconnect: cannot resolve proxy host %s: WinSock error %d (%s)\n",
                     o.proxyHost.c_str(), rc, Meaning(rc).c_str());
        return kExitConnectFailed;
    }
    // Shared with the input thread, which may outlive this call.
    const auto relay = std::make_shared<Relay>();
    relay->s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (relay->s == INVALID_SOCKET) {
        const int rc = WSAGetLastError();
        std::fprintf(stderr, "dxconnect: socket failed: WinSock error %d (%s)\n", rc, Meaning(rc).c_str());
        return kExitSetup;
    }
    int error = 0;
    if (!connector(relay->s, o, proxy, &error)) {
        std::fprintf(stderr, "dxconnect: connect through %s proxy %s to %s:%u failed: WinSock error %d (%s)\n",
                     TypeName(o.type), proxyText.c_str(), o.destHost.c_str(), o.destPort, error,
                     Meaning(error).c_str());
        closesocket(relay->s);
        return kExitConnectFailed;
    }
    std::fprintf(stderr, "dxconnect: connected to %s:%u through %s proxy %s\n", o.destHost.c_str(), o.destPort,
                 o.named ? TypeName(o.type) : (o.type == ProxyType::Http ? "http" : "socks"), proxyText.c_str());

    std::thread input(PumpInput, relay);
    const int lost = PumpOutput(relay.get(), o.waitSeconds);
    // The input thread may sit in a read of an open stdin; process exit ends it.
    if (relay->inputEnded) input.join();
    else input.detach();
    closesocket(relay->s);
    if (lost != 0) {
        std::fprintf(stderr, "dxconnect: connection lost: WinSock error %d (%s)\n", lost, Meaning(lost).c_str());
        return kExitConnectFailed;
    }
    return kExitOk;
}

}  // namespace

// -r: the file's text to SOCKS_SetXMLConfig, and SOCKS_GetXMLConfig's text to standard output.
int LoadRegistry(const Options &o) {
    FILE *file = std::fopen(o.registryFile.c_str(), "rb");
    if (file == nullptr) {
        std::fprintf(stderr, "dxconnect: cannot open %s\n", o.registryFile.c_str());
        return kExitSetup;
    }
    std::string text;
    char block[65536];
    size_t count;
    while ((count = std::fread(block, 1, sizeof block, file)) > 0) text.append(block, count);
    std::fclose(file);
    if (SOCKS_SetXMLConfig(text.c_str()) != 1) {
        std::fprintf(stderr,
                     "dxconnect: %s: registry not loaded (no suite library KVTSOCK2.DLL beside this program, "
                     "or text outside the registry grammar)\n",
                     o.registryFile.c_str());
        return kExitConnectFailed;
    }
    const char *xml = SOCKS_GetXMLConfig();
    if (xml == nullptr) {
        std::fprintf(stderr, "dxconnect: SOCKS_GetXMLConfig gave no text\n");
        return kExitConnectFailed;
    }
    std::fputs(xml, stdout);
    return kExitOk;
}

// --show-config: GetRegConfig's text, in the ANSI code page as the library keeps its texts.
int ShowConfig() {
    BSTR text = nullptr;
    unsigned int length = 0xFFFFFFFFu;
    try {
        length = GetRegConfig(&text);
    } catch (...) {
        // A number in the settings file that is none raises out of the library.
        std::fprintf(stderr, "dxconnect: the settings file holds a number that is not one\n");
        return kExitConnectFailed;
    }
    if (length == 0xFFFFFFFFu) {
        std::fprintf(stderr, "dxconnect: no configuration (no Software\\Verdane key of the user, or no maps in the "
                             "settings file or the registry)\n");
        return kExitConnectFailed;
    }
    const int size = WideCharToMultiByte(CP_ACP, 0, text, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
    std::string narrow(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size > 0) WideCharToMultiByte(CP_ACP, 0, text, static_cast<int>(length), &narrow[0], size, nullptr, nullptr);
    SysFreeString(text);
    std::fputs(narrow.c_str(), stdout);
    std::fputs("\n", stdout);
    return kExitOk;
}

int main(int argc, char **argv) {
    Options o;
    const int parsed = ParseOptions(argc, argv, &o);
    if (parsed >= 0) return parsed;
    if (o.showConfig) {
        if (o.verbose) SOCKS_SetLoggingCallbackEx(stderr, LogToStream);
        const int status = ShowConfig();
        if (o.verbose) SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
        return status;
    }
    if (o.cleanupRegistry) {
        if (o.verbose) SOCKS_SetLoggingCallbackEx(stderr, LogToStream);
        CleanupRegistry();
        if (o.verbose) SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
        return kExitOk;
    }
    if (!o.registryFile.empty()) {
        if (o.verbose) SOCKS_SetLoggingCallbackEx(stderr, LogToStream);
        const int status = LoadRegistry(o);
        if (o.verbose) SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
        return status;
    }
    const Connector connector = ChooseConnector(o);

    WSADATA wsa;
    if (const int rc = WSAStartup(MAKEWORD(2, 2), &wsa)) {
        std::fprintf(stderr, "dxconnect: WSAStartup failed: WinSock error %d (%s)\n", rc, Meaning(rc).c_str());
        return kExitSetup;
    }
    if (o.verbose) SOCKS_SetLoggingCallbackEx(stderr, LogToStream);
    if (o.havePassword) {
        SOCKS_SetPasswordCallback(&o, GivePassword);
        HTTP_SetPasswordCallback(&o, GivePassword);
    }
    const int status = o.determineOnly ? AskOnly(o) : ConnectAndRelay(o, connector);
    if (o.verbose) SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
    WSACleanup();
    return status;
}
