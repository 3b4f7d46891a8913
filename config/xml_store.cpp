#include "xml_store.h"

#include <cwchar>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "bounded_text.h"
#include "config_api.h"
#include "config_number.h"
#include "config_sets.h"
#include "log.h"
#include "registry_store.h"
#include "settings_file.h"

namespace {

const MapStoreFamily kSocksStore = {L"SOCKS", "Reading SOCKS proxy configuration from XML.",
                                                CSocksConfig::NewMap};
const MapStoreFamily kHttpStore = {L"HTTP", "Reading HTTP proxy configuration from XML.",
                                               CHttpConfig::NewMap};

const char kWriteLine[] = "Writing configuration to settings file.";

// What a family's maps read as in the document parsed last, while it stays unchanged: each
// determination reads the same file again, and its set is rebuilt from this instead of from another
// walk of the document. Shared by the threads that read, so only looked at and replaced under the
// lock; a snapshot in use stays whole, since it is never changed after it was made.
struct KeptSnapshot {
    uint64_t serial = 0;
    std::shared_ptr<CMapSnapshot> snapshot;
};
std::mutex g_snapshotLock;
KeptSnapshot g_snapshots[2];

KeptSnapshot& KeptFor(const MapStoreFamily& family) {
    return g_snapshots[std::wcscmp(family.type, L"SOCKS") == 0 ? 0 : 1];
}

// The family's answers for the document, unchanged since it was parsed as `serial`.
std::shared_ptr<CMapSnapshot> SnapshotOf(const MapStoreFamily& family, uint64_t serial) {
    {
        std::lock_guard<std::mutex> hold(g_snapshotLock);
        const KeptSnapshot& kept = KeptFor(family);
        if (kept.serial == serial && kept.snapshot != nullptr) return kept.snapshot;
    }
    // Made outside the lock: the walk may take a while, and what it raises leaves nothing kept.
    CMapIndex index(SettingsDocument, family.type);
    auto snapshot = std::make_shared<CMapSnapshot>(index);
    // A change of the document meanwhile would make it a mixture: then it serves this read alone.
    if (UnchangedDocumentSerial(SettingsDocument) == serial) {
        std::lock_guard<std::mutex> hold(g_snapshotLock);
        KeptSnapshot& kept = KeptFor(family);
        kept.serial = serial;
        kept.snapshot = snapshot;
    }
    return snapshot;
}

// A flag of the record as the file keeps it: any value but 0 is "1".
const char* FlagText(uint32_t value) { return value != 0 ? "1" : "0"; }

// The numbers of a map's elements, as stoi reads them.
uint32_t NumberOf(const std::string& text) { return static_cast<uint32_t>(ConvertConfigNumber(text.c_str())); }

// SettingsDocument, made new when there is none; null when that fails too.
CPXMSettings* DocumentToWrite() {
    if (SettingsDocument == nullptr) SettingsDocument = CreateSettings(nullptr);
    return SettingsDocument;
}

// The end of a write: the document into the file, then, once written, the other family's state and,
// after a set read from the registry, both trees.
void WriteFileAndFinish(CProxyMapSet& self, CProxyMapSet* other) {
    // No document left (a corrupt file re-read by the other family's set): nothing to write, as a
    // failed write.
    if (SettingsDocument == nullptr) return;
    std::wstring text;
    SettingsDocument->GetXml(text);
    if (WriteSettingsFile(text) != 1) return;
    // The other set may be unmade when a bad number in its part of the file stopped it at load.
    if (other != nullptr) other->MigrationState = 0;
    if (self.MigrationState == 1) {
        DeleteFamilyTree("SOCKS");
        DeleteFamilyTree("HTTP");
        self.MigrationState = 0;
    }
}

}  // namespace

int GetMapCount(CMapStore& store) {
    std::string text;
    if (store.GetCountText(text) != S_OK) return -1;
    return ConvertConfigNumber(text.c_str());
}

void FormatMapId(wchar_t (&id)[16], int32_t number) { CopyText(id, std::to_wstring(number).c_str()); }

int CProxyMap::ReadMapFromXml(CMapStore& store, const wchar_t* id, int isDefault) {
    if (store.Document() == nullptr) return 0;
    // One text for every read, so an element without `value` hands on the one read before it.
    std::string text;
    if (isDefault != 0) {
        SetDestinationAddress("*");
        SetDestinationPort("*");
        IsDefaultMap = 1;
    } else if (store.GetValue(id, L"DestinationAddress", text) == S_OK) {
        SetDestinationAddress(text.c_str());
        if (store.GetValue(id, L"DestinationPort", text) == S_OK) SetDestinationPort(text.c_str());
    }
    // A chain: a missing element keeps the defaults of all that stand behind it.
    if (store.GetValue(id, L"ProxyAddress", text) != S_OK) return 1;
    SetProxyAddress(text.c_str());
    if (store.GetValue(id, L"ProxyPort", text) != S_OK) return 1;
    SetProxyPort(text.c_str());
    if (store.GetValue(id, L"ProxyUser", text) != S_OK) return 1;
    SetProxyUser(text.c_str());
    if (store.GetValue(id, L"ProtocolVersion", text) != S_OK) return 1;
    if (!text.empty()) ProtocolVersion = NumberOf(text);
    if (store.GetValue(id, L"BasicAuthentication", text) != S_OK) return 1;
    // Kept: an empty text raises here and for UseProxy, unlike the version's above.
    BasicAuthentication = NumberOf(text) != 0 ? 1 : 0;
    if (store.GetValue(id, L"UseProxy", text) != S_OK) return 1;
    SetUseProxy(NumberOf(text) != 0 ? 1 : 0);
    return 1;
}

int CProxyMap::WriteMapToXml(CMapStore& store, const wchar_t* id) {
    if (store.Document() == nullptr) return 0;
    if (std::wcscmp(id, L"Default") != 0) {
        store.SetValue(id, L"DestinationAddress", GetDestinationAddress());
        store.SetValue(id, L"DestinationPort", GetDestinationPort());
    }
    const std::string version = std::to_string(static_cast<int32_t>(ProtocolVersion));
    store.SetValue(id, L"BasicAuthentication", FlagText(BasicAuthentication));
    store.SetValue(id, L"ProtocolVersion", version.c_str());
    store.SetValue(id, L"ProxyAddress", GetProxyAddress());
    store.SetValue(id, L"ProxyPort", GetProxyPort());
    store.SetValue(id, L"ProxyUser", GetProxyUser());
    store.SetValue(id, L"UseProxy", FlagText(GetUseProxy()));
    return 1;
}

int CProxyMapSet::ReadMapsFromXml(const MapStoreFamily& family, CMapStore* store) {
    SOCKS_LogString(family.readXmlLine);
    Clear();
    if (SettingsDocument == nullptr) return 0;
    std::unique_ptr<CMapStore> index;
    std::shared_ptr<CMapSnapshot> snapshot;
    if (store == nullptr) {
        const uint64_t serial = UnchangedDocumentSerial(SettingsDocument);
        if (serial != 0) {
            snapshot = SnapshotOf(family, serial);
            store = snapshot.get();
        } else {
            index.reset(new CMapIndex(SettingsDocument, family.type));
            store = index.get();
        }
    }
    int count = GetMapCount(*store);
    // No Maps of this family, or a negative count: read all the same, and empty.
    if (count < 0) return 1;
    for (int64_t i = 0; i <= count; ++i) {
        std::unique_ptr<CProxyMap> map(family.newMap());
        wchar_t id[16];
        if (i < count) {
            FormatMapId(id, static_cast<int32_t>(i + 1));
        } else {
            CopyText(id, L"Default");
        }
        // What a bad number raises leaves with the record in hand; the list keeps the maps before it.
        if (map->ReadMapFromXml(*store, id, i == count ? 1 : 0) == 0) {
            LogMessage(0, "Unable to parse XML.");
            return 1;
        }
        Append(map.release());
    }
    return 1;
}

int CProxyMapSet::WriteMapsToXml(const MapStoreFamily& family, CMapStore* store) {
    if (head == nullptr) return 1;
    std::unique_ptr<CMapStore> index;
    if (store == nullptr) {
        if (DocumentToWrite() == nullptr) return 0;
        index.reset(new CMapIndex(SettingsDocument, family.type));
        store = index.get();
    }
    int32_t counter = 1;
    int result = 0;
    for (CListNode* node = head; node != nullptr; node = Next(node)) {
        auto* map = static_cast<CProxyMap*>(node);
        wchar_t id[16];
        if (map->IsDefaultMap != 0) {
            CopyText(id, L"Default");
        } else {
            FormatMapId(id, counter);
        }
        result = map->WriteMapToXml(*store, id);
        if (map->IsDefaultMap == 0) ++counter;
    }
    if (result != 0) store->SetCount(counter - 1);
    return result;
}

int CSocksConfig::ReadSettingsFile() { return ReadSettingsDocument() != 0 ? ReadFromXml() : 0; }
int CSocksConfig::ReadFromXml() { return ReadMapsFromXml(kSocksStore, nullptr); }
int CSocksConfig::ReadFromXml(CMapStore& store) { return ReadMapsFromXml(kSocksStore, &store); }
int CSocksConfig::WriteToXml() { return WriteMapsToXml(kSocksStore, nullptr); }
int CSocksConfig::WriteToXml(CMapStore& store) { return WriteMapsToXml(kSocksStore, &store); }

int CHttpConfig::ReadSettingsFile() { return ReadSettingsDocument() != 0 ? ReadFromXml() : 0; }
int CHttpConfig::ReadFromXml() { return ReadMapsFromXml(kHttpStore, nullptr); }
int CHttpConfig::ReadFromXml(CMapStore& store) { return ReadMapsFromXml(kHttpStore, &store); }
int CHttpConfig::WriteToXml() { return WriteMapsToXml(kHttpStore, nullptr); }
int CHttpConfig::WriteToXml(CMapStore& store) { return WriteMapsToXml(kHttpStore, &store); }

int CSocksConfig::WriteConfiguration() {
    SOCKS_LogString(kWriteLine);
    if (DocumentToWrite() == nullptr) return 0;
    int result = WriteToXml();
    if (result == 0) return 0;
    if (MigrationState == 1) {
        // Kept: the former HTTP set is not released, and the new one's constructor reads the file
        // again, which a corrupt file answers by dropping the document written so far.
        g_pHttpConfig = new CHttpConfig();
        g_pHttpConfig->ReadFromRegistry();
        // This family does not look at the result of the other's write.
        g_pHttpConfig->WriteToXml();
    }
    WriteFileAndFinish(*this, g_pHttpConfig);
    // Whether the file was written does not change the result.
    return result;
}

int CHttpConfig::WriteConfiguration() {
    SOCKS_LogString(kWriteLine);
    if (DocumentToWrite() == nullptr) return 0;
    int result = WriteToXml();
    if (result == 0) return 0;
    if (MigrationState == 1) {
        // Kept: as in the SOCKS twin, the former set is not released.
        g_pSocksConfig = new CSocksConfig();
        g_pSocksConfig->ReadFromRegistry();
        // This family takes the other's write as its own result.
        result = g_pSocksConfig->WriteToXml();
        if (result == 0) return 0;
    }
    WriteFileAndFinish(*this, g_pSocksConfig);
    return result;
}

unsigned int GetRegConfig(BSTR* text) {
    ExportLog log("GetRegConfig");
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Verdane", 0, 0x20006, &key) != ERROR_SUCCESS) {
        if (text != nullptr) *text = nullptr;
        log.End(-1);
        return 0xFFFFFFFFu;
    }
    // Only a look: the key stays as it was.
    RegCloseKey(key);
    // Sets of their own beside the process's, each reading the stores as at load. What a reader
    // raises reaches the caller.
    std::unique_ptr<CHttpConfig> http(new (std::nothrow) CHttpConfig());
    std::unique_ptr<CSocksConfig> socks(http != nullptr ? new (std::nothrow) CSocksConfig() : nullptr);
    unsigned int result = 0xFFFFFFFFu;
    if (http != nullptr && socks != nullptr) {
        // In memory only: the document is made when missing, no file is written.
        http->WriteToXml();
        socks->WriteToXml();
        if (SettingsDocument != nullptr) {
            std::wstring xml;
            SettingsDocument->GetXml(xml);
            BSTR copy = SysAllocStringLen(xml.data(), static_cast<UINT>(xml.size()));
            if (copy != nullptr) {
                if (text != nullptr) {
                    *text = copy;
                } else {
                    SysFreeString(copy);
                }
                result = static_cast<unsigned int>(xml.size());
            }
        }
    }
    log.End(static_cast<int>(result));
    return result;
}
