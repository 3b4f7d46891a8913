// The proxy map record with our resource library's strings (DXTEST_OUR_STRINGS).
#include "proxy_map.h"

#include <gtest/gtest.h>

#include <winsock2.h>

#include <climits>
#include <cstring>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "bounded_text.h"
#include "log_capture.h"
#include "our_strings.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::Line;
using dxtest::Lines;

constexpr unsigned char kGuard = 0xA5;
constexpr int kHostNotFound = 11001;

// A caller's buffer with guard bytes on both sides.
struct GuardedBuffer {
    explicit GuardedBuffer(size_t size) : bytes(size + 32, kGuard) {}
    char* Data() { return &bytes[16]; }
    std::string Text() const { return std::string(&bytes[16]); }
    bool GuardsIntact(size_t size) const {
        for (size_t i = 0; i < 16; ++i) {
            if (static_cast<unsigned char>(bytes[i]) != kGuard) return false;
            if (static_cast<unsigned char>(bytes[16 + size + i]) != kGuard) return false;
        }
        return true;
    }
    std::vector<char> bytes;
};

size_t Offset(const CProxyMap& map, const void* field) {
    return static_cast<size_t>(static_cast<const char*>(field) - reinterpret_cast<const char*>(&map));
}

class ProxyMapTest : public dxtest::OurStringsTest {};

// ---- the record ----

TEST_F(ProxyMapTest, RecordIsFlatWithItsLinkFirstAndFieldsInOrder) {
    static_assert(!std::is_polymorphic<CProxyMap>::value, "no virtual operations");
    static_assert(std::is_trivially_copyable<CProxyMap>::value, "a flat block");
    static_assert(std::is_base_of<CListNode, CProxyMap>::value, "the record is its list node");
    EXPECT_EQ(sizeof(CMapEndpoint), 4u + 4u + 1025u + 32u + 3u);
    CProxyMap map;
    EXPECT_EQ(static_cast<void*>(static_cast<CListNode*>(&map)), static_cast<void*>(&map));
    EXPECT_EQ(Offset(map, &map.next), 0u);
    EXPECT_EQ(Offset(map, &map.UseProxy), 8u);
    EXPECT_EQ(Offset(map, &map.IsDefaultMap), 12u);
    EXPECT_EQ(Offset(map, &map.Destination), 16u);
    EXPECT_EQ(Offset(map, &map.Proxy), 16u + sizeof(CMapEndpoint));
    EXPECT_EQ(Offset(map, &map.DefaultPort), 16u + 2 * sizeof(CMapEndpoint));
    EXPECT_EQ(Offset(map, &map.ProxyUser), 16u + 2 * sizeof(CMapEndpoint) + 32u);
    EXPECT_EQ(Offset(map, &map.ProtocolVersion), 16u + 2 * sizeof(CMapEndpoint) + 32u + 512u);
    EXPECT_EQ(Offset(map, &map.BasicAuthentication), 16u + 2 * sizeof(CMapEndpoint) + 32u + 512u + 4u);
    EXPECT_EQ(sizeof map, 16u + 2 * sizeof(CMapEndpoint) + 32u + 512u + 8u);
}

TEST_F(ProxyMapTest, FreshRecordHoldsItsDefaults) {
    CProxyMap map;
    EXPECT_EQ(map.next, nullptr);
    EXPECT_EQ(map.UseProxy, 0u);
    EXPECT_EQ(map.IsDefaultMap, 0u);
    EXPECT_STREQ(map.Destination.Host, "*");
    EXPECT_STREQ(map.Destination.Port, "*");
    EXPECT_STREQ(map.Proxy.Host, "*");
    EXPECT_STREQ(map.Proxy.Port, "*");
    EXPECT_EQ(map.Destination.Address, 0u);
    EXPECT_EQ(map.Destination.Mask, 0u);
    EXPECT_EQ(map.Proxy.Address, 0u);
    EXPECT_EQ(map.Proxy.Mask, 0u);
    EXPECT_STREQ(map.DefaultPort, "");
    EXPECT_STREQ(map.ProxyUser, "");
    EXPECT_EQ(map.ProtocolVersion, 4u);
    EXPECT_EQ(map.BasicAuthentication, 0u);
    // The wildcard proxy host reads as the empty text.
    EXPECT_STREQ(map.GetProxyAddress(), "");
    EXPECT_STREQ(map.GetDestinationAddress(), "*");
}

TEST_F(ProxyMapTest, ResetToDefaultsLeavesIsDefaultMapAlone) {
    CProxyMap map;
    map.IsDefaultMap = 1;
    map.SetUseProxy(1);
    map.ProtocolVersion = 5;
    map.BasicAuthentication = 1;
    map.SetDestinationAddress("a.example");
    map.SetDestinationPort("23");
    map.SetProxyAddress("proxy.example");
    map.SetDefaultPort("1080");
    map.SetProxyUser("user");
    map.ResetToDefaults();
    EXPECT_EQ(map.IsDefaultMap, 1u);
    EXPECT_EQ(map.UseProxy, 0u);
    EXPECT_EQ(map.ProtocolVersion, 4u);
    EXPECT_EQ(map.BasicAuthentication, 0u);
    EXPECT_STREQ(map.Destination.Host, "*");
    EXPECT_STREQ(map.Destination.Port, "*");
    EXPECT_STREQ(map.Proxy.Host, "*");
    EXPECT_STREQ(map.Proxy.Port, "*");
    EXPECT_STREQ(map.DefaultPort, "");
    EXPECT_STREQ(map.ProxyUser, "");
}

// ---- setters ----

TEST_F(ProxyMapTest, WordForAnyHostInAnotherCaseStoresTheWildcard) {
    CProxyMap map;
    map.SetDestinationAddress("a.example");
    map.SetDestinationAddress("aNY HOST");
    EXPECT_STREQ(map.GetDestinationAddress(), "*");
    map.SetProxyAddress("ANY HOST");
    EXPECT_STREQ(map.Proxy.Host, "*");
    map.SetDestinationAddress("Any hosts");
    EXPECT_STREQ(map.GetDestinationAddress(), "Any hosts");
}

TEST_F(ProxyMapTest, OnlyTheFirstCharacterOfAHostIsLookedAtForTheWildcard) {
    CProxyMap map;
    map.SetProxyAddress("*.example");
    EXPECT_STREQ(map.Proxy.Host, "*");
    EXPECT_STREQ(map.GetProxyAddress(), "");
    map.SetProxyAddress("10.*.*.*");
    EXPECT_STREQ(map.GetProxyAddress(), "10.*.*.*");
}

TEST_F(ProxyMapTest, PortSettersStoreTheWildcardForTextWithoutADigit) {
    CProxyMap map;
    map.SetProxyPort("1080");
    map.SetProxyPort("");
    EXPECT_STREQ(map.GetProxyPort(), "*");
    map.SetProxyPort("http");
    EXPECT_STREQ(map.GetProxyPort(), "*");
    map.SetProxyPort("8a");
    EXPECT_STREQ(map.GetProxyPort(), "8a");
    EXPECT_EQ(map.GetProxyPortNumber(), 8);
    // Kept: a digit anywhere will do.
    map.SetDestinationPort("abc1");
    EXPECT_STREQ(map.GetDestinationPort(), "abc1");
    EXPECT_EQ(map.GetDestinationPortNumber(nullptr), 1);
    map.SetDestinationPort("abc");
    EXPECT_STREQ(map.GetDestinationPort(), "*");
}

TEST_F(ProxyMapTest, APortWhoseOnlyDigitLiesPastTheThirtyKeptIsTheWildcard) {
    CProxyMap map;
    std::string port = std::string(34, 'p') + "5" + std::string(5, 'q');
    ASSERT_EQ(port.size(), 40u);
    map.SetDestinationPort(port.c_str());
    EXPECT_STREQ(map.GetDestinationPort(), "*");
    map.SetProxyPort(port.c_str());
    EXPECT_STREQ(map.GetProxyPort(), "*");
}

TEST_F(ProxyMapTest, HostOf1024CharactersIsStoredAsItsFirst1023) {
    CProxyMap map;
    std::string host(1024, 'h');
    map.SetDestinationAddress(host.c_str());
    EXPECT_EQ(std::string(map.GetDestinationAddress()), host.substr(0, 1023));
    map.SetProxyAddress(host.c_str());
    EXPECT_EQ(std::string(map.GetProxyAddress()), host.substr(0, 1023));
}

TEST_F(ProxyMapTest, UserOf600CharactersIsStoredAsItsFirst510) {
    CProxyMap map;
    std::string user(600, 'u');
    map.SetProxyUser(user.c_str());
    EXPECT_EQ(std::string(map.GetProxyUser()), user.substr(0, 510));
    map.SetProxyUser("");
    EXPECT_STREQ(map.GetProxyUser(), "");
}

TEST_F(ProxyMapTest, DefaultPortIsCopiedAndAppliedToTheProxyPort) {
    CProxyMap map;
    map.SetDefaultPort("1080");
    EXPECT_STREQ(map.DefaultPort, "1080");
    EXPECT_STREQ(map.GetProxyPort(), "1080");
    map.SetDefaultPort("none");
    EXPECT_STREQ(map.DefaultPort, "none");
    EXPECT_STREQ(map.GetProxyPort(), "*");
    std::string longPort(40, '7');
    map.SetDefaultPort(longPort.c_str());
    EXPECT_EQ(std::string(map.DefaultPort), std::string(30, '7'));
    EXPECT_EQ(std::string(map.GetProxyPort()), std::string(30, '7'));
}

TEST_F(ProxyMapTest, SettingAHostClearsItsAddressButNotItsMask) {
    CProxyMap map;
    map.Destination.Address = 0x01020304;
    map.Destination.Mask = 0x000000FF;
    map.Proxy.Address = 0x05060708;
    map.SetDestinationAddress("a.example");
    EXPECT_EQ(map.Destination.Address, 0u);
    EXPECT_EQ(map.Destination.Mask, 0x000000FFu);
    EXPECT_EQ(map.Proxy.Address, 0x05060708u);
    map.SetDestinationPort("23");
    map.SetProxyPort("23");
    EXPECT_EQ(map.Proxy.Address, 0x05060708u);
}

TEST_F(ProxyMapTest, NullAndOverlongTextsToEverySetterStayInsideTheirFields) {
    CProxyMap map;
    const std::string huge(2000, 'z');
    const std::string hugeDigits(2000, '9');
    // A copy of the record before each set, to see that nothing beyond the field set changes.
    map.SetDestinationAddress(nullptr);
    map.SetProxyAddress(nullptr);
    map.SetDestinationPort(nullptr);
    map.SetProxyPort(nullptr);
    map.SetDefaultPort(nullptr);
    map.SetProxyUser(nullptr);
    EXPECT_STREQ(map.Destination.Host, "*");
    EXPECT_STREQ(map.Proxy.Host, "*");
    EXPECT_STREQ(map.Destination.Port, "*");
    EXPECT_STREQ(map.Proxy.Port, "*");
    EXPECT_STREQ(map.DefaultPort, "");
    EXPECT_STREQ(map.ProxyUser, "");

    map.SetUseProxy(1);
    map.ProtocolVersion = 5;
    map.BasicAuthentication = 1;
    map.IsDefaultMap = 1;
    map.SetDestinationAddress(huge.c_str());
    map.SetProxyAddress(huge.c_str());
    map.SetDestinationPort(hugeDigits.c_str());
    map.SetProxyPort(hugeDigits.c_str());
    map.SetDefaultPort(hugeDigits.c_str());
    map.SetProxyUser(huge.c_str());
    EXPECT_EQ(std::string(map.Destination.Host), huge.substr(0, 1023));
    EXPECT_EQ(std::string(map.Proxy.Host), huge.substr(0, 1023));
    EXPECT_EQ(std::string(map.Destination.Port), hugeDigits.substr(0, 30));
    EXPECT_EQ(std::string(map.Proxy.Port), hugeDigits.substr(0, 30));
    EXPECT_EQ(std::string(map.DefaultPort), hugeDigits.substr(0, 30));
    EXPECT_EQ(std::string(map.ProxyUser), huge.substr(0, 510));
    // Every last byte stays zero, and the neighbours of each field are as they were set.
    EXPECT_EQ(map.Destination.Host[1024], '\0');
    EXPECT_EQ(map.Proxy.Host[1024], '\0');
    EXPECT_EQ(map.Destination.Port[31], '\0');
    EXPECT_EQ(map.DefaultPort[31], '\0');
    EXPECT_EQ(map.ProxyUser[511], '\0');
    EXPECT_EQ(map.UseProxy, 1u);
    EXPECT_EQ(map.IsDefaultMap, 1u);
    EXPECT_EQ(map.ProtocolVersion, 5u);
    EXPECT_EQ(map.BasicAuthentication, 1u);
    EXPECT_EQ(map.Destination.Address, 0u);
    EXPECT_EQ(map.next, nullptr);
}

// ---- numbers ----

TEST_F(ProxyMapTest, PortNumbersHaveNoRangeUntilTheAddressRecordCutsThem) {
    CProxyMap map;
    map.SetProxyAddress("10.0.0.1");
    struct Case {
        const char* port;
        int number;
        uint16_t recordPort;
    };
    const Case cases[] = {{"1080", 1080, 1080}, {"70000", 70000, 4464}, {"99999999999", INT_MAX, 65535}, {"0", 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.port);
        map.SetProxyPort(c.port);
        EXPECT_EQ(map.GetProxyPortNumber(), c.number);
        sockaddr_in address = {};
        EXPECT_EQ(map.GetProxySockAddr(&address), 1);
        EXPECT_EQ(address.sin_family, AF_INET);
        EXPECT_EQ(address.sin_addr.s_addr, inet_addr("10.0.0.1"));
        EXPECT_EQ(ntohs(address.sin_port), c.recordPort);
    }
    uint32_t mask = 1;
    map.SetDestinationPort("*");
    EXPECT_EQ(map.GetDestinationPortNumber(&mask), 0);
    EXPECT_EQ(mask, 0u);
    map.SetDestinationPort("1080");
    EXPECT_EQ(map.GetDestinationPortNumber(&mask), 1080);
    EXPECT_EQ(mask, 65535u);
}

// ---- the proxy's address ----

class ProxyMapResolveTest : public ProxyMapTest {};

TEST_F(ProxyMapResolveTest, SecondCallTakesTheCacheAndSettingTheHostResolvesAgain) {
    CProxyMap map;
    map.SetProxyAddress("localhost");
    EXPECT_EQ(map.GetProxyAddressNumber(), inet_addr("127.0.0.1"));
    // A marker in the cache comes back: no second look-up.
    map.Proxy.Address = 0x0A0B0C0D;
    EXPECT_EQ(map.GetProxyAddressNumber(), 0x0A0B0C0Du);
    // A port set after the resolve leaves the cache in force.
    map.SetProxyPort("3128");
    EXPECT_EQ(map.GetProxyAddressNumber(), 0x0A0B0C0Du);
    // A host set anew is resolved anew: an unresolvable one fails and says so at once.
    dxtest::LogCapture capture;
    map.SetProxyAddress("gone.invalid");
    EXPECT_EQ(map.GetProxyAddressNumber(), 0u);
    EXPECT_EQ(capture.Lines(), (Lines{dxtest::UnresolvedReport("gone.invalid"), Line("WinSock Error = 11001")}));
}

TEST_F(ProxyMapResolveTest, UnresolvableNameIsReportedOnEveryCallWithItsErrorLeftSet) {
    CProxyMap map;
    map.SetProxyAddress("nowhere.invalid");
    dxtest::LogCapture capture;
    for (int call = 0; call < 3; ++call) {
        WSASetLastError(0);
        EXPECT_EQ(map.GetProxyAddressNumber(), 0u);
        EXPECT_EQ(WSAGetLastError(), kHostNotFound);
        EXPECT_EQ(map.Proxy.Address, 0u);
    }
    Lines once = {dxtest::UnresolvedReport("nowhere.invalid"), Line("WinSock Error = 11001")};
    EXPECT_EQ(capture.Lines(), dxtest::Joined({once, once, once}));
}

TEST_F(ProxyMapResolveTest, ZeroAddressIsParsedAnewEachCallWithoutALookUpOrReport) {
    CProxyMap map;
    map.SetProxyAddress("0.0.0.0");
    dxtest::LogCapture capture;
    WSASetLastError(4711);
    EXPECT_EQ(map.GetProxyAddressNumber(), 0u);
    EXPECT_EQ(map.GetProxyAddressNumber(), 0u);
    EXPECT_EQ(WSAGetLastError(), 4711);
    EXPECT_TRUE(capture.Lines().empty());
    sockaddr_in address;
    std::memset(&address, 0x5A, sizeof address);
    EXPECT_EQ(map.GetProxySockAddr(&address), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, 0u);
    EXPECT_EQ(address.sin_port, 0x5A5A);
}

TEST_F(ProxyMapResolveTest, FailingSockAddrLeavesThePortAlone) {
    CProxyMap map;
    map.SetProxyAddress("failing.invalid");
    map.SetProxyPort("1080");
    sockaddr_in address;
    std::memset(&address, 0x5A, sizeof address);
    dxtest::LogCapture capture;
    EXPECT_EQ(map.GetProxySockAddr(&address), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, 0u);
    EXPECT_EQ(address.sin_port, 0x5A5A);
    for (unsigned char byte : address.sin_zero) EXPECT_EQ(byte, 0x5A);
    EXPECT_EQ(capture.Lines().size(), 2u);
    EXPECT_EQ(map.GetProxySockAddr(nullptr), 0);
}

TEST_F(ProxyMapResolveTest, WildcardHostProbesAsOnesWithoutALookUp) {
    CProxyMap map;
    dxtest::LogCapture capture;
    EXPECT_STREQ(map.Proxy.Host, "*");
    EXPECT_EQ(map.GetProxyAddressNumber(), inet_addr("1.1.1.1"));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ProxyMapResolveTest, MasksOfAWildcardAddressANameAndAFailure) {
    CMapEndpoint endpoint = {};
    CopyText(endpoint.Host, "10.*.*.*");
    uint32_t mask = 1;
    EXPECT_EQ(CProxyMap::ResolveAddress(endpoint, &mask), inet_addr("10.1.1.1"));
    EXPECT_EQ(mask, inet_addr("255.0.0.0"));
    EXPECT_EQ(endpoint.Mask, inet_addr("255.0.0.0"));
    // From the cache, the mask with it.
    mask = 1;
    EXPECT_EQ(CProxyMap::ResolveAddress(endpoint, &mask), inet_addr("10.1.1.1"));
    EXPECT_EQ(mask, inet_addr("255.0.0.0"));

    CMapEndpoint name = {};
    CopyText(name.Host, "localhost");
    mask = 1;
    EXPECT_EQ(CProxyMap::ResolveAddress(name, &mask), inet_addr("127.0.0.1"));
    EXPECT_EQ(mask, 0xFFFFFFFFu);
    EXPECT_EQ(name.Mask, 0xFFFFFFFFu);

    CMapEndpoint failure = {};
    CopyText(failure.Host, "masked.invalid");
    failure.Mask = 0x12345678;
    mask = 1;
    dxtest::LogCapture capture;
    EXPECT_EQ(CProxyMap::ResolveAddress(failure, &mask), 0u);
    EXPECT_EQ(mask, 0u);
    EXPECT_EQ(failure.Mask, 0u);
    EXPECT_EQ(failure.Address, 0u);
    EXPECT_EQ(capture.Lines(), (Lines{dxtest::UnresolvedReport("masked.invalid"), Line("WinSock Error = 11001")}));
}

// The host's callback changes the WinSock error on every line it gets.
struct ErrorChangingLog {
    ErrorChangingLog() { SOCKS_SetLoggingCallbackEx(this, &ErrorChangingLog::Collect); }
    ~ErrorChangingLog() { SOCKS_SetLoggingCallbackEx(nullptr, nullptr); }
    static void Collect(void* context, const char* text) {
        auto* self = static_cast<ErrorChangingLog*>(context);
        std::lock_guard<std::mutex> hold(self->mutex);
        self->lines.emplace_back(text);
        WSASetLastError(10000 + static_cast<int>(self->lines.size()));
        SetLastError(ERROR_ACCESS_DENIED);
    }
    std::mutex mutex;
    Lines lines;
};

TEST_F(ProxyMapResolveTest, ErrorOfTheLookUpIsLoggedAndLeftWhateverTheCallbackDoes) {
    CProxyMap map;
    map.SetProxyAddress("changing.invalid");
    ErrorChangingLog log;
    EXPECT_EQ(map.GetProxyAddressNumber(), 0u);
    EXPECT_EQ(WSAGetLastError(), kHostNotFound);
    EXPECT_EQ(log.lines, (Lines{dxtest::UnresolvedReport("changing.invalid"), Line("WinSock Error = 11001")}));
}

TEST_F(ProxyMapResolveTest, ConversionsInTheHostTextReachTheLogAsText) {
    CProxyMap map;
    map.SetProxyAddress("bad%s%n.invalid");
    dxtest::LogCapture capture;
    EXPECT_EQ(map.GetProxyAddressNumber(), 0u);
    // The report is formatted once with the host, then once more without arguments.
    EXPECT_EQ(capture.Lines(), (Lines{dxtest::UnresolvedReport("bad(null).invalid"), Line("WinSock Error = 11001")}));
}

// ---- texts for the dialogs ----

class ProxyMapTextTest : public ProxyMapTest {
protected:
    // `get` into a guarded buffer of `size`; the text, with the guards checked.
    template <typename Get>
    std::string Guarded(int size, Get get) {
        GuardedBuffer buffer(static_cast<size_t>(size));
        get(buffer.Data(), size);
        EXPECT_TRUE(buffer.GuardsIntact(static_cast<size_t>(size)));
        return buffer.Text();
    }
    std::string DestinationAddressText(const CProxyMap& map, int size) {
        return Guarded(size, [&](char* b, int s) { map.GetDestinationAddressText(b, s); });
    }
    std::string DestinationPortText(const CProxyMap& map, int size) {
        return Guarded(size, [&](char* b, int s) { map.GetDestinationPortText(b, s); });
    }
    std::string DestinationText(const CProxyMap& map) {
        return Guarded(static_cast<int>(kDestinationTextSize), [&](char* b, int) { map.GetDestinationText(b); });
    }
    std::string ProxyText(const CProxyMap& map, int size) {
        return Guarded(size, [&](char* b, int s) { map.GetProxyText(b, s); });
    }
};

TEST_F(ProxyMapTextTest, WildcardsShowAsTheWordsForAnyHostAndAnyPort) {
    CProxyMap map;
    EXPECT_EQ(DestinationAddressText(map, 64), dxtest::kAnyHostWord);
    EXPECT_EQ(DestinationPortText(map, 64), dxtest::kAnyPortWord);
    EXPECT_EQ(DestinationText(map), dxtest::HostPort(dxtest::kAnyHostWord, dxtest::kAnyPortWord));
    // Loaded with the caller's size.
    EXPECT_EQ(DestinationAddressText(map, 4), "Any");
    EXPECT_EQ(DestinationPortText(map, 2), "A");
    map.SetDestinationAddress("a.example");
    map.SetDestinationPort("23");
    EXPECT_EQ(DestinationAddressText(map, 64), "a.example");
    EXPECT_EQ(DestinationAddressText(map, 5), "a.ex");
    EXPECT_EQ(DestinationPortText(map, 64), "23");
    EXPECT_EQ(DestinationText(map), "a.example:23");
}

TEST_F(ProxyMapTextTest, ProxyTextShowsDirectHostAloneOrHostAndPort) {
    CProxyMap map;
    map.SetDefaultPort("1080");
    map.SetProxyAddress("proxy.example");
    // UseProxy 0: the word for no proxy, whatever else is set.
    EXPECT_EQ(ProxyText(map, 64), dxtest::kDirectWord);
    map.SetProxyPort("3128");
    EXPECT_EQ(ProxyText(map, 64), dxtest::kDirectWord);
    map.SetUseProxy(1);
    EXPECT_EQ(ProxyText(map, 64), "proxy.example:3128");
    map.SetProxyPort("1080");
    EXPECT_EQ(ProxyText(map, 64), "proxy.example");
    // The comparison with the default port is exact text: "01080" is another port.
    map.SetProxyPort("01080");
    EXPECT_EQ(ProxyText(map, 64), "proxy.example:01080");
    map.SetProxyAddress("*");
    map.SetProxyPort("1080");
    EXPECT_EQ(ProxyText(map, 64), dxtest::kAnyHostWord);
    map.SetProxyPort("3128");
    EXPECT_EQ(ProxyText(map, 64), dxtest::HostPort(dxtest::kAnyHostWord, "3128"));
}

TEST_F(ProxyMapTextTest, ProxyTextIsCutToTheCallersSize) {
    CProxyMap map;
    map.SetDefaultPort("1080");
    map.SetUseProxy(1);
    map.SetProxyAddress("proxy.example.com");
    const std::string alone = "proxy.example.com";
    const std::string joined = "proxy.example.com:3128";
    for (int size : {64, 8, 1}) {
        SCOPED_TRACE(size);
        map.SetProxyPort("1080");
        EXPECT_EQ(ProxyText(map, size), alone.substr(0, static_cast<size_t>(size - 1)));
        map.SetProxyPort("3128");
        EXPECT_EQ(ProxyText(map, size), joined.substr(0, static_cast<size_t>(size - 1)));
    }
    map.SetUseProxy(0);
    EXPECT_EQ(ProxyText(map, 8), std::string(dxtest::kDirectWord).substr(0, 7));
}

TEST_F(ProxyMapTextTest, LongestFieldsInEveryGetterStayInsideTheBuffers) {
    CProxyMap map;
    const std::string host(1023, 'h');
    const std::string user(600, 'u');
    const std::string port = std::string(39, '4') + "x";
    map.SetDestinationAddress(host.c_str());
    map.SetDestinationPort(port.c_str());
    map.SetProxyAddress(host.c_str());
    map.SetProxyPort(port.c_str());
    map.SetProxyUser(user.c_str());
    map.SetUseProxy(1);
    EXPECT_EQ(std::string(map.GetDestinationAddress()), host);
    EXPECT_EQ(std::string(map.GetProxyAddress()), host);
    EXPECT_EQ(std::string(map.GetDestinationPort()), port.substr(0, 30));
    EXPECT_EQ(std::string(map.GetProxyPort()), port.substr(0, 30));
    EXPECT_EQ(std::string(map.GetProxyUser()), user.substr(0, 510));
    EXPECT_EQ(map.GetProxyPortNumber(), INT_MAX);
    EXPECT_EQ(DestinationAddressText(map, 1025), host);
    EXPECT_EQ(DestinationAddressText(map, 64), host.substr(0, 63));
    EXPECT_EQ(DestinationPortText(map, 32), port.substr(0, 30));
    EXPECT_EQ(DestinationPortText(map, 16), port.substr(0, 15));
    EXPECT_EQ(DestinationText(map), host.substr(0, 127));
    EXPECT_EQ(ProxyText(map, 64), host.substr(0, 63));
    EXPECT_EQ(ProxyText(map, 1025), host);
    // wsprintfA writes at most 1024 bytes with the terminator: the joined text stops inside it.
    EXPECT_EQ(ProxyText(map, 2000), (host + ":" + port.substr(0, 30)).substr(0, 1023));
    map.SetProxyAddress(host.substr(0, 1000).c_str());
    EXPECT_EQ(ProxyText(map, 2000), host.substr(0, 1000) + ":" + port.substr(0, 22));
}

TEST_F(ProxyMapTextTest, NullBuffersAndSizeZeroGetNothing) {
    CProxyMap map;
    map.SetUseProxy(1);
    map.GetDestinationAddressText(nullptr, 64);
    map.GetDestinationPortText(nullptr, 64);
    map.GetDestinationText(nullptr);
    map.GetProxyText(nullptr, 64);
    for (int size : {0, -1}) {
        SCOPED_TRACE(size);
        GuardedBuffer buffer(0);
        map.GetDestinationAddressText(buffer.Data(), size);
        map.GetDestinationPortText(buffer.Data(), size);
        map.GetProxyText(buffer.Data(), size);
        map.SetUseProxy(0);
        map.GetProxyText(buffer.Data(), size);
        map.SetUseProxy(1);
        EXPECT_TRUE(buffer.GuardsIntact(0));
    }
}

}  // namespace
