#include "proxy_map.h"

#include <windows.h>

#include <cstring>

#include "bounded_text.h"
#include "dxsocks_ids.h"
#include "log.h"
#include "suite_library.h"

namespace {

constexpr char kWildcard[] = "*";
constexpr size_t kFormatSize = kMapHostSize;

void ClearEndpoint(CMapEndpoint& endpoint) {
    endpoint.Address = 0;
    endpoint.Mask = 0;
    endpoint.Host[0] = '\0';
    endpoint.Port[0] = '\0';
}

bool Usable(const char* buffer, int size) { return buffer != nullptr && size > 0; }

// A resource string into `buffer` of `size`; the empty text when the resource library lacks it.
void LoadText(unsigned id, char* buffer, int size) {
    if (g_resourceLibrary.LoadResourceString(id, buffer, size) <= 0) buffer[0] = '\0';
}

// The host as the dialogs show it: the wildcard as the word for any host.
void HostText(const CMapEndpoint& endpoint, char* buffer, int size) {
    if (endpoint.Host[0] == '*') {
        LoadText(IDS_ANY_HOST, buffer, size);
    } else {
        CopyText(buffer, static_cast<size_t>(size), endpoint.Host);
    }
}

// Host and port through the resource format, into `out`.
void JoinHostPort(const char* host, const char* port, char (&out)[kFormatSize]) {
    char format[kFormatSize] = {};
    LoadText(IDS_HOST_PORT, format, sizeof format);
    out[0] = '\0';
    wsprintfA(out, format, host, port);  // never writes more than 1024 characters and the terminator
}

void SetHost(CMapEndpoint& endpoint, const char* text) {
    char word[kAnyHostWordSize] = {};
    g_resourceLibrary.LoadResourceString(IDS_ANY_HOST, word, sizeof word);
    endpoint.Address = 0;
    ApplyHostRule(endpoint.Host, text, word, CompareByUserLocale);
}

}  // namespace

int CompareByUserLocale(const char* first, const char* second) { return lstrcmpiA(first, second); }

CProxyMap::CProxyMap() {
    next = nullptr;
    ClearEndpoint(Destination);
    ClearEndpoint(Proxy);
    ResetToDefaults();
    IsDefaultMap = 0;
}

void CProxyMap::ResetToDefaults() {
    SetProxyAddress("");
    ProtocolVersion = 4;
    BasicAuthentication = 0;
    SetUseProxy(0);
    SetDestinationAddress(kWildcard);
    SetDestinationPort(kWildcard);
    SetDefaultPort("");
    SetProxyUser("");
}

void CProxyMap::SetDestinationAddress(const char* text) { SetHost(Destination, text); }
void CProxyMap::SetProxyAddress(const char* text) { SetHost(Proxy, text); }
void CProxyMap::SetDestinationPort(const char* text) { ApplyPortRule(Destination.Port, text); }
void CProxyMap::SetProxyPort(const char* text) { ApplyPortRule(Proxy.Port, text); }

void CProxyMap::SetDefaultPort(const char* text) {
    CopyText(DefaultPort, kMapPortKept + 1, text);
    DefaultPort[kMapPortSize - 1] = '\0';
    SetProxyPort(DefaultPort);
}

void CProxyMap::SetProxyUser(const char* text) {
    CopyText(ProxyUser, kMapUserKept + 1, text);
    ProxyUser[kMapUserSize - 1] = '\0';
}

const char* CProxyMap::GetProxyAddress() const { return Proxy.Host[0] == '*' ? "" : Proxy.Host; }

int CProxyMap::GetDestinationPortNumber(uint32_t* mask) const { return ParsePortNumber(Destination.Port, mask); }
int CProxyMap::GetProxyPortNumber() const { return ParsePortNumber(Proxy.Port, nullptr); }
uint32_t CProxyMap::GetProxyAddressNumber() { return ResolveAddress(Proxy, nullptr); }

int CProxyMap::GetProxySockAddr(sockaddr_in* address) {
    if (address == nullptr) return 0;
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = GetProxyAddressNumber();
    if (address->sin_addr.s_addr == 0) return 0;
    // Kept: no range check; the port is cut to 16 bits here, so "70000" connects to 4464.
    address->sin_port = htons(static_cast<u_short>(GetProxyPortNumber()));
    return 1;
}

uint32_t CProxyMap::ResolveAddress(CMapEndpoint& endpoint, uint32_t* mask) {
    // Kept: 0 is "not resolved", so 0.0.0.0 is parsed again on every call and gives 0.
    if (endpoint.Address != 0) {
        if (mask != nullptr) *mask = endpoint.Mask;
        return endpoint.Address;
    }
    char probe[kMapHostSize] = {};
    ExpandWildcard(probe, endpoint.Host, "1", nullptr);
    // Kept: a wildcard proxy host probes as 1.1.1.1 and "resolves"; the determination refuses such a
    // host before it asks.
    endpoint.Address = inet_addr(probe);
    if (endpoint.Address != INADDR_NONE) {
        if (mask != nullptr) {
            char maskText[kMapHostSize] = {};
            ExpandWildcard(maskText, endpoint.Host, "0", "255");
            endpoint.Mask = inet_addr(maskText);
            *mask = endpoint.Mask;
        }
        return endpoint.Address;
    }
    // The name itself, not the probe, is looked up.
    const hostent* entry = gethostbyname(endpoint.Host);
    if (entry != nullptr && entry->h_addr_list != nullptr && entry->h_addr_list[0] != nullptr) {
        size_t length = entry->h_length > 0 ? static_cast<size_t>(entry->h_length) : 0;
        if (length > sizeof endpoint.Address) length = sizeof endpoint.Address;
        std::memcpy(&endpoint.Address, entry->h_addr_list[0], length);
        if (mask != nullptr) {
            endpoint.Mask = inet_addr("255.255.255.255");
            *mask = endpoint.Mask;
        }
        return endpoint.Address;
    }
    // The look-up's own error is the one logged and left, whatever the report's string look-up or the
    // host's log callback does to it.
    int error = WSAGetLastError();
    if (mask != nullptr) {
        endpoint.Mask = 0;
        *mask = 0;
    }
    endpoint.Address = 0;
    ReportMessage(0, IDR_PROXY_UNRESOLVED, endpoint.Host);
    SOCKS_LogString("WinSock Error = %d", error);
    WSASetLastError(error);
    return 0;
}

void CProxyMap::GetDestinationAddressText(char* buffer, int size) const {
    if (!Usable(buffer, size)) return;
    HostText(Destination, buffer, size);
}

void CProxyMap::GetDestinationPortText(char* buffer, int size) const {
    if (!Usable(buffer, size)) return;
    if (Destination.Port[0] == '*') {
        LoadText(IDS_PORT_FIRST, buffer, size);
    } else {
        CopyText(buffer, static_cast<size_t>(size), Destination.Port);
    }
}

void CProxyMap::GetDestinationText(char* buffer) const {
    if (buffer == nullptr) return;
    char host[kMapHostSize] = {};
    char port[kMapPortSize] = {};
    GetDestinationAddressText(host, sizeof host);
    GetDestinationPortText(port, sizeof port);
    char joined[kFormatSize];
    JoinHostPort(host, port, joined);
    CopyText(buffer, kDestinationTextSize, joined);
}

void CProxyMap::GetProxyText(char* buffer, int size) const {
    if (!Usable(buffer, size)) return;
    if (UseProxy == 0) {
        LoadText(IDS_DIRECT, buffer, size);
        return;
    }
    if (lstrcmpA(Proxy.Port, DefaultPort) == 0) {
        HostText(Proxy, buffer, size);
        return;
    }
    char host[kMapHostSize] = {};
    HostText(Proxy, host, sizeof host);
    char joined[kFormatSize];
    JoinHostPort(host, Proxy.Port, joined);
    CopyText(buffer, static_cast<size_t>(size), joined);
}
