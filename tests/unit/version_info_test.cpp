// The true version of the operating system. This program runs with Wine's Windows 10 settings
// (the prefix sets them for it): GetVersionExA says 6.2, and KERNEL32.DLL's product version
// "10.0.18362.1350" tells the truth.
#include "version_info.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "module_files.h"
#include "os_kind.h"

namespace {

class VersionInfoTest : public ::testing::Test {
protected:
    void SetUp() override { Forget(); }
    void TearDown() override { Forget(); }
    static void Forget() {
        g_osVersion = {0, 0, 0};
        g_versionSourceFile = nullptr;
        g_osKind = -1;
    }
    std::string thisProgram = dxtest::ModulePath(nullptr);  // has no version data
};

TEST_F(VersionInfoTest, SystemReportsTheCompatibilityVersion) {
    DWORD version = GetVersion();
    ASSERT_EQ(LOBYTE(LOWORD(version)), 6) << "the prefix should run this program as Windows 10";
    ASSERT_EQ(HIBYTE(LOWORD(version)), 2);
}

TEST_F(VersionInfoTest, SystemFileCorrectsTheVersion) {
    OSVERSIONINFOEXA info;
    EXPECT_TRUE(GetTrueVersionEx(&info));
    EXPECT_EQ(info.dwOSVersionInfoSize, sizeof(OSVERSIONINFOEXA));
    EXPECT_EQ(info.dwMajorVersion, 10u);
    EXPECT_EQ(info.dwMinorVersion, 0u);
    EXPECT_EQ(info.dwBuildNumber, 18362u);
    EXPECT_EQ(info.dwPlatformId, 2u);
    EXPECT_EQ(GetTrueVersion(), (18362u << 16) | 10u);
}

TEST_F(VersionInfoTest, CacheIsFilledOnceAndKept) {
    ReadSystemFileVersion(nullptr);
    EXPECT_EQ(g_osVersion.osMajor, 10u);
    g_versionSourceFile = thisProgram.c_str();
    EXPECT_EQ(ReadSystemFileVersion(nullptr), (18362u << 16) | 10u);
}

TEST_F(VersionInfoTest, FileWithoutVersionDataFallsBackOnGetVersion) {
    g_versionSourceFile = thisProgram.c_str();
    OSVERSIONINFOA info;
    std::memset(&info, 0xAB, sizeof info);
    EXPECT_EQ(ReadSystemFileVersion(&info), GetVersion());
    EXPECT_EQ(info.dwMajorVersion, 0xABABABABu);
    EXPECT_EQ(g_osVersion.osMajor, 0u);
}

TEST_F(VersionInfoTest, StructureKeepsWhatTheSystemGaveWithoutVersionData) {
    g_versionSourceFile = thisProgram.c_str();
    OSVERSIONINFOEXA info;
    EXPECT_TRUE(GetTrueVersionEx(&info));
    EXPECT_EQ(info.dwMajorVersion, 6u);
    EXPECT_EQ(info.dwMinorVersion, 2u);
    EXPECT_EQ(info.dwBuildNumber, 9200u);
    EXPECT_EQ(GetTrueVersion(), GetVersion());
}

TEST_F(VersionInfoTest, LibraryFileVersionAgreesWithTheRecord) {
    std::string library = dxtest::BesideProgram("DXSOCKS.DLL");
    g_versionSourceFile = library.c_str();
    OSVERSIONINFOA info = {};
    EXPECT_EQ(ReadSystemFileVersion(&info), (133u << 16) | (2u << 8) | 25u);
    EXPECT_EQ(info.dwMajorVersion, g_versionRecord.major);
    EXPECT_EQ(info.dwMinorVersion, g_versionRecord.minor);
    EXPECT_EQ(info.dwBuildNumber, g_versionRecord.build);
}

TEST_F(VersionInfoTest, OsKindOfWindows10Workstation) {
    EXPECT_EQ(GetOsKind(), 15);
    g_osVersion = {0, 0, 0};
    g_versionSourceFile = thisProgram.c_str();
    EXPECT_EQ(GetOsKind(), 15);  // cached
    g_osKind = -1;
    EXPECT_EQ(GetOsKind(), 11);  // 6.2 uncorrected
}

TEST_F(VersionInfoTest, NativeInfoIsFilled) {
    SYSTEM_INFO info;
    std::memset(&info, 0xCD, sizeof info);
    GetNativeInfo(&info);
    EXPECT_EQ(info.wProcessorArchitecture, PROCESSOR_ARCHITECTURE_AMD64);
    EXPECT_EQ(info.dwPageSize, 4096u);
    EXPECT_GE(info.dwNumberOfProcessors, 1u);
}

}  // namespace
