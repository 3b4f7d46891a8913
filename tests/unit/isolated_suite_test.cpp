// Runs from a folder of its own, where no suite library lies and the system's search order finds
// none either (the build copies this program there; see tests/CMakeLists.txt).
#include <gtest/gtest.h>

#include <string>

#include "log.h"
#include "log_capture.h"
#include "module_files.h"
#include "suite_library.h"

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

}  // namespace
