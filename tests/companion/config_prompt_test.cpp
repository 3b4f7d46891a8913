// pxmSetUI.dll's first-use prompt as DXSOCKS.DLL raises it when a program wants a proxy and none is
// configured: modal on the calling thread, driven from a second thread. Configure runs the editor of
// the DXSOCKS.DLL loaded in the process: here a stand-in whose editors are message boxes.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "companion_support.h"
#include "editor_double.h"
#include "prompt_window.h"
#include "setui_ids.h"
#include "suite_entries.h"

namespace {

using ctest::Entry;
using dxtest::FindDialog;
using dxtest::FindPrompt;
using dxtest::ItemText;
using dxtest::Press;

constexpr int kMessageBoxText = 65535;

struct Seen {
    HWND dialog = nullptr;
    std::string message;
    std::string configure;
    std::string cancel;
    HWND owner = nullptr;
    bool forcedClose = false;
};

class ConfigPromptTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { setui = ctest::LoadBeside("pxmSetUI.dll"); }

    void SetUp() override {
        ASSERT_NE(setui, nullptr) << "pxmSetUI.dll not beside the test program";
        prompt = Entry<PFN_PXMSETUIDLL_DxsocksConfig>(setui, "PXMSETUIDLL_DxsocksConfig");
        onTimeout = Entry<PFN_PXMSETUIDLL_OnTimeout>(setui, "PXMSETUIDLL_OnTimeout");
        ASSERT_NE(prompt, nullptr);
        ASSERT_NE(onTimeout, nullptr);
        ASSERT_EQ(GetModuleHandleA("DXSOCKS.DLL"), nullptr) << "a DXSOCKS.DLL is left loaded";
    }

    void TearDown() override {
        if (owner != nullptr) DestroyWindow(owner);
        if (editor != nullptr) FreeLibrary(editor);
    }

    // Loads the stand-in DXSOCKS.DLL of `folder` (under build/doubles) with OK answering `okResult`.
    void LoadEditor(const char* folder, int okResult) {
        std::string path = ctest::ProgramFolder() + "\\..\\doubles\\" + folder + "\\DXSOCKS.DLL";
        editor = LoadLibraryA(path.c_str());
        ASSERT_NE(editor, nullptr) << path;
        auto script = Entry<PFN_EditorDoubleScript>(editor, "EditorDoubleScript");
        ASSERT_NE(script, nullptr);
        script(okResult);
    }

    EditorDoubleRecord Recording() {
        EditorDoubleRecord record = {};
        auto recording = Entry<PFN_EditorDoubleRecording>(editor, "EditorDoubleRecording");
        if (recording != nullptr) recording(&record);
        return record;
    }

    // Raises the prompt on this thread while `drive` acts on it from a second thread; a prompt still
    // open a while after `drive` is cancelled, so that no test hangs.
    DWORD Run(DWORD family, const std::function<void(HWND)>& drive) {
        DWORD promptThread = GetCurrentThreadId();
        const char* title = family == 1 ? SETUI_TITLE_CONFIG_HTTP : SETUI_TITLE_CONFIG_SOCKS;
        std::atomic<bool> done{false};
        std::thread driver([&]() {
            HWND dialog = FindPrompt(promptThread, title);
            if (dialog == nullptr) return;
            seen.dialog = dialog;
            seen.message = ItemText(dialog, SETUI_IDC_CONFIG_MESSAGE);
            seen.configure = ItemText(dialog, SETUI_IDC_CONFIGURE);
            seen.cancel = ItemText(dialog, IDCANCEL);
            seen.owner = GetWindow(dialog, GW_OWNER);
            drive(dialog);
            for (int waited = 0; !done && waited < 8000; waited += 10) Sleep(10);
            if (!done) {
                seen.forcedClose = true;
                onTimeout();
            }
        });
        DWORD result = prompt(0x0409, owner, 1, 0, family);
        done = true;
        driver.join();
        return result;
    }

    // Presses Configure, then `button` in the editor that opens over the prompt.
    static void ConfigureAndPress(HWND dialog, const char* editorTitle, int button, HWND* editorWindow = nullptr) {
        Press(dialog, SETUI_IDC_CONFIGURE);
        HWND box = FindDialog(GetWindowThreadProcessId(dialog, nullptr), kMessageBoxText, editorTitle);
        if (editorWindow != nullptr) *editorWindow = box;
        if (box != nullptr && button != 0) Press(box, button);
    }

    static HMODULE setui;
    PFN_PXMSETUIDLL_DxsocksConfig prompt = nullptr;
    PFN_PXMSETUIDLL_OnTimeout onTimeout = nullptr;
    HMODULE editor = nullptr;
    HWND owner = nullptr;
    Seen seen;
};

HMODULE ConfigPromptTest::setui = nullptr;

TEST_F(ConfigPromptTest, StandsAtOrdinalOne) {
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(setui, MAKEINTRESOURCEA(1))), reinterpret_cast<void*>(prompt));
}

TEST_F(ConfigPromptTest, NamesTheProgramAndTheFamily) {
    DWORD result = Run(0, [](HWND dialog) { Press(dialog, IDCANCEL); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    ASSERT_NE(seen.dialog, nullptr) << "no prompt titled " SETUI_TITLE_CONFIG_SOCKS;
    EXPECT_EQ(seen.message.rfind("companion_tests.exe ", 0), 0u) << seen.message;
    EXPECT_NE(seen.message.find("SOCKS"), std::string::npos) << seen.message;
    EXPECT_EQ(seen.message.find("HTTP"), std::string::npos) << seen.message;
    EXPECT_EQ(seen.configure, "&Configure...");
    EXPECT_EQ(seen.cancel, "Cancel");
}

TEST_F(ConfigPromptTest, TheHttpFamilyHasItsOwnTitleAndText) {
    DWORD result = Run(1, [](HWND dialog) { Press(dialog, IDCANCEL); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    ASSERT_NE(seen.dialog, nullptr) << "no prompt titled " SETUI_TITLE_CONFIG_HTTP;
    EXPECT_NE(seen.message.find("HTTP"), std::string::npos) << seen.message;
}

TEST_F(ConfigPromptTest, EscAndTheCloseBoxCancel) {
    DWORD result = Run(0, [](HWND dialog) {
        PostMessageA(GetDlgItem(dialog, SETUI_IDC_CONFIGURE), WM_KEYDOWN, VK_ESCAPE, 0);
    });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    EXPECT_FALSE(seen.forcedClose);
    seen = Seen();
    result = Run(0, [](HWND dialog) { PostMessageA(dialog, WM_SYSCOMMAND, SC_CLOSE, 0); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    EXPECT_FALSE(seen.forcedClose);
}

TEST_F(ConfigPromptTest, OwnedByTheGivenWindowAndUnownedForABogusOne) {
    owner = ctest::MakeTopWindow("first-use owner", RECT{100, 100, 500, 400});
    ASSERT_NE(owner, nullptr);
    Run(0, [](HWND dialog) { Press(dialog, IDCANCEL); });
    EXPECT_EQ(seen.owner, owner);
    DestroyWindow(owner);
    HWND gone = owner;
    owner = gone;  // a handle that no longer names a window
    seen = Seen();
    DWORD result = Run(0, [](HWND dialog) { Press(dialog, IDCANCEL); });
    owner = nullptr;
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    ASSERT_NE(seen.dialog, nullptr);
    EXPECT_EQ(seen.owner, nullptr);
}

TEST_F(ConfigPromptTest, ConfigureWithoutDxsocksCancels) {
    DWORD result = Run(0, [](HWND dialog) { Press(dialog, SETUI_IDC_CONFIGURE); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    EXPECT_FALSE(seen.forcedClose);
}

TEST_F(ConfigPromptTest, ConfigureWithADxsocksWithoutEditorsCancels) {
    LoadEditor("editor_bare", 1);
    DWORD result = Run(0, [](HWND dialog) { Press(dialog, SETUI_IDC_CONFIGURE); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    EXPECT_FALSE(seen.forcedClose);
}

TEST_F(ConfigPromptTest, AnEditorThatSavedEndsThePromptWithOne) {
    LoadEditor("editor", 1);
    DWORD result = Run(0, [](HWND dialog) { ConfigureAndPress(dialog, EDITOR_DOUBLE_SOCKS_TITLE, IDOK); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_OK));
    EXPECT_FALSE(seen.forcedClose);
    EditorDoubleRecord record = Recording();
    EXPECT_EQ(record.socksCalls, 1);
    EXPECT_EQ(record.httpCalls, 0);
    EXPECT_EQ(record.owner, seen.dialog);
}

TEST_F(ConfigPromptTest, TheHttpFamilyRunsTheHttpEditor) {
    LoadEditor("editor", 1);
    DWORD result = Run(1, [](HWND dialog) { ConfigureAndPress(dialog, EDITOR_DOUBLE_HTTP_TITLE, IDOK); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_OK));
    EditorDoubleRecord record = Recording();
    EXPECT_EQ(record.socksCalls, 0);
    EXPECT_EQ(record.httpCalls, 1);
}

TEST_F(ConfigPromptTest, AnEditorThatDidNotSaveLeavesThePromptOpen) {
    LoadEditor("editor", 0);
    bool openAfterEditor = false;
    DWORD result = Run(0, [&](HWND dialog) {
        // OK that stores nothing, then Cancel in the editor: the prompt stays each time.
        ConfigureAndPress(dialog, EDITOR_DOUBLE_SOCKS_TITLE, IDOK);
        HWND again = nullptr;
        for (int waited = 0; waited < 5000 && again == nullptr; waited += 20) {
            Sleep(20);
            if (IsWindowEnabled(dialog)) again = dialog;
        }
        ConfigureAndPress(dialog, EDITOR_DOUBLE_SOCKS_TITLE, IDCANCEL);
        for (int waited = 0; waited < 5000 && !IsWindowEnabled(dialog); waited += 20) Sleep(20);
        openAfterEditor = IsWindow(dialog) && IsWindowVisible(dialog);
        Press(dialog, IDCANCEL);
    });
    EXPECT_TRUE(openAfterEditor);
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    EXPECT_FALSE(seen.forcedClose);
    EXPECT_EQ(Recording().socksCalls, 2);
}

TEST_F(ConfigPromptTest, ATimeOutClosesThePrompt) {
    DWORD result = Run(0, [&](HWND) { onTimeout(); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_TIMED_OUT));
    EXPECT_FALSE(seen.forcedClose);
}

TEST_F(ConfigPromptTest, ATimeOutClosesTheEditorAndThenThePrompt) {
    LoadEditor("editor", 1);
    HWND box = nullptr;
    DWORD result = Run(0, [&](HWND dialog) {
        ConfigureAndPress(dialog, EDITOR_DOUBLE_SOCKS_TITLE, 0, &box);
        if (box != nullptr) onTimeout();
    });
    ASSERT_NE(box, nullptr) << "the editor did not open";
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_TIMED_OUT));
    EXPECT_FALSE(seen.forcedClose);
    EXPECT_FALSE(IsWindow(box));
    EditorDoubleRecord record = Recording();
    EXPECT_EQ(record.socksCalls, 1);
    EXPECT_TRUE(record.cancelled);
}

}  // namespace
