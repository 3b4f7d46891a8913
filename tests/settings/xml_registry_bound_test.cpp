// The registry layer bound to an in-memory registry. The layer binds the suite library for the life
// of the process and looks for it beside the executable, so each case runs in a copy of this program
// beside the suite double it needs (XmlRegistryBoundChild, run by XmlRegistryBoundTest).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "copied_program.h"
#include "module_files.h"
#include "registry_fixture.h"
#include "settings_file.h"
#include "test_helpers.h"
#include "xml_registry.h"
#include "xml_suite.h"

namespace {

std::string ScriptedSuite() { return dxtest::BesideProgram("..\\doubles\\xml\\xml_suite.dll"); }
std::string SuiteWithoutRelease() { return dxtest::BesideProgram("..\\doubles\\xml\\xml_suite_no_release.dll"); }
std::string PartialSuite() { return dxtest::BesideProgram("..\\doubles\\partial\\KVTSOCK2.DLL"); }

// Where a child finds the scripted double's build, its own folder being elsewhere.
constexpr char kScriptedSuiteVariable[] = "DXTEST_SCRIPTED_XML_SUITE";

// Runs one child case beside `suite` (none when empty) as KVTSOCK2.DLL.
void RunChild(const std::string& suite, const std::string& name) {
    SetEnvironmentVariableA(kScriptedSuiteVariable, ScriptedSuite().c_str());
    std::vector<std::pair<std::string, std::string>> beside;
    if (!suite.empty()) beside.emplace_back(suite, "KVTSOCK2.DLL");
    dxtest::ExpectCopiedCasePasses(beside, "XmlRegistryBoundChild.DISABLED_" + name);
}

class XmlRegistryBoundTest : public ::testing::Test {
protected:
    void SetUp() override { dxtest::ClearSettingsStore(); }
    void TearDown() override { dxtest::ClearSettingsStore(); }
};

TEST_F(XmlRegistryBoundTest, EachOperationGoesToTheObjectInItsOrder) { RunChild(ScriptedSuite(), "Forwarding"); }
TEST_F(XmlRegistryBoundTest, TheOldObjectIsReleasedFirst) { RunChild(ScriptedSuite(), "Replacing"); }
TEST_F(XmlRegistryBoundTest, FailedFactoryLeavesThePointerAsItLeftIt) { RunChild(ScriptedSuite(), "FailedFactory"); }
TEST_F(XmlRegistryBoundTest, TypedOperationsGoToTheObjectOnly) { RunChild(ScriptedSuite(), "TypedOperations"); }
TEST_F(XmlRegistryBoundTest, SettingsFileWithoutAPath) { RunChild(ScriptedSuite(), "NoSettingsPath"); }
TEST_F(XmlRegistryBoundTest, SuiteWithoutReleaseFailsForGood) { RunChild(SuiteWithoutRelease(), "NoRelease"); }
TEST_F(XmlRegistryBoundTest, SuiteWithoutFactoriesFailsForGood) { RunChild(PartialSuite(), "NoFactories"); }
TEST_F(XmlRegistryBoundTest, MissingSuiteIsSoughtAgain) { RunChild("", "MissingSuite"); }
TEST_F(XmlRegistryBoundTest, UnloadReleasesTheObjectThenTheLibrary) { RunChild(ScriptedSuite(), "Unload"); }

// The children. Not tests of their own: each runs only by name, in a copy of the program.

template <typename Entry>
Entry SuiteEntry(const char* name) {
    HMODULE suite = GetModuleHandleA("KVTSOCK2.DLL");
    return suite != nullptr ? reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(suite, name)))
                            : nullptr;
}

XmlSuiteRecord Recording() {
    XmlSuiteRecord record = {};
    auto recording = SuiteEntry<PFN_XmlSuiteRecording>("XmlSuiteRecording");
    if (recording != nullptr) recording(&record);
    return record;
}

int LastOperation() { return Recording().operation; }

// Holds the double beside the program, so that a script outlives the loads of other callers.
HMODULE HoldSuite() { return LoadLibraryA((dxtest::ProgramDirectory() + "KVTSOCK2.DLL").c_str()); }

TEST(XmlRegistryBoundChild, DISABLED_Forwarding) {
    ASSERT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, "<Registry/>"), 1);
    XmlSuiteRecord record = Recording();
    EXPECT_EQ(record.createCalls, 1);
    EXPECT_EQ(record.family, kXmlRegistrySocks);
    EXPECT_STREQ(record.text, "<Registry/>");
    EXPECT_EQ(record.releaseCalls, 1);  // the null pointer, released all the same
    EXPECT_EQ(record.released, nullptr);

    HKEY key = nullptr;
    EXPECT_EQ(g_xmlRegistry.RegOpenKeyEx(HKEY_CURRENT_USER, "Software", 3, KEY_READ, &key), ERROR_SUCCESS);
    EXPECT_EQ(LastOperation(), 1);
    EXPECT_STREQ(Recording().name, "Software");
    EXPECT_EQ(Recording().options, 3u);
    char keyClass[] = "Class";
    EXPECT_EQ(g_xmlRegistry.RegCreateKeyEx(key, "New", 0, keyClass, 0, KEY_WRITE, nullptr, &key, nullptr), 0);
    EXPECT_EQ(LastOperation(), 2);
    EXPECT_STREQ(Recording().keyClass, "Class");
    EXPECT_EQ(g_xmlRegistry.RegCloseKey(key), 0);
    EXPECT_EQ(LastOperation(), 3);
    DWORD size = 4;
    BYTE data[4];
    EXPECT_EQ(g_xmlRegistry.RegQueryValueEx(key, "Count", nullptr, nullptr, data, &size), 0);
    EXPECT_EQ(LastOperation(), 4);
    char name[16];
    EXPECT_EQ(g_xmlRegistry.RegEnumKey(key, 1, name, sizeof name), 0);
    EXPECT_EQ(LastOperation(), 6);
    EXPECT_STREQ(name, "Second");
    DWORD nameSize = sizeof name;
    EXPECT_EQ(g_xmlRegistry.RegEnumKeyEx(key, 0, name, &nameSize, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(LastOperation(), 7);
    EXPECT_STREQ(name, "First");
    nameSize = sizeof name;
    EXPECT_EQ(g_xmlRegistry.RegEnumValue(key, 0, name, &nameSize, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(LastOperation(), 5);
    EXPECT_STREQ(name, "Recorded");
    EXPECT_EQ(g_xmlRegistry.RegDeleteKey(key, "Old"), 0);
    EXPECT_EQ(LastOperation(), 8);
    EXPECT_EQ(g_xmlRegistry.RegDeleteValue(key, "Gone"), 0);
    EXPECT_EQ(LastOperation(), 9);
    // The object gets the reserved argument as the caller gave it.
    EXPECT_EQ(g_xmlRegistry.RegSetValueEx(key, "Count", 5, REG_DWORD, data, 4), 0);
    EXPECT_EQ(LastOperation(), 10);
    EXPECT_EQ(Recording().reserved, 5u);
    DWORD subKeys = 0;
    EXPECT_EQ(g_xmlRegistry.RegQueryInfoKey(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr,
                                            nullptr, nullptr, nullptr, nullptr),
              0);
    EXPECT_EQ(LastOperation(), 11);
    EXPECT_EQ(subKeys, 2u);
    EXPECT_STREQ(g_xmlRegistry.GetXml(), "<Registry/>");
    EXPECT_EQ(LastOperation(), 12);
}

TEST(XmlRegistryBoundChild, DISABLED_Replacing) {
    ASSERT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, nullptr), 1);
    EXPECT_TRUE(Recording().textWasNull);
    auto object = SuiteEntry<PFN_XmlSuiteObject>("XmlSuiteObject");
    ASSERT_NE(object, nullptr);
    ASSERT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistryHttp, "text"), 1);
    XmlSuiteRecord record = Recording();
    EXPECT_EQ(record.createCalls, 2);
    EXPECT_EQ(record.releaseCalls, 2);
    EXPECT_EQ(record.released, object());
    EXPECT_EQ(record.pointerAtCreate, nullptr);  // released and cleared before the factory ran
    EXPECT_EQ(record.family, kXmlRegistryHttp);
}

TEST(XmlRegistryBoundChild, DISABLED_FailedFactory) {
    HMODULE held = HoldSuite();
    ASSERT_NE(held, nullptr);
    auto script = SuiteEntry<PFN_XmlSuiteScript>("XmlSuiteScript");
    ASSERT_NE(script, nullptr);
    // A factory that fails after setting the pointer: the pointer stands.
    script(13, TRUE);
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, "<bad"), 0);
    EXPECT_STREQ(g_xmlRegistry.GetXml(), "<Registry/>");
    // One that fails without: the old object is gone all the same.
    script(13, FALSE);
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, "<bad"), 0);
    EXPECT_EQ(g_xmlRegistry.GetXml(), nullptr);
    EXPECT_EQ(Recording().releaseCalls, 2);
    // Typed reads are the platform's again.
    EXPECT_EQ(g_xmlRegistry.ReadDword(kUserScope, "Network Protocols\\SOCKS", "Count", 41), 41u);
    FreeLibrary(held);
}

TEST(XmlRegistryBoundChild, DISABLED_TypedOperations) {
    HMODULE held = HoldSuite();
    ASSERT_NE(held, nullptr);
    auto value = SuiteEntry<PFN_XmlSuiteValue>("XmlSuiteValue");
    ASSERT_NE(value, nullptr);
    ASSERT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, "<Registry/>"), 1);
    const char* path = "Network Protocols\\SOCKS";

    const DWORD number = 257;
    value(0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
    EXPECT_EQ(g_xmlRegistry.ReadDword(kUserScope, path, "Count", 0), 257u);
    EXPECT_EQ(g_xmlRegistry.ReadFlag(kUserScope, path, "Use Proxy", 0), 1u);
    value(0, REG_SZ, reinterpret_cast<const BYTE*>("False"), 6);
    EXPECT_EQ(g_xmlRegistry.ReadFlag(kUserScope, path, "Use Proxy", 1), 0u);
    char text[16];
    EXPECT_EQ(g_xmlRegistry.ReadString(kUserScope, path, "Proxy User", nullptr, text, sizeof text), 6u);
    EXPECT_STREQ(text, "False");
    // Too long for the number, and no value: the default.
    value(0, REG_BINARY, reinterpret_cast<const BYTE*>("12345"), 5);
    EXPECT_EQ(g_xmlRegistry.ReadDword(kUserScope, path, "Count", 8), 8u);
    value(ERROR_FILE_NOT_FOUND, REG_DWORD, nullptr, 0);
    EXPECT_EQ(g_xmlRegistry.ReadDword(kUserScope, path, "Count", 9), 9u);

    char list[32];
    EXPECT_EQ(g_xmlRegistry.EnumSubkeys(kUserScope, path, list, sizeof list), 14u);
    EXPECT_EQ(std::string(list, 14), std::string("First\0Second\0\0", 14));

    EXPECT_EQ(g_xmlRegistry.WriteDword(kUserScope, path, "Count", 3), 1);
    XmlSuiteRecord record = Recording();
    EXPECT_EQ(record.operation, 3);  // the key closed after the value was set
    EXPECT_EQ(g_xmlRegistry.WriteString(kUserScope, path, "Proxy User", "Gu\xe9st"), 1);
    EXPECT_EQ(g_xmlRegistry.DeleteValue(kUserScope, path, "Proxy User"), 1);
    EXPECT_EQ(g_xmlRegistry.DeleteSubkey(kUserScope, "Network Protocols\\SOCKS\\1"), 1);
    // Nothing reached the Wine registry.
    EXPECT_FALSE(dxtest::KeyExists(dxtest::Hive::kUser, path));
    EXPECT_FALSE(dxtest::KeyExists(dxtest::Hive::kUser, ""));
    FreeLibrary(held);
}

TEST(XmlRegistryBoundChild, DISABLED_NoSettingsPath) {
    HMODULE held = HoldSuite();
    ASSERT_NE(held, nullptr);
    CPXMSettings* before = CreateSettings(nullptr);
    SettingsDocument = before;
    EXPECT_EQ(ReadSettingsDocument(), 0);
    EXPECT_EQ(SettingsDocument, before);
    EXPECT_EQ(WriteSettingsFile(L"<Settings/>"), 0);
    std::wstring text = L"x";
    EXPECT_FALSE(ReadSettingsText(text));

    const std::string folder = dxtest::MakeTempDirectory("settings-path");
    ASSERT_FALSE(folder.empty());
    auto path = SuiteEntry<PFN_XmlSuiteSettingsPath>("XmlSuiteSettingsPath");
    ASSERT_NE(path, nullptr);
    path((folder + "Settings.xml").c_str(), 1);
    EXPECT_EQ(WriteSettingsFile(L"<Settings version=\"here\"/>"), 1);
    EXPECT_EQ(ReadSettingsDocument(), 1);
    ASSERT_NE(SettingsDocument, nullptr);
    EXPECT_EQ(SettingsDocument->GetVersion(), "here");
    // A path with the answer 0: writing does not look at the answer, reading does.
    path((folder + "Settings.xml").c_str(), 0);
    EXPECT_EQ(WriteSettingsFile(L"<Settings version=\"written\"/>"), 1);
    CPXMSettings* kept = SettingsDocument;
    EXPECT_EQ(ReadSettingsDocument(), 0);
    EXPECT_EQ(SettingsDocument, kept);
    EXPECT_FALSE(ReadSettingsText(text));
    path((folder + "Settings.xml").c_str(), 1);
    EXPECT_EQ(ReadSettingsDocument(), 1);
    EXPECT_EQ(SettingsDocument->GetVersion(), "written");
    // A folder that is missing is not made.
    path((folder + "missing\\Settings.xml").c_str(), 1);
    EXPECT_EQ(WriteSettingsFile(L"<Settings/>"), 0);
    EXPECT_FALSE(dxtest::FileExists(folder + "missing"));
    dxtest::RemoveTree(folder);
    FreeLibrary(held);
}

TEST(XmlRegistryBoundChild, DISABLED_NoRelease) {
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, "<Registry/>"), 0);
    // The library stays loaded, and its factory was never called.
    ASSERT_NE(GetModuleHandleA("KVTSOCK2.DLL"), nullptr);
    EXPECT_EQ(Recording().createCalls, 0);
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistryHttp, "<Registry/>"), 0);
    EXPECT_EQ(Recording().createCalls, 0);
    EXPECT_EQ(g_xmlRegistry.GetXml(), nullptr);
}

TEST(XmlRegistryBoundChild, DISABLED_NoFactories) {
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, nullptr), 0);
    EXPECT_NE(GetModuleHandleA("KVTSOCK2.DLL"), nullptr);
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, nullptr), 0);
}

TEST(XmlRegistryBoundChild, DISABLED_Unload) {
    HMODULE held = HoldSuite();
    ASSERT_NE(held, nullptr);
    auto object = SuiteEntry<PFN_XmlSuiteObject>("XmlSuiteObject");
    ASSERT_NE(object, nullptr);
    {
        CPXMXMLREG layer;
        ASSERT_EQ(layer.CreateXmlRegistry(kXmlRegistryHttp, nullptr), 1);
        EXPECT_EQ(Recording().releaseCalls, 1);
    }
    EXPECT_EQ(Recording().releaseCalls, 2);
    EXPECT_EQ(Recording().released, object());
    FreeLibrary(held);
    // The layer's own reference went with it.
    EXPECT_EQ(GetModuleHandleA("KVTSOCK2.DLL"), nullptr);
    // A layer that bound nothing releases nothing.
    { CPXMXMLREG unused; }
}

TEST(XmlRegistryBoundChild, DISABLED_MissingSuite) {
    ASSERT_FALSE(dxtest::FileExists(dxtest::ProgramDirectory() + "KVTSOCK2.DLL"));
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, "<Registry/>"), 0);
    EXPECT_EQ(GetModuleHandleA("KVTSOCK2.DLL"), nullptr);
    const char* scripted = std::getenv(kScriptedSuiteVariable);
    ASSERT_NE(scripted, nullptr);
    ASSERT_TRUE(dxtest::CopyInto(scripted, dxtest::ProgramDirectory(), "KVTSOCK2.DLL"));
    EXPECT_EQ(g_xmlRegistry.CreateXmlRegistry(kXmlRegistrySocks, "<Registry/>"), 1);
    EXPECT_STREQ(g_xmlRegistry.GetXml(), "<Registry/>");
}

}  // namespace
