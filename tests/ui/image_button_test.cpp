// The arrow buttons' window class as the dialogs meet it: DXSOCKS.DLL loaded as a host loads it, a
// dialog made from a template in memory that names the class, driven on this thread. The same cases
// run in copies of this program that Wine shows as other versions of Windows (DXTEST_WINDOWS_VERSION
// names the one expected), so that both ways of drawing are covered.
#include <gtest/gtest.h>

#include <windows.h>
#include <commctrl.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "module_files.h"

namespace {

constexpr char kClassName[] = "SocksImageButtonClass";
constexpr int kEdit = 100;
constexpr int kUp = 1026;    // style bit 1: the up arrow, no text
constexpr int kDown = 1027;  // a text
constexpr int kPassing = 1030;  // style bit 5: does not keep the focus
constexpr int kNext = 101;
constexpr DWORD kUpArrowBit = 2;
constexpr DWORD kPassFocusBit = 32;
constexpr COLORREF kCyan = RGB(0, 255, 255);
constexpr COLORREF kDarkGrey = RGB(128, 128, 128);
constexpr COLORREF kBlack = RGB(0, 0, 0);

// A dialog template in memory: DLGTEMPLATE and its items, each on a DWORD boundary.
class TemplateBuilder {
public:
    explicit TemplateBuilder(const char* title) {
        DLGTEMPLATE head = {};
        head.style = DS_SETFONT | DS_MODALFRAME | WS_POPUP | WS_CAPTION | WS_SYSMENU | WS_VISIBLE;
        head.cx = 200;
        head.cy = 100;
        Append(&head, sizeof head);
        Word(0);  // no menu
        Word(0);  // the dialog class
        Text(title);
        Word(8);
        Text("MS Shell Dlg");
    }

    void Item(const char* className, const char* text, int id, DWORD style, short x, short y, short cx, short cy) {
        Align();
        DLGITEMTEMPLATE item = {};
        item.style = style | WS_CHILD | WS_VISIBLE;
        item.x = x;
        item.y = y;
        item.cx = cx;
        item.cy = cy;
        item.id = static_cast<WORD>(id);
        Append(&item, sizeof item);
        Text(className);
        Text(text);
        Word(0);  // no creation data
        auto* head = reinterpret_cast<DLGTEMPLATE*>(bytes.data());
        head->cdit++;
    }

    const DLGTEMPLATE* Get() {
        return reinterpret_cast<const DLGTEMPLATE*>(bytes.data());
    }

private:
    void Append(const void* data, size_t size) {
        const auto* p = static_cast<const unsigned char*>(data);
        bytes.insert(bytes.end(), p, p + size);
    }
    void Word(WORD w) { Append(&w, sizeof w); }
    void Text(const char* text) {
        for (const char* c = text; *c != '\0'; ++c) Word(static_cast<unsigned char>(*c));
        Word(0);
    }
    void Align() {
        while (bytes.size() % 4 != 0) bytes.push_back(0);
    }

    std::vector<unsigned char> bytes;
};

std::vector<int> g_commands;

INT_PTR CALLBACK RecordingDialogProc(HWND, UINT message, WPARAM wParam, LPARAM) {
    // Clicks only: the edit reports its focus too.
    if (message == WM_COMMAND && HIWORD(wParam) == BN_CLICKED) g_commands.push_back(LOWORD(wParam));
    return FALSE;
}

void Pump() {
    MSG message;
    for (int i = 0; i < 1000 && PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE); ++i) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
}

// The Windows version this copy of the program is meant to see, "major.minor", or empty for Wine's
// default; from 5.1 on the system button draws the images.
std::string ExpectedVersion() {
    const char* value = std::getenv("DXTEST_WINDOWS_VERSION");
    return value != nullptr ? value : "";
}

bool NativeExpected() {
    std::string version = ExpectedVersion();
    return version.empty() || version != "5.0";
}

class ImageButtonTest : public ::testing::Test {
protected:
    void SetUp() override {
        library = LoadLibraryA(dxtest::BesideProgram("DXSOCKS.DLL").c_str());
        ASSERT_NE(library, nullptr);
        // Common controls 6 from the library's own manifest, as the dialogs activate it.
        std::string path = dxtest::ModulePath(library);
        ACTCTXA request = {};
        request.cbSize = sizeof request;
        request.dwFlags = ACTCTX_FLAG_HMODULE_VALID | ACTCTX_FLAG_RESOURCE_NAME_VALID;
        request.lpSource = path.c_str();
        request.hModule = library;
        request.lpResourceName = MAKEINTRESOURCEA(2);
        context = CreateActCtxA(&request);
        ASSERT_NE(context, INVALID_HANDLE_VALUE) << GetLastError();
        ASSERT_TRUE(ActivateActCtx(context, &cookie));
        g_commands.clear();
    }

    void TearDown() override {
        if (dialog != nullptr) DestroyWindow(dialog);
        Pump();
        if (cookie != 0) DeactivateActCtx(0, cookie);
        if (context != INVALID_HANDLE_VALUE) ReleaseActCtx(context);
        if (library != nullptr) FreeLibrary(library);
    }

    // An edit, the up arrow without text, the down arrow with one, a plain button and a button that
    // passes the focus on, in tab order.
    void OpenDialog(DWORD extraUpStyle = 0) {
        TemplateBuilder builder("Image buttons");
        builder.Item("Edit", "", kEdit, WS_TABSTOP | WS_BORDER, 5, 5, 60, 12);
        builder.Item(kClassName, "", kUp, WS_TABSTOP | kUpArrowBit | extraUpStyle, 70, 5, 20, 14);
        builder.Item(kClassName, "Down", kDown, WS_TABSTOP, 95, 5, 50, 14);
        builder.Item("Button", "Next", kNext, WS_TABSTOP, 5, 30, 50, 14);
        builder.Item(kClassName, "", kPassing, WS_TABSTOP | kPassFocusBit, 150, 5, 20, 14);
        dialog = CreateDialogIndirectParamA(GetModuleHandleA(nullptr), builder.Get(), nullptr, RecordingDialogProc, 0);
        ASSERT_NE(dialog, nullptr) << GetLastError();
        Pump();
    }

    HWND Outer(int id) { return GetDlgItem(dialog, id); }
    HWND Inner(int id) { return GetWindow(Outer(id), GW_CHILD); }

    // The bitmap the child button shows (bitmap branch), its size, and one pixel of it.
    HBITMAP Face(int id) {
        return reinterpret_cast<HBITMAP>(SendMessageA(Outer(id), BM_GETIMAGE, IMAGE_BITMAP, 0));
    }
    static SIZE BitmapSize(HBITMAP bitmap) {
        BITMAP info = {};
        GetObjectA(bitmap, sizeof info, &info);
        return SIZE{info.bmWidth, info.bmHeight};
    }
    static COLORREF Pixel(HBITMAP bitmap, int x, int y) {
        HDC dc = CreateCompatibleDC(nullptr);
        HGDIOBJ old = SelectObject(dc, bitmap);
        COLORREF colour = GetPixel(dc, x, y);
        SelectObject(dc, old);
        DeleteDC(dc);
        return colour;
    }
    BUTTON_IMAGELIST ImageList(int id) {
        BUTTON_IMAGELIST list = {};
        SendMessageA(Inner(id), BCM_GETIMAGELIST, 0, reinterpret_cast<LPARAM>(&list));
        return list;
    }

    HMODULE library = nullptr;
    HANDLE context = INVALID_HANDLE_VALUE;
    ULONG_PTR cookie = 0;
    HWND dialog = nullptr;
};

// This copy runs as the version its registration names, so that the branch below is the one meant.
TEST_F(ImageButtonTest, RunsAsTheVersionItIsMeantFor) {
    std::string version = ExpectedVersion();
    if (version.empty()) version = "6.1";
    OSVERSIONINFOA info = {};
    info.dwOSVersionInfoSize = sizeof info;
    ASSERT_TRUE(GetVersionExA(&info));
    EXPECT_EQ(std::to_string(info.dwMajorVersion) + "." + std::to_string(info.dwMinorVersion), version);
}

TEST_F(ImageButtonTest, ClassIsRegisteredAsAGlobalButtonWhileTheLibraryIsLoaded) {
    WNDCLASSEXA info = {};
    info.cbSize = sizeof info;
    ASSERT_TRUE(GetClassInfoExA(GetModuleHandleA(nullptr), kClassName, &info));
    EXPECT_NE(info.style & CS_GLOBALCLASS, 0u);
    EXPECT_EQ(info.cbWndExtra, 8);
    EXPECT_EQ(info.cbClsExtra, 0);
    WNDCLASSEXA button = {};
    button.cbSize = sizeof button;
    ASSERT_TRUE(GetClassInfoExA(nullptr, "Button", &button));
    EXPECT_EQ(info.hCursor, button.hCursor);
}

TEST_F(ImageButtonTest, ClassIsGoneAfterTheLibraryIsUnloaded) {
    ASSERT_TRUE(FreeLibrary(library));
    library = nullptr;
    ASSERT_EQ(GetModuleHandleA("DXSOCKS.DLL"), nullptr) << "something else holds the library";
    WNDCLASSEXA info = {};
    info.cbSize = sizeof info;
    EXPECT_FALSE(GetClassInfoExA(GetModuleHandleA(nullptr), kClassName, &info));
    EXPECT_EQ(CreateWindowExA(0, kClassName, "", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr),
              nullptr);
    // Loaded again, it registers again.
    library = LoadLibraryA(dxtest::BesideProgram("DXSOCKS.DLL").c_str());
    ASSERT_NE(library, nullptr);
    EXPECT_TRUE(GetClassInfoExA(GetModuleHandleA(nullptr), kClassName, &info));
}

TEST_F(ImageButtonTest, ATemplateNamingTheClassLoadsWithAButtonInsideEachControl) {
    OpenDialog();
    for (int id : {kUp, kDown, kPassing}) {
        char className[64] = {};
        GetClassNameA(Outer(id), className, sizeof className);
        EXPECT_STREQ(className, kClassName);
        HWND inner = Inner(id);
        ASSERT_NE(inner, nullptr);
        GetClassNameA(inner, className, sizeof className);
        EXPECT_EQ(_stricmp(className, "Button"), 0) << className;
        EXPECT_EQ(GetDlgCtrlID(inner), id);
        // The child takes the outer window's whole width; the child's height decides.
        RECT outer;
        RECT child;
        GetWindowRect(Outer(id), &outer);
        GetWindowRect(inner, &child);
        EXPECT_EQ(child.right - child.left, outer.right - outer.left);
        EXPECT_EQ(child.bottom - child.top, outer.bottom - outer.top);
    }
    char text[32] = {};
    GetWindowTextA(Inner(kDown), text, sizeof text);
    EXPECT_STREQ(text, "Down");
}

TEST_F(ImageButtonTest, DrawsWithTheSystemButtonFromWindowsXpOn) {
    OpenDialog();
    LONG style = GetWindowLongA(Inner(kUp), GWL_STYLE);
    if (NativeExpected()) {
        EXPECT_EQ(style & BS_BITMAP, 0);
        BUTTON_IMAGELIST list = ImageList(kUp);
        ASSERT_NE(list.himl, nullptr);
        EXPECT_EQ(ImageList_GetImageCount(list.himl), 5);
        int cx = 0;
        int cy = 0;
        ASSERT_TRUE(ImageList_GetIconSize(list.himl, &cx, &cy));
        EXPECT_EQ(cx, 16);
        EXPECT_EQ(cy, 16);
        EXPECT_EQ(Face(kUp), nullptr);
    } else {
        EXPECT_NE(style & BS_BITMAP, 0);
        EXPECT_NE(Face(kUp), nullptr);
        EXPECT_EQ(ImageList(kUp).himl, nullptr);
    }
}

TEST_F(ImageButtonTest, AButtonWithoutTextHasItsImageCentredOrItsFaceAsLargeAsTheImage) {
    OpenDialog();
    if (NativeExpected()) {
        EXPECT_EQ(ImageList(kUp).uAlign, static_cast<UINT>(BUTTON_IMAGELIST_ALIGN_CENTER));
        EXPECT_EQ(ImageList(kDown).uAlign, static_cast<UINT>(BUTTON_IMAGELIST_ALIGN_LEFT));
    } else {
        SIZE size = BitmapSize(Face(kUp));
        EXPECT_EQ(size.cx, 16);
        EXPECT_EQ(size.cy, 16);
        SIZE withText = BitmapSize(Face(kDown));
        EXPECT_GT(withText.cx, 16 + 8);  // the text and a gap beside the image
        EXPECT_GE(withText.cy, 16);
    }
}

TEST_F(ImageButtonTest, ACaptionSetLaterKeepsTheAlignmentOfCreation) {
    OpenDialog();
    EXPECT_TRUE(SetWindowTextA(Outer(kUp), "Up"));
    char text[32] = {};
    GetWindowTextA(Inner(kUp), text, sizeof text);
    EXPECT_STREQ(text, "Up");
    EXPECT_TRUE(SetWindowTextA(Outer(kDown), ""));
    if (NativeExpected()) {
        EXPECT_EQ(ImageList(kUp).uAlign, static_cast<UINT>(BUTTON_IMAGELIST_ALIGN_CENTER));
        EXPECT_EQ(ImageList(kDown).uAlign, static_cast<UINT>(BUTTON_IMAGELIST_ALIGN_LEFT));
    } else {
        // The face is drawn anew with the text beside the image, and without it.
        EXPECT_GT(BitmapSize(Face(kUp)).cx, 16);
        EXPECT_EQ(BitmapSize(Face(kDown)).cx, 16);
    }
}

TEST_F(ImageButtonTest, SetImageSentToTheControlHasNoEffect) {
    OpenDialog();
    HBITMAP before = Face(kUp);
    HIMAGELIST listBefore = ImageList(kUp).himl;
    HBITMAP other = CreateBitmap(40, 40, 1, 32, nullptr);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(SendMessageA(Outer(kUp), BM_SETIMAGE, IMAGE_BITMAP, reinterpret_cast<LPARAM>(other)), 0);
    Pump();
    EXPECT_EQ(Face(kUp), before);
    EXPECT_NE(Face(kUp), other);
    EXPECT_EQ(ImageList(kUp).himl, listBefore);
    DeleteObject(other);
}

TEST_F(ImageButtonTest, TheBitmapFaceShowsTheNormalAndTheDisabledFrame) {
    if (NativeExpected()) GTEST_SKIP() << "the system button draws the frames itself";
    OpenDialog();
    // The shaft of the arrow: cyan inside a black outline, grey when disabled; the corner shows the
    // button's face colour, not the bitmap's green.
    HBITMAP face = Face(kUp);
    EXPECT_EQ(Pixel(face, 7, 10), kCyan);
    EXPECT_EQ(Pixel(face, 6, 10), kBlack);
    EXPECT_EQ(Pixel(face, 0, 0), GetSysColor(COLOR_BTNFACE));
    EnableWindow(Outer(kUp), FALSE);
    Pump();
    face = Face(kUp);
    EXPECT_EQ(Pixel(face, 7, 10), kDarkGrey);
    EXPECT_EQ(Pixel(face, 6, 10), kDarkGrey);
    EnableWindow(Outer(kUp), TRUE);
    Pump();
    EXPECT_EQ(Pixel(Face(kUp), 7, 10), kCyan);
}

TEST_F(ImageButtonTest, FocusArrivingAtTheControlGoesToItsButton) {
    OpenDialog();
    SetFocus(Outer(kUp));
    EXPECT_EQ(GetFocus(), Inner(kUp));
}

TEST_F(ImageButtonTest, DisablingTheControlWithTheFocusMovesTheFocusOn) {
    OpenDialog();
    SetFocus(Outer(kDown));
    ASSERT_EQ(GetFocus(), Inner(kDown));
    EnableWindow(Outer(kDown), FALSE);
    Pump();
    EXPECT_EQ(GetFocus(), Outer(kNext)) << "focus went to id " << GetDlgCtrlID(GetFocus());
    EXPECT_EQ(IsWindowEnabled(Inner(kDown)) != FALSE, !NativeExpected());
}

TEST_F(ImageButtonTest, DisablingAControlWithoutTheFocusLeavesTheFocus) {
    OpenDialog();
    SetFocus(GetDlgItem(dialog, kEdit));
    ASSERT_EQ(GetFocus(), GetDlgItem(dialog, kEdit));
    EnableWindow(Outer(kDown), FALSE);
    Pump();
    EXPECT_EQ(GetFocus(), GetDlgItem(dialog, kEdit));
}

TEST_F(ImageButtonTest, AControlWithBitFiveSendsArrivingFocusBack) {
    OpenDialog();
    HWND edit = GetDlgItem(dialog, kEdit);
    SetFocus(edit);
    SetFocus(Outer(kPassing));
    EXPECT_EQ(GetFocus(), edit);
}

TEST_F(ImageButtonTest, AClickReachesTheDialogAsItsCommand) {
    OpenDialog();
    SendMessageA(Outer(kDown), BM_CLICK, 0, 0);
    Pump();
    ASSERT_EQ(g_commands.size(), 1u);
    EXPECT_EQ(g_commands[0], kDown);
}

TEST_F(ImageButtonTest, WithBitFiveAMouseClickLeavesTheKeyboardFocusWhereItWas) {
    if (NativeExpected()) GTEST_SKIP() << "only the bitmap branch watches the button's focus";
    OpenDialog();
    HWND edit = GetDlgItem(dialog, kEdit);
    SetFocus(edit);
    HWND inner = Inner(kPassing);
    PostMessageA(inner, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(3, 3));
    PostMessageA(inner, WM_LBUTTONUP, 0, MAKELPARAM(3, 3));
    Pump();
    EXPECT_EQ(GetFocus(), edit);
    ASSERT_EQ(g_commands.size(), 1u);
    EXPECT_EQ(g_commands[0], kPassing);
    // Without bit 5 the click takes the focus, as a button's click does.
    PostMessageA(Inner(kDown), WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(3, 3));
    PostMessageA(Inner(kDown), WM_LBUTTONUP, 0, MAKELPARAM(3, 3));
    Pump();
    EXPECT_EQ(GetFocus(), Inner(kDown));
}

TEST_F(ImageButtonTest, HoverTakesTheCaptureAndLeavingLetsItGo) {
    if (NativeExpected()) GTEST_SKIP() << "the system button tracks the mouse itself";
    OpenDialog();
    HWND inner = Inner(kDown);
    RECT rect;
    GetWindowRect(inner, &rect);
    SetCursorPos(rect.left + 2, rect.top + 2);
    SendMessageA(inner, WM_MOUSEMOVE, 0, MAKELPARAM(2, 2));
    EXPECT_EQ(GetCapture(), inner);
    // Still over it: the capture stays.
    SendMessageA(inner, WM_MOUSEMOVE, 0, MAKELPARAM(3, 3));
    EXPECT_EQ(GetCapture(), inner);
    SetCursorPos(rect.right + 50, rect.bottom + 50);
    SendMessageA(inner, WM_MOUSEMOVE, 0, MAKELPARAM(60, 60));
    EXPECT_EQ(GetCapture(), nullptr);
}

}  // namespace
