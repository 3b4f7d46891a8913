#include "determination.h"

#include "config_sets.h"
#include "determination_copies.h"
#include "export_frame.h"
#include "lifecycle.h"
#include "log.h"
#include "resolver.h"
#include "result_codes.h"
#include "suite_library.h"

int32_t g_socksBusy = 0;
int32_t g_httpBusy = 0;
int32_t g_socksShimsFound = 0;
int32_t g_httpShimsFound = 0;

// What tells the two families' determinations apart; the set's operations reach the family's own
// global, which a migration of the other family may have replaced meanwhile.
struct DeterminationFamily {
    const char* exportName;
    int32_t* busy;
    int32_t* shimsFound;
    const ShimFamily* shims;
    DWORD promptFamily;  // the last argument of the first-use prompt
    bool basicFlag;      // the seventh argument is HTTP's Basic flag, not SOCKS's version
    void (*readSet)();   // the settings file again, or the set made
    int (*readSettingsFile)();
    int (*migrationState)();
    void (*writeConfiguration)();
    bool (*hasMaps)();
    CProxyMap* (*pickProxy)(const char* host, unsigned port);
};

namespace {

template <typename Config>
Config*& SetOf();
template <>
CSocksConfig*& SetOf<CSocksConfig>() {
    return g_pSocksConfig;
}
template <>
CHttpConfig*& SetOf<CHttpConfig>() {
    return g_pHttpConfig;
}

template <typename Config>
void ReadSet() {
    Config*& set = SetOf<Config>();
    // Another process may have written the file since: its maps apply to this connection. The answer
    // is not looked at.
    if (set != nullptr) {
        set->ReadSettingsFile();
    } else {
        set = new Config();
    }
}
template <typename Config>
int ReadSettingsFileOf() {
    return SetOf<Config>()->ReadSettingsFile();
}
template <typename Config>
int MigrationStateOf() {
    return SetOf<Config>()->MigrationState;
}
template <typename Config>
void WriteConfigurationOf() {
    SetOf<Config>()->WriteConfiguration();
}
template <typename Config>
bool HasMapsOf() {
    return SetOf<Config>()->First() != nullptr;
}
template <typename Config>
CProxyMap* PickProxyOf(const char* host, unsigned port) {
    return SetOf<Config>()->PickProxy(host, port);
}

// Holds the family's busy flag from the wait to every return, an exception's too, so that the next
// determination is not left spinning.
class BusyFlag {
public:
    explicit BusyFlag(int32_t* flag) : flag_(flag) {
        // The waiter serves its own queue: a prompt open on this thread goes on while a nested call spins.
        // The test and set is one step, so two threads cannot both pass into the set's re-read.
        while (InterlockedCompareExchange(reinterpret_cast<volatile LONG*>(flag_), 1, 0) != 0) PumpOneMessage();
    }
    ~BusyFlag() { *flag_ = 0; }
    BusyFlag(const BusyFlag&) = delete;
    BusyFlag& operator=(const BusyFlag&) = delete;

private:
    int32_t* flag_;
};

// The UI library's first-use prompt, as the password prompt is asked: 1 when the user configured and
// saved a proxy; 2 when the library or its export is missing.
DWORD AskConfigurationPrompt(DWORD family) {
    CPXMMSI suite(g_hModule, nullptr);
    HWND owner = TopLevelParent(g_hParentWindow);
    DWORD language = suite.getLangID();
    auto prompt = GetSetUIEntry<PFN_PXMSETUIDLL_DxsocksConfig>("PXMSETUIDLL_DxsocksConfig");
    return prompt != nullptr ? prompt(language, owner, 1, 0, family) : 2;
}

}  // namespace

const DeterminationFamily kSocksDetermination = {
    "SOCKS_DetermineProxyEx",         &g_socksBusy,                 &g_socksShimsFound,
    &kSocksShims,                     0,                            false,
    ReadSet<CSocksConfig>,            ReadSettingsFileOf<CSocksConfig>, MigrationStateOf<CSocksConfig>,
    WriteConfigurationOf<CSocksConfig>, HasMapsOf<CSocksConfig>,    PickProxyOf<CSocksConfig>,
};

const DeterminationFamily kHttpDetermination = {
    "HTTP_DetermineProxyEx",         &g_httpBusy,                 &g_httpShimsFound,
    &kHttpShims,                     1,                           true,
    ReadSet<CHttpConfig>,            ReadSettingsFileOf<CHttpConfig>, MigrationStateOf<CHttpConfig>,
    WriteConfigurationOf<CHttpConfig>, HasMapsOf<CHttpConfig>,    PickProxyOf<CHttpConfig>,
};

int DetermineProxyEx(const DeterminationFamily& family, const char* host, unsigned port, sockaddr_in* proxy,
                     int proxySize, char* userId, int userIdSize, unsigned* extra, int* addressFamily) {
    BusyFlag busy(family.busy);
    // Reading the file, the registry and the suite library moves the thread's last error, which is
    // the WinSock error too; the host is to find it as it stood, unless a step below says otherwise.
    const int standing = WSAGetLastError();
    ExportLog log(family.exportName);
    SOCKS_LogString("Begin host:port %s:%d", host, static_cast<int>(port));
    // A warning only, given once per family and process; the determination goes on either way.
    if (*family.shimsFound == 0 && DetectShims(*family.shims, 1, nullptr) != 0) *family.shimsFound = 1;
    family.readSet();
    if (family.migrationState() == 1) family.writeConfiguration();
    if (!family.hasMaps()) {
        g_configPromptTimedOut = 0;
        g_configPromptActive = 1;
        DWORD answer = AskConfigurationPrompt(family.promptFamily);
        if (answer != 1) {
            WSASetLastError(dxcode::kCancelled);
            g_configPromptActive = 0;
            return 0;
        }
        g_configPromptActive = 0;
        // Saved, yet not to be read back: the WinSock error stays as it stood.
        if (family.readSettingsFile() == 0) {
            WSASetLastError(standing);
            return 0;
        }
    }
    CProxyMap* map = family.pickProxy(host, port);

    // The spec forbids a null family or HTTP flag; they go to locals here rather than crash.
    unsigned localExtra = 0;
    int localFamily = 0;
    if (family.basicFlag && extra == nullptr) extra = &localExtra;
    if (addressFamily == nullptr) addressFamily = &localFamily;

    // Built here and copied out, so that a short buffer of the host takes only what it holds.
    sockaddr_in address = {};
    ClearOut(proxy, proxySize);
    ClearTextOut(userId, userIdSize);
    if (family.basicFlag) *extra = 0;
    if (*addressFamily != AF_INET) *addressFamily = AF_INET;
    if (family.basicFlag) *extra = 0;

    // A proxy host of one character does not count: "*" reads as empty, a single letter is no name.
    int result = 0;
    bool lookUpFailed = false;
    if (map != nullptr && map->GetUseProxy() != 0 && lstrlenA(map->GetProxyAddress()) > 1) {
        // A name that does not resolve leaves the record as far as the look-up wrote it, and its code.
        int resolved = map->GetProxySockAddr(&address);
        lookUpFailed = resolved == 0;
        CopyOut(proxy, proxySize, &address, sizeof address);
        if (resolved != 0) {
            if (family.basicFlag) *extra = map->BasicAuthentication;
            CopyTextOut(userId, userIdSize, map->GetProxyUser());
            if (!family.basicFlag && extra != nullptr) *extra = map->ProtocolVersion;
            result = 1;
        }
    }
    if (!lookUpFailed) WSASetLastError(standing);
    LogAddress("End addr %s:%d", reinterpret_cast<const sockaddr*>(&address));
    if (!family.basicFlag) SOCKS_LogString(" User ID = %s", userId != nullptr && userIdSize > 0 ? userId : "");
    log.End(result);
    return result;
}

int DetermineProxyByAddress(const DeterminationFamily& family, const sockaddr* destination, int destinationLength,
                            sockaddr_in* proxy, int proxySize, char* userId, int userIdSize, unsigned* extra) {
    char text[1025] = {};
    unsigned port = 0;
    if (destination != nullptr) {
        AddressToNumericText(destination, destinationLength, text, sizeof text);
        port = PortOfRecord(destination, destinationLength);
    }
    unsigned version = 0;
    int addressFamily = 0;
    // SOCKS throws its version away; HTTP hands its flag on.
    return DetermineProxyEx(family, text, port, proxy, proxySize, userId, userIdSize,
                            family.basicFlag ? extra : &version, &addressFamily);
}

int UseAddressFamily(const DeterminationFamily& family, const char* exportName, const char* host, unsigned port,
                     int* addressFamily) {
    int localFamily = 0;
    if (addressFamily == nullptr) addressFamily = &localFamily;
    ExportLog log(exportName);
    SOCKS_LogString("Begin host:port %s:%d", host, static_cast<int>(port));
    SOCKS_LogString("Requesting address family %d", *addressFamily);
    // Only the two answers count: is there a proxy, and which family.
    sockaddr_in address = {};
    char user[512] = {};
    unsigned flag = 0;
    int result = DetermineProxyEx(family, host, port, &address, sizeof address, user, sizeof user, &flag,
                                  addressFamily);
    SOCKS_LogString("End host:port %s:%d", host, static_cast<int>(port));
    SOCKS_LogString("Address family found %d", *addressFamily);
    log.End(result);
    return result;
}
