// pxmSetUI.dll's password prompt as DXSOCKS.DLL raises it: modal on the calling thread, driven here
// from a second thread that finds it by its title, reads what it shows, types and presses its buttons.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "companion_support.h"
#include "prompt_window.h"
#include "setui_ids.h"
#include "suite_entries.h"

namespace {

using ctest::Entry;

// What the driving thread saw of an open prompt.
struct Seen {
    HWND dialog = nullptr;
    std::string user;
    std::string address;
    std::string message;
    HWND owner = nullptr;
    RECT rect = {};
    bool forcedClose = false;  // the prompt did not end by itself and was cancelled
};

using dxtest::FindPrompt;
using dxtest::ItemText;
using dxtest::Press;
using dxtest::Type;

std::string Repeat(const std::string& piece, size_t length) {
    std::string text;
    while (text.size() < length) text += piece;
    return text.substr(0, length);
}

class PasswordPromptTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { setui = ctest::LoadBeside("pxmSetUI.dll"); }

    void SetUp() override {
        ASSERT_NE(setui, nullptr) << "pxmSetUI.dll not beside the test program";
        prompt = Entry<PFN_PXMSETUIDLL_DxsocksPwd>(setui, "PXMSETUIDLL_DxsocksPwd");
        onTimeout = Entry<PFN_PXMSETUIDLL_OnTimeout>(setui, "PXMSETUIDLL_OnTimeout");
        freeString = Entry<PFN_PXMSETUIDLL_FreeString>(setui, "PXMSETUIDLL_FreeString");
        ASSERT_NE(prompt, nullptr);
        ASSERT_NE(onTimeout, nullptr);
        ASSERT_NE(freeString, nullptr);
    }
    void TearDown() override {
        if (owner != nullptr) DestroyWindow(owner);
    }

    // Raises the prompt on this thread while `drive` acts on it from a second thread. If the prompt
    // is still open a while after `drive`, the driver cancels it, so that no test hangs.
    DWORD Run(DWORD family, const char* user, const char* address, DWORD maxLength, char** text,
              const std::function<void(HWND)>& drive) {
        DWORD promptThread = GetCurrentThreadId();
        const char* title = family == 1 ? SETUI_TITLE_HTTP : SETUI_TITLE_SOCKS;
        std::atomic<bool> done{false};
        std::thread driver([&]() {
            HWND dialog = FindPrompt(promptThread, title);
            if (dialog == nullptr) return;
            seen.dialog = dialog;
            seen.user = ItemText(dialog, SETUI_IDC_USER);
            seen.address = ItemText(dialog, SETUI_IDC_ADDRESS);
            seen.message = ItemText(dialog, SETUI_IDC_MESSAGE);
            seen.owner = GetWindow(dialog, GW_OWNER);
            GetWindowRect(dialog, &seen.rect);
            drive(dialog);
            for (int waited = 0; !done && waited < 5000; waited += 10) Sleep(10);
            if (!done) {
                seen.forcedClose = true;
                PostMessageA(dialog, WM_COMMAND, IDCANCEL, 0);
            }
        });
        DWORD result = prompt(0x0409, owner, 1, 0, family, user, address, maxLength, text);
        done = true;
        driver.join();
        return result;
    }

    // Types `typed` and presses OK; returns the result and the text handed out.
    std::pair<DWORD, std::string> Enter(const std::string& typed, DWORD maxLength, DWORD family = 0) {
        char* text = nullptr;
        DWORD result = Run(family, "alice", "127.0.0.1", maxLength, &text, [&](HWND dialog) {
            Type(dialog, typed);
            typedLength = GetWindowTextLengthA(GetDlgItem(dialog, SETUI_IDC_PASSWORD));
            Press(dialog, IDOK);
        });
        std::string password = text != nullptr ? text : "<null>";
        freeString(text);
        return {result, password};
    }

    static HMODULE setui;
    PFN_PXMSETUIDLL_DxsocksPwd prompt = nullptr;
    PFN_PXMSETUIDLL_OnTimeout onTimeout = nullptr;
    PFN_PXMSETUIDLL_FreeString freeString = nullptr;
    HWND owner = nullptr;
    Seen seen;
    int typedLength = -1;
};

HMODULE PasswordPromptTest::setui = nullptr;

TEST_F(PasswordPromptTest, OkHandsOutTheTypedPassword) {
    auto [result, password] = Enter("s3cret pass", 260);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(password, "s3cret pass");
    EXPECT_FALSE(seen.forcedClose);
    EXPECT_EQ(seen.user, "alice");
    EXPECT_EQ(seen.address, "127.0.0.1");
    EXPECT_NE(seen.message.find("SOCKS"), std::string::npos) << seen.message;
}

TEST_F(PasswordPromptTest, TheHttpFamilyHasItsOwnTitle) {
    auto [result, password] = Enter("pw", 128, 1);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(password, "pw");
    ASSERT_NE(seen.dialog, nullptr) << "no prompt titled " SETUI_TITLE_HTTP;
    EXPECT_NE(seen.message.find("HTTP"), std::string::npos) << seen.message;
}

TEST_F(PasswordPromptTest, AnEmptyPasswordIsStillAnEntry) {
    auto [result, password] = Enter("", 260);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(password, "");
}

TEST_F(PasswordPromptTest, CancelHandsOutNothing) {
    char* text = reinterpret_cast<char*>(1);
    DWORD result = Run(0, "alice", "127.0.0.1", 260, &text, [](HWND dialog) {
        Type(dialog, "typed but cancelled");
        Press(dialog, IDCANCEL);
    });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    EXPECT_EQ(text, nullptr);
    EXPECT_FALSE(seen.forcedClose);
}

TEST_F(PasswordPromptTest, TheCloseBoxCancels) {
    char* text = nullptr;
    DWORD result = Run(0, "alice", "127.0.0.1", 260, &text,
                       [](HWND dialog) { PostMessageA(dialog, WM_SYSCOMMAND, SC_CLOSE, 0); });
    EXPECT_NE(result, 1u);
    EXPECT_EQ(text, nullptr);
    EXPECT_FALSE(seen.forcedClose);
}

// maxLength counts the terminator: a buffer of 9 takes 8 characters.
TEST_F(PasswordPromptTest, AnOverlongPasswordIsCutToTheLimit) {
    auto [result, password] = Enter("abcdefghijklmnopqrst", 9);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(typedLength, 8);
    EXPECT_EQ(password, "abcdefgh");
}

TEST_F(PasswordPromptTest, TheSocksLimitTakes259Characters) {
    std::string typed = Repeat("0123456789", 300);
    auto [result, password] = Enter(typed, 260);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(password, typed.substr(0, 259));
}

TEST_F(PasswordPromptTest, A130CharacterPasswordFitsTheSocksLimit) {
    std::string typed = Repeat("Pa55-w0rd!", 130);
    auto [result, password] = Enter(typed, 260);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(password, typed);
}

TEST_F(PasswordPromptTest, ATimeOutFromAnotherThreadClosesThePromptAsDeclined) {
    char* text = nullptr;
    DWORD result = Run(0, "alice", "127.0.0.1", 260, &text, [this](HWND dialog) {
        Type(dialog, "half typed");
        onTimeout();
        onTimeout();  // a second time-out finds nothing more to do
    });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_TIMED_OUT));
    EXPECT_EQ(text, nullptr);
    EXPECT_FALSE(seen.forcedClose);
    onTimeout();  // and one after the prompt is gone
}

// Nothing is kept from a time-out with no prompt open: the next prompt stays until it is answered.
TEST_F(PasswordPromptTest, ATimeOutWithNoPromptOpenIsHarmless) {
    onTimeout();
    onTimeout();
    bool stillOpen = false;
    char* text = nullptr;
    DWORD result = Run(0, "alice", "127.0.0.1", 260, &text, [&](HWND dialog) {
        Sleep(300);
        stillOpen = IsWindow(dialog) && IsWindowVisible(dialog);
        Type(dialog, "later");
        Press(dialog, IDOK);
    });
    EXPECT_TRUE(stillOpen);
    EXPECT_EQ(result, 1u);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "later");
    freeString(text);
}

// A time-out that arrives while the prompt is still being made (here: from a hook at the creation of
// its window, before it is set up) ends it as soon as it is up.
LRESULT CALLBACK TimeOutAtCreation(int code, WPARAM wParam, LPARAM lParam);
PFN_PXMSETUIDLL_OnTimeout g_onTimeoutForHook = nullptr;
int g_hookTimeOuts = 0;

LRESULT CALLBACK TimeOutAtCreation(int code, WPARAM wParam, LPARAM lParam) {
    if (code == HCBT_CREATEWND && g_hookTimeOuts == 0) {
        ++g_hookTimeOuts;
        g_onTimeoutForHook();
    }
    return CallNextHookEx(nullptr, code, wParam, lParam);
}

TEST_F(PasswordPromptTest, ATimeOutWhileThePromptIsBeingMadeEndsIt) {
    g_onTimeoutForHook = onTimeout;
    g_hookTimeOuts = 0;
    HHOOK hook = SetWindowsHookExA(WH_CBT, TimeOutAtCreation, nullptr, GetCurrentThreadId());
    ASSERT_NE(hook, nullptr);
    // A prompt that stays open is cancelled after a while, so that the test fails instead of hanging.
    DWORD promptThread = GetCurrentThreadId();
    std::atomic<bool> done{false};
    std::atomic<bool> cancelled{false};
    std::thread watchdog([&]() {
        for (int waited = 0; !done && waited < 5000; waited += 10) Sleep(10);
        if (done) return;
        HWND stuck = FindPrompt(promptThread, SETUI_TITLE_SOCKS, 1000);
        cancelled = stuck != nullptr;
        if (stuck != nullptr) PostMessageA(stuck, WM_COMMAND, IDCANCEL, 0);
    });
    char* text = nullptr;
    DWORD result = prompt(0x0409, nullptr, 1, 0, 0, "alice", "127.0.0.1", 260, &text);
    done = true;
    watchdog.join();
    UnhookWindowsHookEx(hook);
    EXPECT_FALSE(cancelled);
    EXPECT_EQ(g_hookTimeOuts, 1);
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_TIMED_OUT));
    EXPECT_EQ(text, nullptr);
}

// Two prompts on two threads at once (a SOCKS and an HTTP connection): one time-out ends both.
TEST_F(PasswordPromptTest, ATimeOutClosesEveryOpenPrompt) {
    std::atomic<DWORD> otherResult{99};
    std::atomic<DWORD> otherThread{0};
    char* otherText = nullptr;
    std::thread other([&]() {
        otherThread = GetCurrentThreadId();
        otherResult = prompt(0x0409, nullptr, 1, 0, 1, "bob", "10.0.0.1", 64, &otherText);
    });
    char* text = nullptr;
    HWND otherDialog = nullptr;
    DWORD result = Run(0, "alice", "127.0.0.1", 260, &text, [&](HWND) {
        for (int waited = 0; otherThread == 0 && waited < 5000; waited += 10) Sleep(10);
        otherDialog = FindPrompt(otherThread, SETUI_TITLE_HTTP);
        onTimeout();
    });
    for (int waited = 0; otherResult == 99 && waited < 5000; waited += 10) Sleep(10);
    if (otherResult == 99) {
        HWND stuck = otherDialog != nullptr ? otherDialog : FindPrompt(otherThread, SETUI_TITLE_HTTP);
        if (stuck != nullptr) PostMessageA(stuck, WM_COMMAND, IDCANCEL, 0);
    }
    other.join();
    EXPECT_NE(otherDialog, nullptr);
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_TIMED_OUT));
    EXPECT_EQ(otherResult.load(), static_cast<DWORD>(SETUI_RESULT_TIMED_OUT));
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(otherText, nullptr);
}

TEST_F(PasswordPromptTest, TheOwnerPassedOwnsThePromptWhichIsCentredOnIt) {
    owner = ctest::MakeTopWindow("host application", {150, 120, 750, 570});
    ASSERT_NE(owner, nullptr);
    bool ownerDisabled = false;
    char* text = nullptr;
    DWORD result = Run(0, "alice", "127.0.0.1", 260, &text, [&](HWND dialog) {
        ownerDisabled = !IsWindowEnabled(owner);  // modal over its owner
        Press(dialog, IDOK);
    });
    EXPECT_EQ(result, 1u);
    freeString(text);
    EXPECT_EQ(seen.owner, owner);
    EXPECT_TRUE(ownerDisabled);
    EXPECT_TRUE(IsWindowEnabled(owner));
    RECT ownerRect = {};
    GetWindowRect(owner, &ownerRect);
    EXPECT_LE(std::abs((seen.rect.left + seen.rect.right) - (ownerRect.left + ownerRect.right)), 1);
    EXPECT_LE(std::abs((seen.rect.top + seen.rect.bottom) - (ownerRect.top + ownerRect.bottom)), 1);
}

TEST_F(PasswordPromptTest, WithoutAnOwnerThePromptIsCentredOnTheWorkArea) {
    char* text = nullptr;
    DWORD result = Run(0, "alice", "127.0.0.1", 260, &text, [](HWND dialog) { Press(dialog, IDCANCEL); });
    EXPECT_EQ(result, static_cast<DWORD>(SETUI_RESULT_CANCELLED));
    EXPECT_EQ(seen.owner, nullptr);
    RECT area = ctest::WorkAreaOf(seen.rect);
    EXPECT_LE(std::abs((seen.rect.left + seen.rect.right) - (area.left + area.right)), 1);
    EXPECT_LE(std::abs((seen.rect.top + seen.rect.bottom) - (area.top + area.bottom)), 1);
}

TEST_F(PasswordPromptTest, MissingUserAndAddressShowEmpty) {
    char* text = nullptr;
    DWORD result = Run(0, nullptr, nullptr, 260, &text, [](HWND dialog) { Press(dialog, IDOK); });
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(seen.user, "");
    EXPECT_EQ(seen.address, "");
    freeString(text);
}

// A user name is shown as it is, '&' included.
TEST_F(PasswordPromptTest, AUserNameIsShownAsGiven) {
    char* text = nullptr;
    Run(0, "r&d team", "192.0.2.10", 260, &text, [](HWND dialog) { Press(dialog, IDCANCEL); });
    EXPECT_EQ(seen.user, "r&d team");
    EXPECT_EQ(seen.address, "192.0.2.10");
}

TEST_F(PasswordPromptTest, NoTextPointerOrNoRoomGivesNoPromptAndNotOne) {
    EXPECT_NE(prompt(0x0409, nullptr, 1, 0, 0, "alice", "127.0.0.1", 260, nullptr), 1u);
    char* text = reinterpret_cast<char*>(1);
    const DWORD failed = SETUI_RESULT_FAILED;
    EXPECT_EQ(prompt(0x0409, nullptr, 1, 0, 0, "alice", "127.0.0.1", 1, &text), failed);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(prompt(0x0409, nullptr, 1, 0, 0, "alice", "127.0.0.1", 0, &text), failed);
    freeString(nullptr);
}

}  // namespace
