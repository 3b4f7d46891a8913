// CProxyMap: one proxy rule, a flat record that is its own list node. It keeps host and port as the
// user typed them and turns them into numbers only when asked; the proxy's address, once resolved,
// is cached in the record until its host is set again.
#pragma once

#include <winsock2.h>

#include <cstdint>

#include "linked_list.h"
#include "map_rules.h"

struct CMapEndpoint {
    uint32_t Address;  // network order; 0: not resolved yet
    uint32_t Mask;     // network order; filled only when a caller asks for it
    char Host[kMapHostSize];
    char Port[kMapPortSize];
};

class CProxyMap : public CListNode {
public:
    CProxyMap();

    void ResetToDefaults();

    void SetDestinationAddress(const char* text);
    void SetProxyAddress(const char* text);
    void SetDestinationPort(const char* text);
    void SetProxyPort(const char* text);
    // At most 30 characters, then the port rule on the proxy port.
    void SetDefaultPort(const char* text);
    // At most 510 characters; null or empty empties the field.
    void SetProxyUser(const char* text);
    void SetUseProxy(uint32_t value) { UseProxy = value; }

    // Pointers into the record, valid while it lives.
    const char* GetDestinationAddress() const { return Destination.Host; }
    const char* GetDestinationPort() const { return Destination.Port; }
    // The empty text for a wildcard proxy host.
    const char* GetProxyAddress() const;
    const char* GetProxyPort() const { return Proxy.Port; }
    const char* GetProxyUser() const { return ProxyUser; }
    uint32_t GetUseProxy() const { return UseProxy; }

    int GetDestinationPortNumber(uint32_t* mask) const;
    int GetProxyPortNumber() const;
    // The proxy's address in network order, resolved once and cached; 0 on failure.
    uint32_t GetProxyAddressNumber();
    // Family 2 and the proxy's address always; the port only when the address is not 0. Returns 1 when
    // the address is not 0, else 0. A null pointer gets nothing and gives 0, with nothing resolved.
    int GetProxySockAddr(sockaddr_in* address);

    // Texts the dialogs show, copied into the caller's buffer of `size` characters, cut to fit. A null
    // buffer or a size below 1 gets nothing; a string the resource library lacks gives the empty text.
    void GetDestinationAddressText(char* buffer, int size) const;
    void GetDestinationPortText(char* buffer, int size) const;
    // Host and port joined by the resource format, into a buffer of 128 characters.
    void GetDestinationText(char* buffer) const;
    void GetProxyText(char* buffer, int size) const;

    // The address of `endpoint`, from its cache when it holds one; else the host's text with each
    // wildcard part as 1 when it reads as an address, else the look-up of the host's text. A failed
    // look-up is reported and logged with its WinSock error, which stays set, and caches nothing.
    // `mask`, where given, gets the wildcard mask that goes with the address (0 on failure).
    static uint32_t ResolveAddress(CMapEndpoint& endpoint, uint32_t* mask);

    uint32_t UseProxy;
    uint32_t IsDefaultMap;
    CMapEndpoint Destination;
    CMapEndpoint Proxy;
    char DefaultPort[kMapPortSize];
    char ProxyUser[kMapUserSize];
    uint32_t ProtocolVersion;
    uint32_t BasicAuthentication;
};

constexpr size_t kDestinationTextSize = 128;

// lstrcmpiA: without regard to case by the user's locale, so under Wine "\xe9" equals "\xc9" and "ss"
// equals "\xdf"; ASCII host names compare alike everywhere. 0 when equal.
int CompareByUserLocale(const char* first, const char* second);
