// The same typed reads on the Wine registry and on our suite library's in-memory registry made of
// the same keys and values: the layer cannot tell them apart. The bound layer is an instance of its
// own, beside the process's plain one.
#include "xml_registry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "registry_fixture.h"
#include "test_helpers.h"

namespace {

using dxtest::Hive;

struct StoredCase {
    Hive hive;
    std::string subPath;  // below Software\Verdane, "" for the root itself
    const char* name;     // null: a key without values
    DWORD type;
    std::string bytes;
};

std::string Text(const char* text) { return std::string(text) + '\0'; }
std::string Number(DWORD value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); }

const std::vector<StoredCase>& Stored() {
    static const std::vector<StoredCase> cases = {
        {Hive::kUser, "Network Protocols\\SOCKS", "Count", REG_DWORD, Number(2)},
        {Hive::kUser, "Network Protocols\\SOCKS", "Detect", REG_SZ, Text("FALSE")},
        {Hive::kUser, "Network Protocols\\SOCKS", "Five", REG_SZ, Text("5")},
        {Hive::kUser, "Network Protocols\\SOCKS", "Long", REG_BINARY, "\x01\x02\x03\x04\x05"},
        {Hive::kUser, "Network Protocols\\SOCKS", "Empty", REG_SZ, Text("")},
        {Hive::kUser, "Network Protocols\\SOCKS", "Multi", REG_MULTI_SZ, std::string("true\0\0", 6)},
        {Hive::kUser, "Network Protocols\\SOCKS", "Blob", REG_BINARY, "0123456789abcdef"},
        {Hive::kUser, "Network Protocols\\SOCKS\\1", "Use Proxy", REG_BINARY, "\x01"},
        {Hive::kUser, "Network Protocols\\SOCKS\\1", "Proxy Address", REG_SZ, Text("proxy.example")},
        {Hive::kUser, "Network Protocols\\SOCKS\\1", "Protocol Version", REG_DWORD, Number(5)},
        {Hive::kUser, "Network Protocols\\SOCKS\\2", "Use Proxy", REG_DWORD, Number(257)},
        {Hive::kUser, "Network Protocols\\SOCKS\\Default", nullptr, 0, ""},
        {Hive::kDefaultProfile, "Network Protocols\\SOCKS", "Count", REG_DWORD, Number(9)},
        {Hive::kDefaultProfile, "Network Protocols\\SOCKS", "Long", REG_DWORD, Number(7)},
        {Hive::kDefaultProfile, "Network Protocols\\SOCKS", "Only Default", REG_SZ, Text("TRUE")},
        {Hive::kDefaultProfile, "Network Protocols\\HTTP", "Count", REG_DWORD, Number(3)},
        {Hive::kDefaultProfile, "Network Protocols\\HTTP\\1", "Proxy Port", REG_SZ, Text("8080")},
    };
    return cases;
}

// The stored cases as the in-memory registry's text: every value by its exact bytes.
std::string RegistryText() {
    struct Node {
        std::map<std::string, Node> keys;
        std::string values;
    };
    Node user;
    Node everyone;
    for (const StoredCase& c : Stored()) {
        Node* node = c.hive == Hive::kUser ? &user : &everyone;
        std::string path = "Software\\Verdane\\" + c.subPath;
        for (size_t start = 0; start < path.size();) {
            size_t end = path.find('\\', start);
            if (end == std::string::npos) end = path.size();
            node = &node->keys[path.substr(start, end - start)];
            start = end + 1;
        }
        if (c.name != nullptr) {
            node->values += "<Value name=\"" + std::string(c.name) + "\" type=\"" + std::to_string(c.type) +
                            "\" hex=\"" + dxtest::Hex(c.bytes) + "\"/>";
        }
    }
    std::function<std::string(const std::string&, const Node&)> emit = [&](const std::string& name,
                                                                           const Node& node) {
        std::string text = "<Key name=\"" + name + "\">" + node.values;
        for (const auto& key : node.keys) text += emit(key.first, key.second);
        return text + "</Key>";
    };
    Node usersRoot;
    usersRoot.keys[".Default"] = everyone;
    return "<Registry>" + emit("HKEY_CURRENT_USER", user) + emit("HKEY_USERS", usersRoot) + "</Registry>";
}

// Every typed read the stores make, and the edges around them, as text.
std::vector<std::pair<std::string, std::string>> Reads(CPXMXMLREG& layer) {
    const char* socks = "Network Protocols\\SOCKS";
    const char* http = "Network Protocols\\HTTP";
    std::vector<std::pair<std::string, std::string>> reads;
    auto note = [&](const std::string& what, const std::string& result) { reads.emplace_back(what, result); };
    for (const char* name : {"Count", "Five", "Long", "Empty", "Blob", "Missing", "Only Default"}) {
        note(std::string("dword ") + name, std::to_string(layer.ReadDword(kUserScope, socks, name, 4)));
    }
    note("dword http count", std::to_string(layer.ReadDword(kUserScope, http, "Count", 0)));
    for (const char* name : {"Detect", "Multi", "Empty", "Only Default", "Missing", "Count", "Long"}) {
        note(std::string("flag ") + name, std::to_string(layer.ReadFlag(kUserScope, socks, name, 1)));
    }
    for (const char* path : {"Network Protocols\\SOCKS\\1", "Network Protocols\\SOCKS\\2"}) {
        note(std::string("use proxy ") + path, std::to_string(layer.ReadFlag(kUserScope, path, "Use Proxy", 0)));
        note(std::string("version ") + path, std::to_string(layer.ReadDword(kUserScope, path, "Protocol Version", 4)));
    }
    for (DWORD size : {64u, 14u, 13u, 1u}) {
        char buffer[64] = {};
        DWORD length = layer.ReadString(kUserScope, "Network Protocols\\SOCKS\\1", "Proxy Address", "none", buffer,
                                        size);
        note("string size " + std::to_string(size), std::to_string(length) + " " + buffer);
    }
    char port[16] = {};
    DWORD length = layer.ReadString(kUserScope, "Network Protocols\\HTTP\\1", "Proxy Port", "1080", port, sizeof port);
    note("http port", std::to_string(length) + " " + port);
    BYTE blob[16] = {};
    layer.ReadBlob16(kUserScope, socks, "Blob", nullptr, blob);
    note("blob", std::string(reinterpret_cast<char*>(blob), sizeof blob));
    for (DWORD size : {64u, 3u, 2u, 4u}) {
        char list[64] = {};
        DWORD used = layer.EnumSubkeys(kUserScope, socks, list, size);
        note("subkeys " + std::to_string(size), std::to_string(used) + " " + std::string(list, used));
    }
    char none[16] = {};
    note("http subkeys", std::to_string(layer.EnumSubkeys(kUserScope, http, none, sizeof none)));
    return reads;
}

class XmlRegistryCompareTest : public ::testing::Test {
protected:
    void SetUp() override { dxtest::ClearSettingsStore(); }
    void TearDown() override { dxtest::ClearSettingsStore(); }
};

TEST_F(XmlRegistryCompareTest, TypedReadsAreTheSameOnBothRegistries) {
    for (const StoredCase& c : Stored()) {
        if (c.name == nullptr) {
            ASSERT_TRUE(dxtest::MakeKey(c.hive, c.subPath));
        } else {
            ASSERT_TRUE(dxtest::PutValue(c.hive, c.subPath, c.name, c.type, c.bytes)) << c.name;
        }
    }
    const auto onWine = Reads(g_xmlRegistry);

    const std::string text = RegistryText();
    dxtest::ClearSettingsStore();
    CPXMXMLREG bound;
    ASSERT_EQ(bound.CreateXmlRegistry(kXmlRegistrySocks, text.c_str()), 1) << text;
    const auto inMemory = Reads(bound);
    ASSERT_EQ(inMemory.size(), onWine.size());
    for (size_t i = 0; i < onWine.size(); ++i) EXPECT_EQ(inMemory[i], onWine[i]);
    // A few pinned, so that both cannot agree on something wrong.
    EXPECT_EQ(onWine[0].second, "2");   // the user's value before .Default's
    EXPECT_EQ(onWine[1].second, "53");  // "5" as a number
    EXPECT_EQ(onWine[2].second, "7");   // too long for the user's key: .Default's
    EXPECT_FALSE(dxtest::KeyExists(Hive::kUser, ""));
}

TEST_F(XmlRegistryCompareTest, ValueNamesAreEnumeratedThroughTheBoundLayer) {
    CPXMXMLREG bound;
    ASSERT_EQ(bound.CreateXmlRegistry(kXmlRegistryHttp, RegistryText().c_str()), 1);
    HKEY key = nullptr;
    ASSERT_EQ(bound.RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Verdane\\Network Protocols\\SOCKS\\1", 0, KEY_READ,
                                 &key),
              ERROR_SUCCESS);
    std::vector<std::string> names;
    for (DWORD index = 0;; ++index) {
        char name[64];
        DWORD size = sizeof name;
        if (bound.RegEnumValue(key, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        names.emplace_back(name, size);
    }
    EXPECT_EQ(bound.RegCloseKey(key), ERROR_SUCCESS);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Protocol Version", "Proxy Address", "Use Proxy"}));
}

TEST_F(XmlRegistryCompareTest, WritesReadBackFromTheInMemoryRegistryAlone) {
    CPXMXMLREG bound;
    ASSERT_EQ(bound.CreateXmlRegistry(kXmlRegistrySocks, nullptr), 1);
    const char* path = "Network Protocols\\SOCKS\\1";
    EXPECT_EQ(bound.WriteFlag(kUserScope, path, "Use Proxy", 1), 1);
    EXPECT_EQ(bound.WriteDword(kUserScope, path, "Protocol Version", 5), 1);
    EXPECT_EQ(bound.WriteString(kUserScope, path, "Proxy User", "Gu\xe9st"), 1);
    EXPECT_EQ(bound.ReadFlag(kUserScope, path, "Use Proxy", 0), 1u);
    EXPECT_EQ(bound.ReadDword(kUserScope, path, "Protocol Version", 4), 5u);
    char user[16];
    EXPECT_EQ(bound.ReadString(kUserScope, path, "Proxy User", nullptr, user, sizeof user), 6u);
    EXPECT_STREQ(user, "Gu\xe9st");
    EXPECT_FALSE(dxtest::KeyExists(Hive::kUser, path));
    // The key the write made carries the layer's class in the object too.
    HKEY key = nullptr;
    ASSERT_EQ(bound.RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Verdane\\Network Protocols\\SOCKS\\1", 0, KEY_READ,
                                 &key),
              ERROR_SUCCESS);
    char keyClass[64] = {};
    DWORD classSize = sizeof keyClass;
    EXPECT_EQ(bound.RegQueryInfoKey(key, keyClass, &classSize, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_STREQ(keyClass, "DXS Application Data");
    EXPECT_EQ(bound.RegCloseKey(key), ERROR_SUCCESS);
    // The object's text holds what was written, and a registry made of it reads the same.
    const char* xml = bound.GetXml();
    ASSERT_NE(xml, nullptr);
    const std::string copy = xml;
    CPXMXMLREG again;
    ASSERT_EQ(again.CreateXmlRegistry(kXmlRegistrySocks, copy.c_str()), 1);
    EXPECT_EQ(again.ReadDword(kUserScope, path, "Protocol Version", 4), 5u);
    EXPECT_EQ(again.ReadFlag(kUserScope, path, "Use Proxy", 0), 1u);
    EXPECT_STREQ(again.GetXml(), copy.c_str());
    EXPECT_EQ(bound.DeleteValue(kUserScope, path, "Proxy User"), 1);
    EXPECT_EQ(bound.ReadString(kUserScope, path, "Proxy User", "gone", user, sizeof user), 4u);
    EXPECT_EQ(bound.DeleteSubkey(kUserScope, path), 1);
    EXPECT_EQ(bound.ReadDword(kUserScope, path, "Protocol Version", 4), 4u);
}

TEST_F(XmlRegistryCompareTest, BadTextAndAnUnknownFamilyLeaveNoObject) {
    CPXMXMLREG bound;
    ASSERT_EQ(bound.CreateXmlRegistry(kXmlRegistrySocks, "<Registry/>"), 1);
    ASSERT_NE(bound.GetXml(), nullptr);
    EXPECT_EQ(bound.CreateXmlRegistry(kXmlRegistrySocks, "<Registry>"), 0);
    EXPECT_EQ(bound.GetXml(), nullptr);
    ASSERT_EQ(bound.CreateXmlRegistry(kXmlRegistryHttp, nullptr), 1);
    EXPECT_EQ(bound.CreateXmlRegistry(7, "<Registry/>"), 0);
    EXPECT_EQ(bound.GetXml(), nullptr);
    // With no object the reads are the platform's again.
    ASSERT_TRUE(dxtest::PutNumber(Hive::kUser, "Network Protocols\\SOCKS", "Count", 6));
    EXPECT_EQ(bound.ReadDword(kUserScope, "Network Protocols\\SOCKS", "Count", 0), 6u);
}

// A host must not replace the registry while another thread reads configuration; if one does, a
// read sees the old registry, the new one or, between the two, the platform's, and never a released
// object. Also run in the heap-checking prefix, where a read of a released object does not pass.
class XmlRegistryThreadsTest : public XmlRegistryCompareTest {};

TEST_F(XmlRegistryThreadsTest, ReadsBesideReplacementsSeeOneRegistryOrAnother) {
    auto text = [](int count) {
        return "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"Software\"><Key name=\"Verdane\">"
               "<Value name=\"Count\" type=\"REG_DWORD\" data=\"" +
               std::to_string(count) + "\"/></Key></Key></Key></Registry>";
    };
    const std::string three = text(3);
    const std::string five = text(5);
    CPXMXMLREG bound;
    ASSERT_EQ(bound.CreateXmlRegistry(kXmlRegistrySocks, three.c_str()), 1);
    std::atomic<bool> replacing(true);
    std::atomic<int> unexpected(0);
    std::atomic<int> reads(0);
    std::thread reader([&] {
        while (replacing.load() || reads.load() < 100) {
            DWORD value = bound.ReadDword(kUserScope, "", "Count", 7);
            if (value != 3 && value != 5 && value != 7) ++unexpected;
            ++reads;
        }
    });
    int made = 0;
    for (int i = 0; i < 3000; ++i) made += bound.CreateXmlRegistry(kXmlRegistrySocks, (i & 1 ? three : five).c_str());
    replacing = false;
    reader.join();
    EXPECT_EQ(made, 3000);
    EXPECT_EQ(unexpected.load(), 0);
    EXPECT_GE(reads.load(), 100);
    EXPECT_EQ(bound.ReadDword(kUserScope, "", "Count", 7), 3u);
}

}  // namespace
