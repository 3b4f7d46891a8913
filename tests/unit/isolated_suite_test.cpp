// Runs from a folder of its own, where no suite library lies and the system's search order finds
// none either (the build copies this program there; see tests/CMakeLists.txt).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "log.h"
#include "log_capture.h"
#include "module_files.h"
#include "proxy_map.h"
#include "suite_library.h"
#include "test_helpers.h"

namespace {

bool NoSuiteLibraryAnywhere() {
    if (dxtest::FileExists(dxtest::ProgramDirectory() + "KVTSOCK2.DLL")) return false;
    HMODULE found = LoadLibraryA("KVTSOCK2.DLL");
    if (found != nullptr) FreeLibrary(found);
    return found == nullptr;
}

std::string PartialSuite() { return dxtest::BesideProgram("..\\doubles\\partial\\KVTSOCK2.DLL"); }

TEST(IsolatedSuiteTest, EveryOperationGivesItsDefault) {
    ASSERT_TRUE(NoSuiteLibraryAnywhere());
    CPXMMSI suite(nullptr, nullptr);
    EXPECT_FALSE(suite.HasTable());
    SetLastError(0);
    EXPECT_EQ(suite.createDirectory(nullptr, nullptr), 0u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_FUNCTION));
    EXPECT_EQ(suite.getPXMFeatureState(nullptr), -1);
    EXPECT_EQ(suite.setUserDirectory(nullptr), 1u);
    EXPECT_EQ(suite.setUserDirReg(nullptr), 1u);
    EXPECT_EQ(suite.setLogDirectory(nullptr), 1u);
    EXPECT_EQ(suite.setLogDirReg(nullptr), 1u);
    EXPECT_EQ(suite.setLangOverrideRegKey(0), 1u);
    EXPECT_EQ(suite.elevateUAC(nullptr), 1u);
    EXPECT_EQ(suite.getProductName(), nullptr);
    EXPECT_EQ(suite.getProductVersionString(), nullptr);
    EXPECT_EQ(suite.getLangID(), 0u);
    EXPECT_EQ(suite.isKerberosEnabled(), 0u);
    EXPECT_EQ(suite.isUserAdmin(nullptr), 0u);
    EXPECT_EQ(suite.showHelpViewer(nullptr, 2002, 5), 0u);
    DWORD language = 0;
    EXPECT_EQ(suite.loadResourceLibrary("DXSOCKS.DLL", &language), nullptr);
    char path[260] = "untouched";
    EXPECT_EQ(suite.getGlobalSettingsFile(path, sizeof path), 0u);
    EXPECT_STREQ(path, "untouched");
    SetLastError(55);
    EXPECT_EQ(suite.getInstallDirectory(path, sizeof path), 0u);
    EXPECT_EQ(GetLastError(), 55u);  // only createDirectory's default reports an error
}

TEST(IsolatedSuiteTest, ReportsStaySilentWithoutAResourceLibrary) {
    ASSERT_TRUE(NoSuiteLibraryAnywhere());
    dxtest::LogCapture capture;
    ReportMessage(0, 2002, 5);
    ReportMessage(0, 1003, "127.0.0.1", 1080, 5);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(IsolatedSuiteTest, SuiteLibraryCopiedInLaterHasNoEffect) {
    ASSERT_TRUE(NoSuiteLibraryAnywhere());
    std::string folder = dxtest::MakeTempDirectory("late-suite");
    ASSERT_FALSE(folder.empty());
    ASSERT_TRUE(dxtest::CopyInto(PartialSuite(), folder, "anchor.dll"));
    HMODULE anchor = LoadLibraryA((folder + "anchor.dll").c_str());
    ASSERT_NE(anchor, nullptr);
    {
        CResourceLibrary resources;
        resources.Initialise(anchor, "partial-suite-self");
        EXPECT_EQ(resources.GetHandle(), anchor);

        ASSERT_TRUE(dxtest::CopyInto(PartialSuite(), folder, "KVTSOCK2.DLL"));
        EXPECT_EQ(resources.GetHandle(), anchor);

        // A holder that has not failed yet finds the library that now lies there.
        CResourceLibrary fresh;
        fresh.Initialise(anchor, "partial-suite-self");
        HMODULE found = fresh.GetHandle();
        EXPECT_NE(found, anchor);
        EXPECT_EQ(dxtest::ModulePath(found), folder + "KVTSOCK2.DLL");
    }
    FreeLibrary(anchor);
    dxtest::RemoveTree(folder);
}

// A proxy map in a host without a suite library: no word for any host and no texts from resources,
// while stored hosts still show; no report of an unresolvable proxy, while its WinSock error is logged.
TEST(IsolatedProxyMapTest, WordForAnyHostIsEmpty) {
    ASSERT_TRUE(NoSuiteLibraryAnywhere());
    CProxyMap map;
    map.SetDestinationAddress("Any host");
    EXPECT_STREQ(map.GetDestinationAddress(), "Any host");
    map.SetDestinationAddress("");
    EXPECT_STREQ(map.GetDestinationAddress(), "*");
}

TEST(IsolatedProxyMapTest, TextsFromResourcesAreEmptyWhileStoredHostsShow) {
    ASSERT_TRUE(NoSuiteLibraryAnywhere());
    CProxyMap map;
    map.SetDefaultPort("1080");
    auto text = [](auto get) {
        char buffer[64];
        std::memset(buffer, 'x', sizeof buffer);
        get(buffer);
        return std::string(buffer);
    };
    EXPECT_EQ(text([&](char* b) { map.GetDestinationAddressText(b, 64); }), "");
    EXPECT_EQ(text([&](char* b) { map.GetDestinationPortText(b, 64); }), "");
    EXPECT_EQ(text([&](char* b) { map.GetProxyText(b, 64); }), "");
    map.SetUseProxy(1);
    EXPECT_EQ(text([&](char* b) { map.GetProxyText(b, 64); }), "");
    map.SetProxyPort("3128");
    EXPECT_EQ(text([&](char* b) { map.GetProxyText(b, 64); }), "");
    char destination[kDestinationTextSize];
    std::memset(destination, 'x', sizeof destination);
    map.SetDestinationAddress("a.example");
    map.SetDestinationPort("23");
    map.GetDestinationText(destination);
    EXPECT_STREQ(destination, "");

    EXPECT_EQ(text([&](char* b) { map.GetDestinationAddressText(b, 64); }), "a.example");
    EXPECT_EQ(text([&](char* b) { map.GetDestinationPortText(b, 64); }), "23");
    map.SetProxyAddress("proxy.example");
    map.SetProxyPort("1080");
    EXPECT_EQ(text([&](char* b) { map.GetProxyText(b, 64); }), "proxy.example");
}

TEST(IsolatedProxyMapTest, UnresolvableProxyLogsOnlyItsWinsockError) {
    ASSERT_TRUE(NoSuiteLibraryAnywhere());
    CProxyMap map;
    map.SetProxyAddress("lonely.invalid");
    dxtest::LogCapture capture;
    EXPECT_EQ(map.GetProxyAddressNumber(), 0u);
    EXPECT_EQ(WSAGetLastError(), 11001);
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{dxtest::Line("WinSock Error = 11001")});
}

}  // namespace
