// The registry layer's plain branch, on the Wine registry: typed reads with the fall-back to
// HKEY_USERS\.Default, typed writes into the user's key, enumeration and deletion.
#include "xml_registry.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "registry_fixture.h"
#include "test_helpers.h"

namespace {

using dxtest::GetValue;
using dxtest::Hive;
using dxtest::KeyExists;
using dxtest::PutNumber;
using dxtest::PutText;
using dxtest::PutValue;

constexpr char kPath[] = "Network Protocols\\SOCKS";
std::string Bytes(const char* text, size_t size) { return std::string(text, size); }

class XmlRegistryTest : public ::testing::Test {
protected:
    void SetUp() override { dxtest::ClearSettingsStore(); }
    void TearDown() override { dxtest::ClearSettingsStore(); }
    CPXMXMLREG& Layer() { return g_xmlRegistry; }
};

TEST_F(XmlRegistryTest, WithoutAnObjectThereIsNoXml) { EXPECT_EQ(Layer().GetXml(), nullptr); }

struct FlagCase {
    const char* what;
    DWORD type;
    std::string bytes;
    DWORD fallback;
    DWORD expected;
};

TEST_F(XmlRegistryTest, FlagsReadAsTheirTypeTells) {
    const FlagCase cases[] = {
        {"TRUE", REG_SZ, Bytes("TRUE", 5), 0, 1},
        {"False", REG_SZ, Bytes("False", 6), 1, 0},
        {"yes", REG_SZ, Bytes("yes", 4), 7, 7},
        {"empty text", REG_SZ, Bytes("", 1), 5, 5},
        {"binary 1", REG_BINARY, Bytes("\x01", 1), 0, 1},
        {"binary 2", REG_BINARY, Bytes("\x02", 1), 1, 0},
        {"number 257", REG_DWORD, Bytes("\x01\x01\0\0", 4), 0, 1},
        {"number 256", REG_DWORD, Bytes("\0\x01\0\0", 4), 1, 0},
        {"multi text", REG_MULTI_SZ, Bytes("true\0\0", 6), 1, 0},
        {"text of 40 characters", REG_SZ, std::string(40, 't') + '\0', 1, 1},
    };
    for (const FlagCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(PutValue(Hive::kUser, kPath, "Flag", c.type, c.bytes));
        EXPECT_EQ(Layer().ReadFlag(kUserScope, kPath, "Flag", c.fallback), c.expected);
    }
}

TEST_F(XmlRegistryTest, FlagWithoutKeyOrValueIsTheFallback) {
    EXPECT_EQ(Layer().ReadFlag(kUserScope, kPath, "Detect", 1), 1u);
    ASSERT_TRUE(dxtest::MakeKey(Hive::kUser, kPath));
    EXPECT_EQ(Layer().ReadFlag(kUserScope, kPath, "Detect", 1), 1u);
    EXPECT_EQ(Layer().ReadFlag(kUserScope, kPath, "Detect", 0), 0u);
    EXPECT_FALSE(KeyExists(Hive::kDefaultProfile, kPath));
}

TEST_F(XmlRegistryTest, NumbersOfAnyTypeReadAsTheirLowBytes) {
    ASSERT_TRUE(PutText(Hive::kUser, kPath, "Five", "5"));
    ASSERT_TRUE(PutText(Hive::kUser, kPath, "Letters", "abc"));
    ASSERT_TRUE(PutNumber(Hive::kUser, kPath, "Count", 0x12345678));
    ASSERT_TRUE(PutValue(Hive::kUser, kPath, "Short", REG_BINARY, Bytes("\x34\x12", 2)));
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Five", 0), 53u);
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Letters", 0), 6513249u);
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Count", 0), 0x12345678u);
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Short", 0), 0x1234u);
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Missing", 4), 4u);
}

TEST_F(XmlRegistryTest, ValueTooLongForTheNumberFallsToTheDefaultProfile) {
    ASSERT_TRUE(PutValue(Hive::kUser, kPath, "Count", REG_BINARY, Bytes("\x01\x02\x03\x04\x05", 5)));
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Count", 77), 77u);
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, kPath, "Count", 9));
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Count", 77), 9u);
}

TEST_F(XmlRegistryTest, MissingUserKeyReadsTheDefaultProfileButEnumeratesNothing) {
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, kPath, "Count", 3));
    ASSERT_TRUE(dxtest::MakeKey(Hive::kDefaultProfile, std::string(kPath) + "\\1"));
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Count", 0), 3u);
    char buffer[64];
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(Layer().EnumSubkeys(kUserScope, kPath, buffer, sizeof buffer), 0u);
    EXPECT_EQ(buffer[0], 'z');
    EXPECT_FALSE(KeyExists(Hive::kUser, kPath));  // reading never makes a key
}

TEST_F(XmlRegistryTest, UserValueStandsBeforeTheDefaultProfiles) {
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, kPath, "Count", 3));
    ASSERT_TRUE(PutNumber(Hive::kUser, kPath, "Count", 5));
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Count", 0), 5u);
    ASSERT_TRUE(PutText(Hive::kDefaultProfile, kPath, "Use Proxy", "true"));
    EXPECT_EQ(Layer().ReadFlag(kUserScope, kPath, "Use Proxy", 0), 1u);
}

TEST_F(XmlRegistryTest, StringsReadWithTheirTerminatorOrTheFallback) {
    ASSERT_TRUE(PutText(Hive::kUser, kPath, "Proxy Address", "proxy.example"));
    ASSERT_TRUE(PutText(Hive::kUser, kPath, "Empty", ""));
    char buffer[16];
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Proxy Address", "x", buffer, sizeof buffer), 14u);
    EXPECT_STREQ(buffer, "proxy.example");
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Empty", "x", buffer, sizeof buffer), 1u);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Missing", "1080", buffer, sizeof buffer), 4u);
    EXPECT_STREQ(buffer, "1080");
    // A fallback as long as the buffer or longer is not copied: the buffer is emptied.
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Missing", std::string(16, 'f').c_str(), buffer, sizeof buffer),
              0u);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Missing", std::string(15, 'f').c_str(), buffer, sizeof buffer),
              15u);
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Missing", nullptr, buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Proxy Address", "x", nullptr, 16), 0u);
}

TEST_F(XmlRegistryTest, ValueOf2000BytesNeedsABufferOfItsSize) {
    const std::string text(1999, 'v');
    ASSERT_TRUE(PutText(Hive::kUser, kPath, "Long", text));
    char small[1025];
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Long", "short", small, sizeof small), 5u);
    EXPECT_STREQ(small, "short");
    std::string large(2000, 'z');
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Long", nullptr, &large[0], 2000), 2000u);
    EXPECT_EQ(std::string(large.c_str()), text);
    ASSERT_TRUE(PutText(Hive::kDefaultProfile, kPath, "Long", "fits"));
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Long", "short", small, sizeof small), 5u);
    EXPECT_STREQ(small, "fits");
}

TEST_F(XmlRegistryTest, StringStoredWithoutATerminatorStillEnds) {
    ASSERT_TRUE(PutValue(Hive::kUser, kPath, "Raw", REG_SZ, "abcd"));
    char buffer[8];
    std::memset(buffer, 'z', sizeof buffer);
    DWORD read = Layer().ReadString(kUserScope, kPath, "Raw", nullptr, buffer, sizeof buffer);
    EXPECT_GE(read, 4u);
    EXPECT_STREQ(buffer, "abcd");
}

TEST_F(XmlRegistryTest, BlobsReadSixteenBytesOrTheFallback) {
    const std::string blob = Bytes("0123456789abcdef", 16);
    ASSERT_TRUE(PutValue(Hive::kUser, kPath, "Blob", REG_BINARY, blob));
    BYTE out[16] = {};
    const BYTE fallback[16] = {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
    Layer().ReadBlob16(kUserScope, kPath, "Blob", fallback, out);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 16), blob);
    Layer().ReadBlob16(kUserScope, kPath, "Missing", fallback, out);
    EXPECT_EQ(std::memcmp(out, fallback, 16), 0);
    BYTE untouched[16] = {1};
    Layer().ReadBlob16(kUserScope, kPath, "Missing", nullptr, untouched);
    EXPECT_EQ(untouched[0], 1);
    Layer().ReadBlob16(kUserScope, kPath, "Blob", fallback, nullptr);
}

struct WriteCase {
    const char* what;
    int (*write)(CPXMXMLREG& layer, const char* name);
    DWORD type;
    std::string bytes;
};

TEST_F(XmlRegistryTest, EachWriteStoresItsTypeAndBytesInTheUserKeyOnly) {
    const WriteCase cases[] = {
        {"flag on", [](CPXMXMLREG& l, const char* n) { return l.WriteFlag(kUserScope, kPath, n, 5); }, REG_BINARY,
         Bytes("\x01", 1)},
        {"flag off", [](CPXMXMLREG& l, const char* n) { return l.WriteFlag(kUserScope, kPath, n, 0); }, REG_BINARY,
         Bytes("\0", 1)},
        {"number", [](CPXMXMLREG& l, const char* n) { return l.WriteDword(kUserScope, kPath, n, 0x01020304); },
         REG_DWORD, Bytes("\x04\x03\x02\x01", 4)},
        {"blob",
         [](CPXMXMLREG& l, const char* n) {
             return l.WriteBlob16(kUserScope, kPath, n, reinterpret_cast<const BYTE*>("ABCDEFGHIJKLMNOP"));
         },
         REG_BINARY, Bytes("ABCDEFGHIJKLMNOP", 16)},
        {"text", [](CPXMXMLREG& l, const char* n) { return l.WriteString(kUserScope, kPath, n, "Gu\xe9st"); }, REG_SZ,
         Bytes("Gu\xe9st", 6)},
    };
    ASSERT_TRUE(dxtest::MakeKey(Hive::kDefaultProfile, kPath));
    for (const WriteCase& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.write(Layer(), "Value"), 1);
        dxtest::StoredValue stored = GetValue(Hive::kUser, kPath, "Value");
        ASSERT_TRUE(stored.found);
        EXPECT_EQ(stored.type, c.type);
        EXPECT_EQ(stored.bytes, c.bytes);
        EXPECT_FALSE(GetValue(Hive::kDefaultProfile, kPath, "Value").found);
    }
}

TEST_F(XmlRegistryTest, WrittenValuesReadBackThroughTheLayer) {
    EXPECT_EQ(Layer().WriteFlag(kUserScope, kPath, "Use Proxy", 1), 1);
    EXPECT_EQ(Layer().WriteDword(kUserScope, kPath, "Count", 12), 1);
    EXPECT_EQ(Layer().WriteString(kUserScope, kPath, "Proxy User", "Gu\xe9st"), 1);
    const BYTE blob[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    EXPECT_EQ(Layer().WriteBlob16(kUserScope, kPath, "Blob", blob), 1);
    EXPECT_EQ(Layer().ReadFlag(kUserScope, kPath, "Use Proxy", 0), 1u);
    EXPECT_EQ(Layer().ReadDword(kUserScope, kPath, "Count", 0), 12u);
    char text[32];
    EXPECT_EQ(Layer().ReadString(kUserScope, kPath, "Proxy User", nullptr, text, sizeof text), 6u);
    EXPECT_STREQ(text, "Gu\xe9st");
    BYTE out[16] = {};
    Layer().ReadBlob16(kUserScope, kPath, "Blob", nullptr, out);
    EXPECT_EQ(std::memcmp(out, blob, 16), 0);
    EXPECT_EQ(Layer().WriteString(kUserScope, kPath, "Null", nullptr), 0);
    EXPECT_EQ(Layer().WriteBlob16(kUserScope, kPath, "Null", nullptr), 0);
}

TEST_F(XmlRegistryTest, WriteMakesAMissingKeyWithTheKeyClass) {
    const std::string path = std::string(kPath) + "\\7";
    ASSERT_FALSE(KeyExists(Hive::kUser, path));
    EXPECT_EQ(Layer().WriteDword(kUserScope, path.c_str(), "Protocol Version", 5), 1);
    EXPECT_TRUE(KeyExists(Hive::kUser, path));
    EXPECT_EQ(dxtest::KeyClass(Hive::kUser, path), "DXS Application Data");
    EXPECT_FALSE(KeyExists(Hive::kDefaultProfile, path));
}

TEST_F(XmlRegistryTest, SubPathOf1023CharactersIsRefused) {
    const std::string tooLong(1023, 'k');
    ASSERT_TRUE(PutNumber(Hive::kUser, "", "Count", 1));
    EXPECT_EQ(Layer().ReadDword(kUserScope, tooLong.c_str(), "Count", 6), 6u);
    EXPECT_EQ(Layer().WriteDword(kUserScope, tooLong.c_str(), "Count", 2), 0);
    char buffer[8];
    EXPECT_EQ(Layer().ReadString(kUserScope, tooLong.c_str(), "Count", "dflt", buffer, sizeof buffer), 4u);
    EXPECT_STREQ(buffer, "dflt");
    // The longest accepted one fits the layer's buffers, though the registry has no such key.
    const std::string longest(1022, 'k');
    EXPECT_EQ(Layer().ReadDword(kUserScope, longest.c_str(), "Count", 6), 6u);
    EXPECT_EQ(Layer().ReadDword(kUserScope, nullptr, "Count", 8), 8u);
}

TEST_F(XmlRegistryTest, SubkeysAreListedAsFarAsTheyFit) {
    ASSERT_TRUE(dxtest::MakeKey(Hive::kUser, std::string(kPath) + "\\1"));
    ASSERT_TRUE(dxtest::MakeKey(Hive::kUser, std::string(kPath) + "\\22"));
    char buffer[16];
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(Layer().EnumSubkeys(kUserScope, kPath, buffer, 2), 0u);
    EXPECT_EQ(buffer[0], 'z');
    EXPECT_EQ(Layer().EnumSubkeys(kUserScope, kPath, buffer, 3), 3u);
    EXPECT_EQ(std::string(buffer, 4), Bytes("1\0\0z", 4));
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(Layer().EnumSubkeys(kUserScope, kPath, buffer, 6), 6u);  // an exact fit
    EXPECT_EQ(std::string(buffer, 7), Bytes("1\0" "22\0\0z", 7));
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(Layer().EnumSubkeys(kUserScope, kPath, buffer, 5), 3u);  // the second name won't fit
    EXPECT_EQ(std::string(buffer, 4), Bytes("1\0\0z", 4));
    EXPECT_EQ(Layer().EnumSubkeys(kUserScope, kPath, nullptr, 16), 0u);
}

TEST_F(XmlRegistryTest, DeletionsTouchTheUserKeyOnly) {
    const std::string map = std::string(kPath) + "\\1";
    ASSERT_TRUE(PutNumber(Hive::kUser, map, "Protocol Version", 5));
    ASSERT_TRUE(PutNumber(Hive::kDefaultProfile, map, "Protocol Version", 4));
    EXPECT_EQ(Layer().DeleteValue(kUserScope, map.c_str(), "Protocol Version"), 1);
    EXPECT_FALSE(GetValue(Hive::kUser, map, "Protocol Version").found);
    EXPECT_TRUE(GetValue(Hive::kDefaultProfile, map, "Protocol Version").found);
    EXPECT_EQ(Layer().DeleteValue(kUserScope, map.c_str(), "Protocol Version"), 0);

    EXPECT_EQ(Layer().DeleteSubkey(kUserScope, map.c_str()), 1);
    EXPECT_FALSE(KeyExists(Hive::kUser, map));
    EXPECT_TRUE(KeyExists(Hive::kUser, kPath));
    EXPECT_TRUE(KeyExists(Hive::kDefaultProfile, map));
    EXPECT_EQ(Layer().DeleteSubkey(kUserScope, map.c_str()), 0);
    EXPECT_EQ(Layer().DeleteSubkey(kUserScope, nullptr), 0);
}

TEST_F(XmlRegistryTest, PublishedOperationsAreThePlatformsCalls) {
    ASSERT_TRUE(PutText(Hive::kUser, kPath, "Proxy Port", "1080"));
    ASSERT_TRUE(dxtest::MakeKey(Hive::kUser, std::string(kPath) + "\\1"));
    HKEY key = nullptr;
    ASSERT_EQ(Layer().RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Verdane\\Network Protocols\\SOCKS", 0,
                                   KEY_READ | KEY_SET_VALUE, &key),
              ERROR_SUCCESS);
    char name[32];
    DWORD nameSize = sizeof name;
    EXPECT_EQ(Layer().RegEnumValue(key, 0, name, &nameSize, nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_STREQ(name, "Proxy Port");
    EXPECT_EQ(Layer().RegEnumKey(key, 0, name, sizeof name), ERROR_SUCCESS);
    EXPECT_STREQ(name, "1");
    nameSize = sizeof name;
    EXPECT_EQ(Layer().RegEnumKeyEx(key, 0, name, &nameSize, nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_STREQ(name, "1");
    DWORD value = 9;
    EXPECT_EQ(Layer().RegSetValueEx(key, "Count", 0, REG_DWORD, reinterpret_cast<BYTE*>(&value), sizeof value),
              ERROR_SUCCESS);
    DWORD type = 0;
    DWORD read = 0;
    DWORD size = sizeof read;
    EXPECT_EQ(Layer().RegQueryValueEx(key, "Count", nullptr, &type, reinterpret_cast<BYTE*>(&read), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
    EXPECT_EQ(read, 9u);
    DWORD subKeys = 0;
    DWORD values = 0;
    EXPECT_EQ(Layer().RegQueryInfoKey(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, nullptr,
                                      nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(subKeys, 1u);
    EXPECT_EQ(values, 2u);
    EXPECT_EQ(Layer().RegDeleteValue(key, "Count"), ERROR_SUCCESS);
    EXPECT_EQ(Layer().RegDeleteKey(key, "1"), ERROR_SUCCESS);
    EXPECT_EQ(Layer().RegCloseKey(key), ERROR_SUCCESS);
    HKEY made = nullptr;
    char keyClass[] = "Made Here";
    EXPECT_EQ(Layer().RegCreateKeyEx(HKEY_CURRENT_USER, "Software\\Verdane\\Made", 0, keyClass, 0, KEY_WRITE, nullptr,
                                     &made, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(Layer().RegCloseKey(made), ERROR_SUCCESS);
    EXPECT_EQ(dxtest::KeyClass(Hive::kUser, "Made"), "Made Here");
}

}  // namespace
