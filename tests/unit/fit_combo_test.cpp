// FitComboDropHeight on a real combo box: the drop-down list it leaves, as CB_GETDROPPEDCONTROLRECT
// tells it, for the font the box has.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "image_button.h"

namespace {

class FitComboDropHeightTest : public ::testing::Test {
protected:
    void SetUp() override {
        parent = CreateWindowExA(0, "STATIC", "", WS_POPUP, 0, 0, 300, 400, nullptr, nullptr, nullptr, nullptr);
        ASSERT_NE(parent, nullptr);
    }
    void TearDown() override {
        if (parent != nullptr) DestroyWindow(parent);
    }

    HWND MakeCombo(DWORD style, int items, HFONT font) {
        HWND combo = CreateWindowExA(0, "COMBOBOX", "", WS_CHILD | WS_VISIBLE | WS_VSCROLL | style, 10, 10, 150,
                                     30, parent, reinterpret_cast<HMENU>(1043), nullptr, nullptr);
        if (combo == nullptr) return nullptr;
        if (font != nullptr) SendMessageA(combo, WM_SETFONT, reinterpret_cast<WPARAM>(font), FALSE);
        for (int i = 0; i < items; ++i) {
            std::string text = "entry " + std::to_string(i);
            SendMessageA(combo, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(text.c_str()));
        }
        return combo;
    }

    static int TextHeight(HWND combo) {
        HDC dc = GetDC(combo);
        HFONT font = reinterpret_cast<HFONT>(SendMessageA(combo, WM_GETFONT, 0, 0));
        HGDIOBJ old = font != nullptr ? SelectObject(dc, font) : nullptr;
        TEXTMETRICA metrics = {};
        GetTextMetricsA(dc, &metrics);
        if (old != nullptr) SelectObject(dc, old);
        ReleaseDC(combo, dc);
        return metrics.tmHeight;
    }

    // The height the box's window was given, edit part and dropped list together. Wine's list
    // rectangle leaves out the edit part, which the closed box's window is.
    static int DroppedHeight(HWND combo) {
        RECT dropped = {};
        SendMessageA(combo, CB_GETDROPPEDCONTROLRECT, 0, reinterpret_cast<LPARAM>(&dropped));
        RECT box = {};
        GetWindowRect(combo, &box);
        return (dropped.bottom - dropped.top) + (box.bottom - box.top);
    }

    HWND parent = nullptr;
};

TEST_F(FitComboDropHeightTest, TwentyEntriesWithALimitOfSixteenShowSixteen) {
    HWND combo = MakeCombo(CBS_DROPDOWNLIST, 20, nullptr);
    ASSERT_NE(combo, nullptr);
    int h = TextHeight(combo);
    ASSERT_GT(h, 0);
    FitComboDropHeight(combo, 16);
    EXPECT_EQ(DroppedHeight(combo), (16 * 8 + 15) * h / 8);
}

TEST_F(FitComboDropHeightTest, NoEntriesShowOneLine) {
    HWND combo = MakeCombo(CBS_DROPDOWNLIST, 0, nullptr);
    ASSERT_NE(combo, nullptr);
    int h = TextHeight(combo);
    FitComboDropHeight(combo, 16);
    EXPECT_EQ(DroppedHeight(combo), (8 + 15) * h / 8);
}

TEST_F(FitComboDropHeightTest, TheBoxFontDecides) {
    HFONT big = CreateFontA(-30, 0, 0, 0, FW_NORMAL, 0, 0, 0, ANSI_CHARSET, 0, 0, 0, 0, "Tahoma");
    ASSERT_NE(big, nullptr);
    HWND combo = MakeCombo(CBS_DROPDOWN, 3, big);
    ASSERT_NE(combo, nullptr);
    int h = TextHeight(combo);
    EXPECT_GE(h, 30);
    FitComboDropHeight(combo, 16);
    EXPECT_EQ(DroppedHeight(combo), (3 * 8 + 15) * h / 8);
    DestroyWindow(combo);
    DeleteObject(big);
}

TEST_F(FitComboDropHeightTest, TheEditPartLosesItsSelection) {
    HWND combo = MakeCombo(CBS_DROPDOWN, 2, nullptr);
    ASSERT_NE(combo, nullptr);
    SetWindowTextA(combo, "selected text");
    SendMessageA(combo, CB_SETEDITSEL, 0, MAKELPARAM(0, 8));
    FitComboDropHeight(combo, 16);
    DWORD start = 0;
    DWORD end = 0;
    SendMessageA(combo, CB_GETEDITSEL, reinterpret_cast<WPARAM>(&start), reinterpret_cast<LPARAM>(&end));
    EXPECT_EQ(start, end);
}

}  // namespace
