// Finding the suite library, binding its table, the resource library holder and the UI library.
#include "suite_library.h"

#include <gtest/gtest.h>

#include <string>

#include "lifecycle.h"
#include "module_files.h"

namespace {

const std::string kPartialSuiteFolder = "..\\doubles\\partial\\";

std::string PartialSuite() { return dxtest::BesideProgram(kPartialSuiteFolder + "KVTSOCK2.DLL"); }
std::string PartialSuiteFolder() { return dxtest::BesideProgram(kPartialSuiteFolder); }

TEST(LoadSuiteLibraryTest, DirectoryWithOrWithoutBackslashFindsTheSameFile) {
    std::string folder = PartialSuiteFolder();  // ends in a backslash
    ASSERT_TRUE(dxtest::FileExists(PartialSuite()));
    for (std::string directory : {folder, folder.substr(0, folder.size() - 1)}) {
        HMODULE library = LoadSuiteLibrary(nullptr, directory.c_str());
        ASSERT_NE(library, nullptr) << directory;
        EXPECT_EQ(dxtest::ModulePath(library), PartialSuite());
        FreeLibrary(library);
    }
}

TEST(LoadSuiteLibraryTest, AnchorModuleChoosesItsOwnFolderOverTheDirectory) {
    HMODULE anchor = LoadLibraryA(PartialSuite().c_str());
    ASSERT_NE(anchor, nullptr);
    HMODULE library = LoadSuiteLibrary(anchor, "C:\\nowhere");
    EXPECT_EQ(library, anchor);
    if (library != nullptr) FreeLibrary(library);
    FreeLibrary(anchor);
}

TEST(LoadSuiteLibraryTest, LeavesTheErrorModeAsItWas) {
    UINT before = SetErrorMode(SEM_FAILCRITICALERRORS);
    HMODULE library = LoadSuiteLibrary(nullptr, PartialSuiteFolder().c_str());
    EXPECT_EQ(SetErrorMode(before), static_cast<UINT>(SEM_FAILCRITICALERRORS));
    if (library != nullptr) FreeLibrary(library);
}

// A suite library without some entries: the table stands, so no default is taken; the missing
// entries answer 0 and touch nothing.
TEST(CPXMMSITest, MissingEntriesAnswerZeroWithoutTheirDefaults) {
    CPXMMSI suite(nullptr, PartialSuiteFolder().c_str());
    ASSERT_TRUE(suite.HasTable());
    SetLastError(4321);
    EXPECT_EQ(suite.createDirectory(nullptr, nullptr), 0u);
    EXPECT_EQ(GetLastError(), 4321u);
    EXPECT_EQ(suite.getPXMFeatureState(nullptr), 0);
    EXPECT_EQ(suite.setUserDirectory(nullptr), 0u);
    EXPECT_EQ(suite.elevateUAC(nullptr), 0u);
    EXPECT_EQ(suite.getProductName(), nullptr);

    HWND window = CreateWindowExA(0, "STATIC", "", WS_POPUP, 17, 23, 40, 30, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(window, nullptr);
    suite.centerWindow(window, nullptr);
    RECT rect;
    GetWindowRect(window, &rect);
    EXPECT_EQ(rect.left, 17);
    EXPECT_EQ(rect.top, 23);
    DestroyWindow(window);
}

TEST(CPXMMSITest, PresentEntriesAreCalledWithTheirArguments) {
    CPXMMSI suite(nullptr, PartialSuiteFolder().c_str());
    ASSERT_TRUE(suite.HasTable());
    EXPECT_EQ(suite.getLangID(), 0x1234u);
    EXPECT_EQ(suite.isUserAdmin(nullptr), 7u);
    char path[260] = {};
    EXPECT_NE(suite.getGlobalSettingsFile(path, sizeof path), 0u);
    EXPECT_STREQ(path, "C:\\partial-suite\\settings.xml");
    EXPECT_EQ(suite.getGlobalSettingsFile(path, 4), 0u);
}

// The default module stands in a folder of its own, beside a copy of the suite double.
class ResourceLibraryTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = dxtest::MakeTempDirectory("resources");
        ASSERT_TRUE(dxtest::CopyInto(PartialSuite(), folder, "anchor.dll"));
        ASSERT_TRUE(dxtest::CopyInto(PartialSuite(), folder, "KVTSOCK2.DLL"));
        anchor = LoadLibraryA((folder + "anchor.dll").c_str());
        ASSERT_NE(anchor, nullptr);
    }
    void TearDown() override {
        if (anchor != nullptr) FreeLibrary(anchor);
        dxtest::RemoveTree(folder);
    }
    std::string Suite() const { return folder + "KVTSOCK2.DLL"; }
    std::string folder;
    HMODULE anchor = nullptr;
};

TEST_F(ResourceLibraryTest, InitialiseRefusesANullOrEmptyName) {
    CResourceLibrary resources;
    EXPECT_EQ(resources.Initialise(anchor, nullptr), 87u);
    EXPECT_EQ(resources.Initialise(anchor, ""), 87u);
    EXPECT_EQ(resources.Initialise(anchor, "partial-suite-self"), 0u);
    HMODULE named = resources.GetHandle();
    EXPECT_EQ(dxtest::ModulePath(named), Suite());
}

TEST_F(ResourceLibraryTest, NameIsCutTo259Characters) {
    // The suite double offers a library for any name that ends in "partial-suite-self".
    std::string whole = std::string(259 - 18, 'x') + "partial-suite-self";
    CResourceLibrary kept;
    EXPECT_EQ(kept.Initialise(anchor, whole.c_str()), 0u);
    EXPECT_NE(kept.GetHandle(), anchor);
    std::string longer = "x" + whole;  // 260: its last character is cut away
    CResourceLibrary cut;
    EXPECT_EQ(cut.Initialise(anchor, longer.c_str()), 0u);
    EXPECT_EQ(cut.GetHandle(), anchor);
}

TEST_F(ResourceLibraryTest, SuiteWithoutResourcesLeavesTheDefaultModuleAndSetsTheLanguage) {
    CResourceLibrary resources;
    resources.Initialise(anchor, "DXSOCKS.DLL");
    EXPECT_EQ(resources.GetHandle(), anchor);
    EXPECT_EQ(resources.GetHandle(), anchor);
    // The suite wrote its language into the word that was handed to it by address.
    EXPECT_EQ(resources.SetLanguage(0x0409), 0x0407u);
    EXPECT_EQ(resources.SetLanguageKeepingModule(0x0410), 0x0409u);
}

TEST_F(ResourceLibraryTest, SetLanguageForgetsTheModuleAndAsksAgain) {
    CResourceLibrary resources;
    resources.Initialise(anchor, "partial-suite-self");
    HMODULE first = resources.GetHandle();
    ASSERT_NE(first, anchor);
    // The releasing form gives the library back; the suite is asked again and gives a new reference.
    resources.SetLanguage(0x0409);
    HMODULE second = resources.GetHandle();
    EXPECT_EQ(second, first);
    char text[16];
    EXPECT_EQ(resources.LoadResourceString(1, text, sizeof text), 0);  // the double holds no strings
}

class SetUIProcTest : public ::testing::Test {
protected:
    void SetUp() override {
        savedModule = g_hModule;
        ReleaseUILibrary();
    }
    void TearDown() override {
        ReleaseUILibrary();
        g_hModule = savedModule;
        for (HMODULE module : loaded) FreeLibrary(module);
        for (const std::string& folder : folders) dxtest::RemoveTree(folder);
    }
    static void ReleaseUILibrary() {
        if (g_hSetUILibrary != nullptr) FreeLibrary(g_hSetUILibrary);
        g_hSetUILibrary = nullptr;
    }
    // Loads a stand-in for this library from a folder whose module path has `pathLength`
    // characters, with a UI library (the suite double under that name) beside it.
    HMODULE AnchorWithPathLength(size_t pathLength) {
        std::string base = dxtest::MakeTempDirectory("ui");
        folders.push_back(base);
        const std::string file = "a.dll";
        size_t fill = pathLength - base.size() - 1 - file.size();  // one backslash behind the fill
        std::string folder = base + std::string(fill, 'd') + "\\";
        EXPECT_TRUE(CreateDirectoryA(folder.c_str(), nullptr)) << folder.size();
        EXPECT_TRUE(dxtest::CopyInto(PartialSuite(), folder, file));
        EXPECT_TRUE(dxtest::CopyInto(PartialSuite(), folder, "pxmSetUI.dll"));
        HMODULE module = LoadLibraryA((folder + file).c_str());
        EXPECT_NE(module, nullptr) << folder + file;
        if (module != nullptr) loaded.push_back(module);
        return module;
    }
    HMODULE savedModule = nullptr;
    std::vector<HMODULE> loaded;
    std::vector<std::string> folders;
};

TEST_F(SetUIProcTest, FindsTheUILibraryBesideThisLibrary) {
    g_hModule = AnchorWithPathLength(120);
    auto entry = reinterpret_cast<DWORD(WINAPI*)()>(reinterpret_cast<void*>(GetSetUIProc("PXMMSIgetLangID")));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry(), 0x1234u);
    EXPECT_NE(g_hSetUILibrary, nullptr);
    EXPECT_EQ(GetSetUIProc("PXMSETUIDLL_NoSuchExport"), nullptr);
}

TEST_F(SetUIProcTest, ModulePathOf260CharactersLoadsNothingAndTheNextCallTriesAgain) {
    g_hModule = AnchorWithPathLength(260);
    if (g_hModule == nullptr) return;
    EXPECT_EQ(GetSetUIProc("PXMMSIgetLangID"), nullptr);
    EXPECT_EQ(g_hSetUILibrary, nullptr);
    EXPECT_EQ(GetModuleHandleA("pxmSetUI.dll"), nullptr);

    g_hModule = AnchorWithPathLength(100);
    EXPECT_NE(GetSetUIProc("PXMMSIgetLangID"), nullptr);
}

TEST_F(SetUIProcTest, DirectoryTooLongForTheFileNameSetsInsufficientBuffer) {
    // A folder of 250 characters with its backslash, and "a.dll": 263 with "pxmSetUI.dll".
    g_hModule = AnchorWithPathLength(255);
    if (g_hModule == nullptr) return;
    SetLastError(0);
    EXPECT_EQ(GetSetUIProc("PXMMSIgetLangID"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(GetModuleHandleA("pxmSetUI.dll"), nullptr);
}

TEST_F(SetUIProcTest, PathOfExactly260LoadsNothingWithoutAnError) {
    g_hModule = AnchorWithPathLength(252);  // folder 247 + 13 = 260
    if (g_hModule == nullptr) return;
    SetLastError(77);
    EXPECT_EQ(GetSetUIProc("PXMMSIgetLangID"), nullptr);
    EXPECT_EQ(GetLastError(), 0u);
    g_hModule = AnchorWithPathLength(251);  // 259: loads
    EXPECT_NE(GetSetUIProc("PXMMSIgetLangID"), nullptr);
}

TEST(TopLevelParentTest, FollowsParentsToTheTop) {
    EXPECT_EQ(TopLevelParent(nullptr), nullptr);
    HWND top = CreateWindowExA(0, "STATIC", "", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    HWND middle = CreateWindowExA(0, "STATIC", "", WS_CHILD, 0, 0, 10, 10, top, nullptr, nullptr, nullptr);
    HWND bottom = CreateWindowExA(0, "STATIC", "", WS_CHILD, 0, 0, 10, 10, middle, nullptr, nullptr, nullptr);
    EXPECT_EQ(TopLevelParent(bottom), top);
    EXPECT_EQ(TopLevelParent(top), top);
    DestroyWindow(top);
}

}  // namespace
