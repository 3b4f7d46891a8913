// KVTSOCK2.DLL as DXSOCKS.DLL uses it: loaded by name from beside the program, entries by GetProcAddress.
#include <gtest/gtest.h>
#include <shlobj.h>

#include <string>
#include <vector>

#include "companion_support.h"
#include "suite_entries.h"

namespace {

using ctest::Entry;

// The suite function table, in its order.
const char* const kSuiteEntries[] = {
    "PXMMSIexpandFolder",          "PXMMSIgetInstallDirectory",     "PXMMSIgetLogDirectory",
    "PXMMSIgetProductName",        "PXMMSIgetProductVersionString", "PXMMSIgetPXMFeatureState",
    "PXMMSIgetUserDirectory",      "PXMMSIinstallPXMFeature",       "PXMMSIloadResourceLibrary",
    "PXMMSIshowAboutBoxViewer",    "PXMMSIshowAboutBoxViewerEx",    "PXMMSIshowAboutBoxViewerW",
    "PXMMSIshowAboutBoxViewerExW", "PXMMSIshowHelpViewer",          "PXMMSIgetProductNameFTP",
    "PXMMSIsetLangOverrideRegKey", "PXMMSIsetUserDirectory",        "PXMMSIsetUserDirReg",
    "PXMMSIsetLogDirectory",       "PXMMSIsetLogDirReg",            "PXMMSIcenterWindow",
    "PXMMSIcascadeWindow",         "PXMMSIoffsetRectOnScreen",      "PXMMSIcreateDirectory",
    "PXMMSIgetLangID",             "PXMMSIelevateUAC",              "PXMMSIisKerberosEnabled",
    "PXMMSIgetGlobalSettingsFile", "PXMMSIgetAppDataFileFolder",    "PXMMSIgetPKIAppDataFileFolder",
    "PXMMSIisUserAdmin",
};

std::string KnownFolder(int csidl) {
    char path[MAX_PATH] = {};
    return SUCCEEDED(SHGetFolderPathA(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path)) ? path : "";
}

std::string DataFolder() { return KnownFolder(CSIDL_APPDATA) + "\\Zelmont\\Verdane"; }

// Where a child case puts its copies of the suite library.
const char kCopyFolderVariable[] = "DXTEST_SUITE_COPY_FOLDER";

std::string CopyFolder() { return ctest::Environment(kCopyFolderVariable); }

// Runs `childCase` in a process of its own with a fresh folder for its copies: a suite library once
// loaded stays until its process ends, so the copy goes with the folder only after the child.
void RunWithACopyFolder(const std::string& childCase) {
    ctest::TempFolder folder;
    SetEnvironmentVariableA(kCopyFolderVariable, folder.Path().c_str());
    EXPECT_EQ(ctest::RunChildCases(childCase, 60000), 0u);
    SetEnvironmentVariableA(kCopyFolderVariable, nullptr);
}

class SuiteTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { suite = ctest::LoadBeside("KVTSOCK2.DLL"); }

    void SetUp() override { ASSERT_NE(suite, nullptr) << "KVTSOCK2.DLL not beside the test program"; }

    template <typename F>
    F Get(const char* name) {
        F f = Entry<F>(suite, name);
        EXPECT_NE(f, nullptr) << name;
        return f;
    }

    // A getter of text called with a buffer of `size` bytes; returns the result and the buffer's text.
    template <typename F>
    std::pair<DWORD, std::string> Text(F getter, DWORD size) {
        std::vector<char> buffer(size + 1, 'x');
        DWORD result = getter(buffer.data(), size);
        return {result, std::string(buffer.data())};
    }

    static HMODULE suite;
};

HMODULE SuiteTest::suite = nullptr;

TEST_F(SuiteTest, EveryEntryOfTheTableIsExported) {
    EXPECT_EQ(sizeof kSuiteEntries / sizeof kSuiteEntries[0], 31u);
    for (const char* name : kSuiteEntries) {
        EXPECT_NE(GetProcAddress(suite, name), nullptr) << name;
    }
}

// DXSOCKS.DLL loads and releases the suite library around each use: once loaded, the library stays,
// so that a release neither unloads it nor leaves the next use a load from the file. Run in a process
// of its own, where nothing else has loaded it.
TEST(SuiteLibraryLifetimeTest, StaysLoadedAfterEveryRelease) {
    EXPECT_EQ(ctest::RunChildCases("SuiteLibraryLifetimeChild.*", 30000), 0u);
}

// Not a test of its own: the child process of the test above, which runs it by name.
TEST(SuiteLibraryLifetimeChild, DISABLED_LoadAndReleaseAsDxsocksDoes) {
    ASSERT_EQ(GetModuleHandleA("KVTSOCK2.DLL"), nullptr) << "loaded before the first use";
    HMODULE first = ctest::LoadBeside("KVTSOCK2.DLL");
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_EQ(GetModuleHandleA("KVTSOCK2.DLL"), first);
    // Each later use is the same module; more releases than loads still leave it.
    for (int use = 0; use < 3; ++use) {
        HMODULE again = ctest::LoadBeside("KVTSOCK2.DLL");
        EXPECT_EQ(again, first);
        FreeLibrary(again);
        FreeLibrary(again);
    }
    EXPECT_EQ(GetModuleHandleA("KVTSOCK2.DLL"), first);
    // Its entries still answer after the releases.
    auto getFile = Entry<PFN_PXMMSIgetGlobalSettingsFile>(first, "PXMMSIgetGlobalSettingsFile");
    ASSERT_NE(getFile, nullptr);
    char path[260] = {};
    EXPECT_NE(getFile(path, sizeof path), 0u);
    EXPECT_TRUE(ctest::SamePath(ctest::ModulePath(first), ctest::ProgramFolder() + "\\KVTSOCK2.DLL"));
}

TEST_F(SuiteTest, GlobalSettingsFileLiesInTheUsersDataFolderWhichItMakes) {
    auto getFile = Get<PFN_PXMMSIgetGlobalSettingsFile>("PXMMSIgetGlobalSettingsFile");
    std::string folder = DataFolder();
    // An empty folder left by an earlier run goes, so that the call has to make it again.
    RemoveDirectoryA(folder.c_str());
    char path[260] = {};
    DWORD result = getFile(path, sizeof path);
    EXPECT_NE(result, 0u);
    EXPECT_TRUE(ctest::SamePath(path, folder + "\\Settings.xml")) << path;
    EXPECT_TRUE(ctest::IsFolder(folder)) << folder;
    // The per-user folder is the one that %APPDATA% names.
    std::string appData = ctest::Environment("APPDATA");
    ASSERT_FALSE(appData.empty());
    EXPECT_TRUE(ctest::SamePath(std::string(path).substr(0, appData.size()), appData)) << path;
}

// The user's folder is asked of the shell once; the data folder is still made at every call that
// finds it missing.
TEST_F(SuiteTest, SettingsFileFolderIsMadeAgainAtALaterCall) {
    auto getFile = Get<PFN_PXMMSIgetGlobalSettingsFile>("PXMMSIgetGlobalSettingsFile");
    char path[260] = {};
    ASSERT_NE(getFile(path, sizeof path), 0u);
    const std::string folder = DataFolder();
    const std::string aside = folder + "-aside-" + std::to_string(GetCurrentProcessId());
    ASSERT_TRUE(MoveFileA(folder.c_str(), aside.c_str())) << GetLastError();
    char again[260] = {};
    EXPECT_NE(getFile(again, sizeof again), 0u);
    EXPECT_STREQ(again, path);
    EXPECT_TRUE(ctest::IsFolder(folder));
    RemoveDirectoryA(folder.c_str());
    EXPECT_TRUE(MoveFileA(aside.c_str(), folder.c_str())) << GetLastError();
}

TEST_F(SuiteTest, SettingsFileInATooSmallBufferGivesZeroAndAnEmptyBuffer) {
    auto getFile = Get<PFN_PXMMSIgetGlobalSettingsFile>("PXMMSIgetGlobalSettingsFile");
    auto [result, path] = Text(getFile, 260);
    ASSERT_NE(result, 0u);
    DWORD exact = static_cast<DWORD>(path.size() + 1);
    auto fits = Text(getFile, exact);
    EXPECT_NE(fits.first, 0u);
    EXPECT_EQ(fits.second, path);
    auto tooSmall = Text(getFile, exact - 1);
    EXPECT_EQ(tooSmall.first, 0u);
    EXPECT_EQ(tooSmall.second, "");
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(getFile(nullptr, 260), 0u);
    char one = 'x';
    EXPECT_EQ(getFile(&one, 0), 0u);
    EXPECT_EQ(one, 'x');
}

// The resource library of DXSOCKS.DLL that a call loaded, and the language word it left.
struct Loaded {
    HMODULE module;
    DWORD language;
};

class ResourceLookupTest : public SuiteTest {
protected:
    Loaded Load(const char* baseName, DWORD language) {
        auto load = Get<PFN_PXMMSIloadResourceLibrary>("PXMMSIloadResourceLibrary");
        Loaded loaded = {nullptr, language};
        loaded.module = load(baseName, &loaded.language);
        if (loaded.module != nullptr) modules.push_back(loaded.module);
        return loaded;
    }
    void TearDown() override {
        for (HMODULE module : modules) FreeLibrary(module);
    }
    static std::string FileName(HMODULE module) {
        std::string path = ctest::ModulePath(module);
        return path.substr(path.find_last_of('\\') + 1);
    }
    static std::string String(HMODULE module, UINT id) {
        char text[256] = {};
        LoadStringA(module, id, text, sizeof text);
        return text;
    }
    std::vector<HMODULE> modules;
};

TEST_F(ResourceLookupTest, LanguageZeroTakesTheUsersLanguageAndEndsInEnglish) {
    Loaded loaded = Load("DXSOCKS.DLL", 0);
    ASSERT_NE(loaded.module, nullptr);
    EXPECT_EQ(loaded.language, 0x0409u);
    EXPECT_TRUE(ctest::SamePath(FileName(loaded.module), "DXSOCKS_0409.DLL")) << ctest::ModulePath(loaded.module);
    EXPECT_EQ(String(loaded.module, 1), "Destination");
}

TEST_F(ResourceLookupTest, EnglishIsFoundBesideTheSuiteLibrary) {
    Loaded loaded = Load("DXSOCKS.DLL", 0x0409);
    ASSERT_NE(loaded.module, nullptr);
    EXPECT_EQ(loaded.language, 0x0409u);
    EXPECT_TRUE(ctest::SamePath(ctest::ModulePath(loaded.module), ctest::ProgramFolder() + "\\DXSOCKS_0409.DLL"));
}

TEST_F(ResourceLookupTest, ALanguageNotShippedFallsBackToEnglish) {
    for (DWORD language : {0x040Cu, 0x0809u, 0x0407u}) {
        Loaded loaded = Load("DXSOCKS.DLL", language);
        ASSERT_NE(loaded.module, nullptr) << std::hex << language;
        EXPECT_EQ(loaded.language, 0x0409u) << std::hex << language;
        EXPECT_TRUE(ctest::SamePath(FileName(loaded.module), "DXSOCKS_0409.DLL"));
    }
}

TEST_F(ResourceLookupTest, ABaseNameWithoutResourcesGivesNullAndKeepsTheWord) {
    Loaded loaded = Load("NORESOURCES.DLL", 0x0409);
    EXPECT_EQ(loaded.module, nullptr);
    EXPECT_EQ(loaded.language, 0x0409u);
    auto load = Get<PFN_PXMMSIloadResourceLibrary>("PXMMSIloadResourceLibrary");
    DWORD language = 0;
    EXPECT_EQ(load(nullptr, &language), nullptr);
    EXPECT_EQ(load("", &language), nullptr);
}

// A loaded module named by the base name decides the folder; its own language files win there.
TEST_F(ResourceLookupTest, TheFolderOfALoadedModuleOfThatNameIsSearched) {
    ctest::TempFolder folder;
    std::string source = ctest::ProgramFolder() + "\\DXSOCKS_0409.DLL";
    // Any module will do as the named one; a resource-only library loads without running code.
    ASSERT_TRUE(CopyFileA(source.c_str(), (folder / "SAMPLEMOD.DLL").c_str(), FALSE));
    ASSERT_TRUE(CopyFileA(source.c_str(), (folder / "SAMPLEMOD_0409.DLL").c_str(), FALSE));
    ASSERT_TRUE(CopyFileA(source.c_str(), (folder / "SAMPLEMOD_040c.DLL").c_str(), FALSE));

    EXPECT_EQ(Load("SAMPLEMOD.DLL", 0x0409).module, nullptr);  // not loaded: the suite's folder has none

    HMODULE named = LoadLibraryA((folder / "SAMPLEMOD.DLL").c_str());
    ASSERT_NE(named, nullptr);
    Loaded english = Load("SAMPLEMOD.DLL", 0x0409);
    Loaded french = Load("SAMPLEMOD.DLL", 0x040C);
    Loaded canadian = Load("SAMPLEMOD.DLL", 0x0C0C);  // French (Canada) finds French (France)
    ASSERT_NE(english.module, nullptr);
    ASSERT_NE(french.module, nullptr);
    ASSERT_NE(canadian.module, nullptr);
    EXPECT_TRUE(ctest::SamePath(ctest::ModulePath(english.module), folder / "SAMPLEMOD_0409.DLL"));
    EXPECT_TRUE(ctest::SamePath(ctest::ModulePath(french.module), folder / "SAMPLEMOD_040c.DLL"));
    EXPECT_EQ(french.language, 0x040Cu);
    EXPECT_EQ(canadian.language, 0x040Cu);
    for (HMODULE module : modules) FreeLibrary(module);
    modules.clear();
    FreeLibrary(named);
}

TEST_F(SuiteTest, LanguageIsTheUsersUiLanguageUnlessOverridden) {
    auto getLanguage = Get<PFN_PXMMSIgetLangID>("PXMMSIgetLangID");
    auto setOverride = Get<PFN_PXMMSIsetLangOverrideRegKey>("PXMMSIsetLangOverrideRegKey");
    EXPECT_EQ(getLanguage(), static_cast<DWORD>(GetUserDefaultUILanguage()));
    EXPECT_EQ(setOverride(0x040C), 1u);
    EXPECT_EQ(getLanguage(), 0x040Cu);
    EXPECT_EQ(setOverride(0), 1u);
    EXPECT_EQ(getLanguage(), static_cast<DWORD>(GetUserDefaultUILanguage()));
}

class PlacementTest : public SuiteTest {
protected:
    void TearDown() override {
        for (HWND window : windows) DestroyWindow(window);
    }
    HWND Window(const RECT& rect) {
        HWND window = ctest::MakeTopWindow("placement", rect);
        EXPECT_NE(window, nullptr);
        windows.push_back(window);
        return window;
    }
    static RECT Rect(HWND window) {
        RECT rect = {};
        GetWindowRect(window, &rect);
        return rect;
    }
    static LONG Width(const RECT& r) { return r.right - r.left; }
    static LONG Height(const RECT& r) { return r.bottom - r.top; }
    static void ExpectCentredOn(const RECT& inner, const RECT& outer) {
        EXPECT_LE(std::abs((inner.left + inner.right) - (outer.left + outer.right)), 1)
            << inner.left << "," << inner.right << " in " << outer.left << "," << outer.right;
        EXPECT_LE(std::abs((inner.top + inner.bottom) - (outer.top + outer.bottom)), 1)
            << inner.top << "," << inner.bottom << " in " << outer.top << "," << outer.bottom;
    }
    std::vector<HWND> windows;
};

TEST_F(PlacementTest, CentresOnAVisibleParent) {
    auto center = Get<PFN_PXMMSIcenterWindow>("PXMMSIcenterWindow");
    HWND parent = Window({200, 150, 800, 550});
    HWND window = Window({0, 0, 300, 200});
    center(window, parent);
    RECT placed = Rect(window);
    EXPECT_EQ(placed.left, 350);
    EXPECT_EQ(placed.top, 250);
    EXPECT_EQ(Width(placed), 300);
    EXPECT_EQ(Height(placed), 200);
}

TEST_F(PlacementTest, CentresOnTheWorkAreaWithoutAParentOrWithAHiddenOne) {
    auto center = Get<PFN_PXMMSIcenterWindow>("PXMMSIcenterWindow");
    HWND window = Window({10, 10, 310, 210});
    center(window, nullptr);
    RECT area = ctest::WorkAreaOf(Rect(window));
    ExpectCentredOn(Rect(window), area);

    HWND hidden = Window({0, 0, 200, 100});
    ShowWindow(hidden, SW_HIDE);
    SetWindowPos(window, nullptr, 5, 5, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
    center(window, hidden);
    ExpectCentredOn(Rect(window), area);
}

TEST_F(PlacementTest, AWindowCentredNearTheEdgeStaysOnTheWorkArea) {
    auto center = Get<PFN_PXMMSIcenterWindow>("PXMMSIcenterWindow");
    RECT area = ctest::WorkAreaOf({0, 0, 100, 100});
    HWND parent = Window({area.right - 100, area.bottom - 80, area.right, area.bottom});
    HWND window = Window({0, 0, 400, 300});
    center(window, parent);
    RECT placed = Rect(window);
    EXPECT_EQ(placed.right, area.right);
    EXPECT_EQ(placed.bottom, area.bottom);
    EXPECT_EQ(Width(placed), 400);
}

TEST_F(PlacementTest, CascadePlacesBelowAndRightOfTheReference) {
    auto cascade = Get<PFN_PXMMSIcascadeWindow>("PXMMSIcascadeWindow");
    HWND reference = Window({100, 100, 500, 400});
    HWND window = Window({0, 0, 200, 150});
    cascade(window, reference);
    RECT placed = Rect(window);
    EXPECT_GT(placed.left, 100);
    EXPECT_EQ(placed.left - 100, placed.top - 100);
    EXPECT_EQ(Width(placed), 200);
}

TEST_F(SuiteTest, OffsetRectOnScreenMovesARectangleOntoTheWorkArea) {
    auto offset = Get<PFN_PXMMSIoffsetRectOnScreen>("PXMMSIoffsetRectOnScreen");
    RECT area = ctest::WorkAreaOf({0, 0, 100, 100});
    RECT rect = {area.right - 50, area.bottom - 20, area.right + 150, area.bottom + 80};
    EXPECT_EQ(offset(&rect), 1u);
    EXPECT_EQ(rect.right, area.right);
    EXPECT_EQ(rect.bottom, area.bottom);
    EXPECT_EQ(rect.right - rect.left, 200);
    RECT inside = {area.left + 10, area.top + 10, area.left + 50, area.top + 50};
    RECT before = inside;
    EXPECT_EQ(offset(&inside), 1u);
    EXPECT_TRUE(EqualRect(&inside, &before));
    EXPECT_EQ(offset(nullptr), 0u);
}

class HelpViewerTest : public SuiteTest {
protected:
    void SetUp() override {
        SuiteTest::SetUp();
        record = folder / "record.txt";
        SetEnvironmentVariableA("DXSOCKS_HELP_VIEWER", (ctest::ProgramFolder() + "\\help_viewer_recorder.exe").c_str());
        SetEnvironmentVariableA("DXTEST_HELP_RECORD", record.c_str());
    }
    void TearDown() override {
        SetEnvironmentVariableA("DXSOCKS_HELP_VIEWER", nullptr);
        SetEnvironmentVariableA("DXTEST_HELP_RECORD", nullptr);
    }
    // The page that the viewer was started with, after a bounded wait; empty if it never ran.
    std::string RecordedPage(int timeoutMs = 10000) {
        for (int waited = 0; waited < timeoutMs; waited += 20) {
            HANDLE file = CreateFileA(record.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
            if (file != INVALID_HANDLE_VALUE) {
                char text[MAX_PATH + 1] = {};
                DWORD read = 0;
                ReadFile(file, text, MAX_PATH, &read, nullptr);
                CloseHandle(file);
                DeleteFileA(record.c_str());
                return std::string(text, read);
            }
            Sleep(20);
        }
        return "";
    }
    ctest::TempFolder folder;
    std::string record;
};

TEST_F(HelpViewerTest, EachHelpIdOpensItsPageFromTheHelpFolder) {
    auto show = Get<PFN_PXMMSIshowHelpViewer>("PXMMSIshowHelpViewer");
    const struct {
        DWORD helpId;
        const char* page;
    } cases[] = {{2002, "socks.html"}, {2004, "http.html"}, {0, "index.html"}, {2003, "index.html"}};
    for (const auto& c : cases) {
        std::string expected = ctest::ProgramFolder() + "\\help\\" + c.page;
        EXPECT_TRUE(ctest::Exists(expected)) << expected;
        EXPECT_EQ(show(nullptr, c.helpId, 5), 1u) << c.helpId;
        std::string page = RecordedPage();
        EXPECT_TRUE(ctest::SamePath(page, expected)) << c.helpId << ": " << page;
    }
}

TEST_F(HelpViewerTest, AViewerThatCannotStartGivesZero) {
    auto show = Get<PFN_PXMMSIshowHelpViewer>("PXMMSIshowHelpViewer");
    SetEnvironmentVariableA("DXSOCKS_HELP_VIEWER", (folder / "no-such-viewer.exe").c_str());
    EXPECT_EQ(show(nullptr, 2002, 5), 0u);
}

// A suite library installed without its help folder finds no page and starts nothing.
TEST_F(HelpViewerTest, AMissingPageGivesZeroAndStartsNoViewer) {
    RunWithACopyFolder("HelpViewerTest.DISABLED_AMissingPageGivesZeroAndStartsNoViewerChild");
}

// Not a test of its own: the child process of the test above, which runs it by name.
TEST_F(HelpViewerTest, DISABLED_AMissingPageGivesZeroAndStartsNoViewerChild) {
    const std::string elsewhere = CopyFolder();
    ASSERT_FALSE(elsewhere.empty()) << "runs only as the child of AMissingPageGivesZeroAndStartsNoViewer";
    std::string copy = elsewhere + "\\KVTSOCK2.DLL";
    ASSERT_TRUE(CopyFileA((ctest::ProgramFolder() + "\\KVTSOCK2.DLL").c_str(), copy.c_str(), FALSE));
    HMODULE other = LoadLibraryA(copy.c_str());
    ASSERT_NE(other, nullptr);
    ASSERT_NE(other, suite);
    auto show = Entry<PFN_PXMMSIshowHelpViewer>(other, "PXMMSIshowHelpViewer");
    ASSERT_NE(show, nullptr);
    EXPECT_EQ(show(nullptr, 2002, 5), 0u);
    EXPECT_EQ(RecordedPage(500), "");
    FreeLibrary(other);
}

TEST_F(SuiteTest, CreateDirectoryMakesAWholeTree) {
    auto create = Get<PFN_PXMMSIcreateDirectory>("PXMMSIcreateDirectory");
    ctest::TempFolder folder;
    std::string deep = folder / "a\\b\\c";
    EXPECT_EQ(create(const_cast<char*>(deep.c_str()), nullptr), 1u);
    EXPECT_TRUE(ctest::IsFolder(deep));
    EXPECT_EQ(create(const_cast<char*>(deep.c_str()), nullptr), 1u);  // already there
    std::string file = folder / "file";
    HANDLE handle = CreateFileA(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    CloseHandle(handle);
    std::string blocked = file + "\\below";
    EXPECT_EQ(create(const_cast<char*>(file.c_str()), nullptr), 0u);
    EXPECT_NE(GetLastError(), 0u);
    EXPECT_EQ(create(const_cast<char*>(blocked.c_str()), nullptr), 0u);
    EXPECT_FALSE(ctest::Exists(blocked));
    SetLastError(0);
    EXPECT_EQ(create(nullptr, nullptr), 0u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(SuiteTest, ExpandFolderReplacesTheFolderVocabulary) {
    auto expand = Get<PFN_PXMMSIexpandFolder>("PXMMSIexpandFolder");
    char out[MAX_PATH] = {};
    char perUser[] = "%AppDataFolder%\\Zelmont\\Verdane";
    EXPECT_NE(expand(perUser, out, sizeof out), 0u);
    EXPECT_TRUE(ctest::SamePath(out, DataFolder())) << out;
    char allUsers[] = "%commonappdatafolder%\\Zelmont\\Verdane";
    EXPECT_NE(expand(allUsers, out, sizeof out), 0u);
    EXPECT_TRUE(ctest::SamePath(out, KnownFolder(CSIDL_COMMON_APPDATA) + "\\Zelmont\\Verdane")) << out;
    char plain[] = "C:\\plain\\%other%";
    EXPECT_NE(expand(plain, out, sizeof out), 0u);
    EXPECT_STREQ(out, "C:\\plain\\%other%");
    char tiny[4] = "abc";
    EXPECT_EQ(expand(perUser, tiny, sizeof tiny), 0u);
    EXPECT_STREQ(tiny, "");
}

TEST_F(SuiteTest, UserAndLogFoldersDefaultToTheDataFolderAndCanBeSetForTheProcess) {
    auto getUser = Get<PFN_PXMMSIgetUserDirectory>("PXMMSIgetUserDirectory");
    auto getLog = Get<PFN_PXMMSIgetLogDirectory>("PXMMSIgetLogDirectory");
    auto setUser = Get<PFN_PXMMSIsetUserDirectory>("PXMMSIsetUserDirectory");
    auto setLog = Get<PFN_PXMMSIsetLogDirReg>("PXMMSIsetLogDirReg");
    EXPECT_TRUE(ctest::SamePath(Text(getUser, MAX_PATH).second, DataFolder()));
    EXPECT_TRUE(ctest::SamePath(Text(getLog, MAX_PATH).second, DataFolder() + "\\Logs"));
    EXPECT_TRUE(ctest::IsFolder(DataFolder() + "\\Logs"));

    ctest::TempFolder folder;
    std::string user = folder / "user";
    std::string log = folder / "log";
    EXPECT_EQ(setUser(const_cast<char*>(user.c_str())), 1u);
    EXPECT_EQ(setLog(const_cast<char*>(log.c_str())), 1u);
    EXPECT_TRUE(ctest::SamePath(Text(getUser, MAX_PATH).second, user));
    EXPECT_TRUE(ctest::SamePath(Text(getLog, MAX_PATH).second, log));
    EXPECT_TRUE(ctest::IsFolder(user));
    EXPECT_TRUE(ctest::IsFolder(log));

    char empty[] = "";
    EXPECT_EQ(setUser(empty), 1u);
    EXPECT_EQ(setLog(empty), 1u);
    EXPECT_EQ(setUser(nullptr), 0u);
    EXPECT_TRUE(ctest::SamePath(Text(getUser, MAX_PATH).second, DataFolder()));
    EXPECT_TRUE(ctest::SamePath(Text(getLog, MAX_PATH).second, DataFolder() + "\\Logs"));
}

TEST_F(SuiteTest, InstallFolderIsTheSuiteLibrarysFolder) {
    auto getInstall = Get<PFN_PXMMSIgetInstallDirectory>("PXMMSIgetInstallDirectory");
    EXPECT_TRUE(ctest::SamePath(Text(getInstall, MAX_PATH).second, ctest::ProgramFolder()));
}

// An installation folder whose name the ANSI code page cannot hold: the libraries are still found
// there, and the narrow folder handed out is its short form, which opens the same folder.
TEST_F(SuiteTest, AFolderOutsideTheCodePageIsHandedOutInItsShortForm) {
    RunWithACopyFolder("SuiteTest.DISABLED_AFolderOutsideTheCodePageIsHandedOutInItsShortFormChild");
}

// Not a test of its own: the child process of the test above, which runs it by name.
TEST_F(SuiteTest, DISABLED_AFolderOutsideTheCodePageIsHandedOutInItsShortFormChild) {
    const std::string folder = CopyFolder();
    ASSERT_FALSE(folder.empty()) << "runs only as the child of AFolderOutsideTheCodePageIsHandedOutInItsShortForm";
    std::wstring wideFolder = std::wstring(folder.begin(), folder.end()) + L"\\\u0416\u0443\u0440";
    ASSERT_TRUE(CreateDirectoryW(wideFolder.c_str(), nullptr));
    std::string program = ctest::ProgramFolder();
    std::wstring programFolder(program.begin(), program.end());
    for (const wchar_t* name : {L"KVTSOCK2.DLL", L"DXSOCKS_0409.DLL"}) {
        ASSERT_TRUE(CopyFileW((programFolder + L"\\" + name).c_str(), (wideFolder + L"\\" + name).c_str(), FALSE));
    }
    HMODULE other = LoadLibraryW((wideFolder + L"\\KVTSOCK2.DLL").c_str());
    ASSERT_NE(other, nullptr);
    ASSERT_NE(other, suite);

    auto getInstall = Entry<PFN_PXMMSIgetInstallDirectory>(other, "PXMMSIgetInstallDirectory");
    char narrow[MAX_PATH] = {};
    EXPECT_NE(getInstall(narrow, sizeof narrow), 0u);
    wchar_t shortForm[MAX_PATH] = {};
    ASSERT_NE(GetShortPathNameW(wideFolder.c_str(), shortForm, MAX_PATH), 0u);
    EXPECT_EQ(std::string(narrow).find('?'), std::string::npos) << narrow;
    EXPECT_TRUE(ctest::IsFolder(narrow)) << narrow;
    EXPECT_TRUE(ctest::Exists(std::string(narrow) + "\\DXSOCKS_0409.DLL")) << narrow;

    // The resource library beside it is found through the wide folder name.
    auto load = Entry<PFN_PXMMSIloadResourceLibrary>(other, "PXMMSIloadResourceLibrary");
    DWORD language = 0x0409;
    HMODULE resources = load("NOTLOADED.DLL", &language);
    EXPECT_EQ(resources, nullptr);
    std::wstring copied = wideFolder + L"\\NOTLOADED_0409.DLL";
    ASSERT_TRUE(CopyFileW((programFolder + L"\\DXSOCKS_0409.DLL").c_str(), copied.c_str(), FALSE));
    resources = load("NOTLOADED.DLL", &language);
    ASSERT_NE(resources, nullptr);
    wchar_t loadedPath[MAX_PATH] = {};
    GetModuleFileNameW(resources, loadedPath, MAX_PATH);
    EXPECT_EQ(lstrcmpiW(loadedPath, copied.c_str()), 0);
    FreeLibrary(resources);
    FreeLibrary(other);
}

TEST_F(SuiteTest, AppDataFilesLieInTheDataFolder) {
    auto getFile = Get<PFN_PXMMSIgetAppDataFileFolder>("PXMMSIgetAppDataFileFolder");
    char out[MAX_PATH] = {};
    char name[] = "notes.txt";
    EXPECT_NE(getFile(name, out, sizeof out), 0u);
    EXPECT_TRUE(ctest::SamePath(out, DataFolder() + "\\notes.txt")) << out;
    EXPECT_NE(getFile(nullptr, out, sizeof out), 0u);
    EXPECT_TRUE(ctest::SamePath(out, DataFolder())) << out;
}

TEST_F(SuiteTest, ProductNameAndVersion) {
    auto name = Get<PFN_PXMMSIgetProductName>("PXMMSIgetProductName");
    auto version = Get<PFN_PXMMSIgetProductVersionString>("PXMMSIgetProductVersionString");
    auto nameInto = Get<PFN_PXMMSIgetProductNameFTP>("PXMMSIgetProductNameFTP");
    EXPECT_STREQ(name(), "DXSOCKS");
    EXPECT_STREQ(version(), DX_PROJECT_VERSION);
    char out[32] = {};
    EXPECT_EQ(nameInto(out, sizeof out), 7u);
    EXPECT_STREQ(out, "DXSOCKS");
    EXPECT_EQ(nameInto(out, 7), 0u);
}

// Services the suite has nothing behind answer plainly and show nothing.
TEST_F(SuiteTest, ServicesWithoutSubstanceAnswerHarmlessly) {
    EXPECT_EQ(Get<PFN_PXMMSIgetPXMFeatureState>("PXMMSIgetPXMFeatureState")(nullptr), -1);
    EXPECT_EQ(Get<PFN_PXMMSIinstallPXMFeature>("PXMMSIinstallPXMFeature")(nullptr, nullptr),
              static_cast<DWORD>(ERROR_UNKNOWN_FEATURE));
    EXPECT_EQ(Get<PFN_PXMMSIshowAboutBoxViewer>("PXMMSIshowAboutBoxViewer")(nullptr, nullptr, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(Get<PFN_PXMMSIshowAboutBoxViewerEx>("PXMMSIshowAboutBoxViewerEx")(nullptr), 0u);
    EXPECT_EQ(Get<PFN_PXMMSIshowAboutBoxViewerW>("PXMMSIshowAboutBoxViewerW")(nullptr, nullptr, nullptr, nullptr, 0),
              0u);
    EXPECT_EQ(Get<PFN_PXMMSIshowAboutBoxViewerExW>("PXMMSIshowAboutBoxViewerExW")(nullptr), 0u);
    EXPECT_EQ(Get<PFN_PXMMSIelevateUAC>("PXMMSIelevateUAC")(nullptr), 0u);
    EXPECT_EQ(Get<PFN_PXMMSIisKerberosEnabled>("PXMMSIisKerberosEnabled")(), 0u);
    char out[MAX_PATH] = {};
    EXPECT_EQ(Get<PFN_PXMMSIgetPKIAppDataFileFolder>("PXMMSIgetPKIAppDataFileFolder")(nullptr, 0, nullptr, out,
                                                                                     sizeof out),
              0u);
    DWORD admin = Get<PFN_PXMMSIisUserAdmin>("PXMMSIisUserAdmin")(nullptr);
    EXPECT_EQ(admin, IsUserAnAdmin() ? 1u : 0u);
}

}  // namespace
