#include "image_button.h"

#include <commctrl.h>
#include <new>

#include "combo_height.h"
#include "dxsocks_ids.h"
#include "os_kind.h"

namespace {

constexpr DWORD kStyleUpArrow = 2;      // bit 1: the up arrow, else the down arrow
constexpr DWORD kStylePassFocus = 32;   // bit 5: focus arriving goes straight on
constexpr DWORD kLowStyleBits = 0x3F;   // the outer window's own bits, not the child button's
constexpr int kImageWidth = 16;
constexpr int kMaxText = 1024;
constexpr UINT kSizeOnly = SWP_NOMOVE | SWP_NOZORDER | SWP_NOREDRAW | SWP_NOACTIVATE;
constexpr int kFirstNativeKind = 4;     // from 5.1 on the system button draws image lists

enum Frame { kFrameNormal = 0, kFrameHot = 1, kFramePressed = 2, kFrameDisabled = 3, kFrameFocused = 4 };

struct CImageButton {
    HWND button;
    HWND host;
    DWORD style;
    DWORD imageAlignment;
    DWORD native;
    DWORD resizing;
    DWORD hot;
    DWORD pressed;
    CREATESTRUCTA creation;
    HIMAGELIST imageList;
    HBITMAP face;
};

bool g_classRegistered = false;
// The system button's procedure, saved by each subclassing; every Button child has the same one.
WNDPROC g_buttonProc = nullptr;
HINSTANCE g_classInstance = nullptr;

CImageButton* StateOf(HWND window) {
    return reinterpret_cast<CImageButton*>(GetWindowLongPtrA(window, GWLP_USERDATA));
}

void Render(CImageButton* state, HDC given) {
    if (state->native) {
        BUTTON_IMAGELIST list = {};
        list.himl = state->imageList;
        list.uAlign = state->imageAlignment;
        SendMessageA(state->button, BCM_SETIMAGELIST, 0, reinterpret_cast<LPARAM>(&list));
        return;
    }
    HDC source = given != nullptr ? given : GetDC(state->button);
    if (source == nullptr) return;
    HDC memory = CreateCompatibleDC(source);
    if (memory == nullptr) {
        if (given == nullptr) ReleaseDC(state->button, source);
        return;
    }
    bool enabled = IsWindowEnabled(state->host) != FALSE;
    SetTextColor(memory, GetSysColor(enabled ? COLOR_BTNTEXT : COLOR_GRAYTEXT));
    HFONT font = reinterpret_cast<HFONT>(SendMessageA(state->button, WM_GETFONT, 0, 0));
    HGDIOBJ oldFont = font != nullptr ? SelectObject(memory, font) : nullptr;

    int imageWidth = 0;
    int imageHeight = 0;
    if (state->imageList == nullptr || !ImageList_GetIconSize(state->imageList, &imageWidth, &imageHeight)) {
        imageWidth = 0;
        imageHeight = 0;
    }
    char text[kMaxText + 1];
    int length = GetWindowTextA(state->button, text, sizeof text);
    if (length < 0) length = 0;
    SIZE gap = {0, 0};
    SIZE extent = {0, 0};
    if (length > 0) {
        GetTextExtentPoint32A(memory, "  ", 2, &gap);
        GetTextExtentPoint32A(memory, text, length, &extent);
    }
    int width = extent.cx + gap.cx + imageWidth;
    int height = imageHeight > extent.cy ? imageHeight : extent.cy;
    if (state->face != nullptr) DeleteObject(state->face);
    state->face = CreateCompatibleBitmap(source, width, height);
    HGDIOBJ oldBitmap = state->face != nullptr ? SelectObject(memory, state->face) : nullptr;

    RECT all = {0, 0, width, height};
    COLORREF faceColour = GetSysColor(COLOR_BTNFACE);
    SetBkColor(memory, faceColour);
    HBRUSH brush = CreateSolidBrush(faceColour);
    if (brush != nullptr) {
        FillRect(memory, &all, brush);
        DeleteObject(brush);
    }
    int frame = kFrameNormal;
    if (state->pressed) {
        frame = kFramePressed;
    } else if (state->hot) {
        frame = kFrameHot;
    } else if (GetFocus() == state->button) {
        frame = kFrameFocused;
    } else if (!enabled) {
        frame = kFrameDisabled;
    }
    if (state->imageList != nullptr) ImageList_Draw(state->imageList, frame, memory, 0, 0, ILD_NORMAL);
    if (length > 0) {
        RECT textRect = {imageWidth + gap.cx, (imageHeight - extent.cy) / 2, width, height};
        DrawTextA(memory, text, length, &textRect, DT_SINGLELINE);
    }
    if (oldBitmap != nullptr) SelectObject(memory, oldBitmap);
    if (oldFont != nullptr) SelectObject(memory, oldFont);
    DeleteDC(memory);
    if (given == nullptr) ReleaseDC(state->button, source);
    SendMessageA(state->button, BM_SETIMAGE, IMAGE_BITMAP, reinterpret_cast<LPARAM>(state->face));
}

void Track(CImageButton* state, bool moving) {
    if (moving && state->hot) {
        POINT cursor;
        RECT rect;
        if (GetCursorPos(&cursor) && GetWindowRect(state->button, &rect) && !PtInRect(&rect, cursor)) {
            ReleaseCapture();  // its WM_CAPTURECHANGED clears the state
        }
        return;
    }
    if (moving) {
        SetCapture(state->button);
        state->hot = 1;
    } else {
        state->hot = 0;
        state->pressed = 0;
    }
    Render(state, nullptr);
}

// The bitmap branch's mouse and focus logic; not 0 swallows the message.
LRESULT ButtonMessage(CImageButton* state, UINT message, WPARAM wParam) {
    switch (message) {
    case WM_MOUSEMOVE:
        Track(state, true);
        return 0;
    case WM_CAPTURECHANGED:
        Track(state, false);
        return 0;
    case WM_LBUTTONDOWN:
    case WM_RBUTTONDOWN:
    case WM_MBUTTONDOWN:
        state->pressed = 1;
        Render(state, nullptr);
        return 0;
    case WM_LBUTTONUP:
    case WM_RBUTTONUP:
    case WM_MBUTTONUP:
        state->pressed = 0;
        Render(state, nullptr);
        return 0;
    case WM_SETFOCUS:
    case WM_KILLFOCUS:
        if ((state->style & kStylePassFocus) == 0) {
            Render(state, nullptr);
            return 0;
        }
        SetFocus(reinterpret_cast<HWND>(wParam));
        return 1;
    default:
        return 0;
    }
}

LRESULT CALLBACK ButtonSubclassProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    CImageButton* state = StateOf(GetParent(window));
    if (state != nullptr && !state->native && ButtonMessage(state, message, wParam) != 0) return 1;
    if (g_buttonProc == nullptr) return DefWindowProcA(window, message, wParam, lParam);
    return CallWindowProcA(g_buttonProc, window, message, wParam, lParam);
}

LRESULT OnCreate(HWND window, const CREATESTRUCTA* creation) {
    auto* state = new (std::nothrow) CImageButton();
    if (state == nullptr) return 0;
    state->host = window;
    state->style = static_cast<DWORD>(creation->style);
    state->native = GetOsKind() >= kFirstNativeKind ? 1 : 0;
    state->creation = *creation;
    DWORD childStyle = static_cast<DWORD>(creation->style) & ~kLowStyleBits;
    if (!state->native) childStyle |= BS_BITMAP;
    state->button = CreateWindowExA(static_cast<DWORD>(creation->dwExStyle), "Button", creation->lpszName,
                                    childStyle, 0, 0, 0, 0, window, creation->hMenu, creation->hInstance,
                                    creation->lpCreateParams);
    if (!state->native && state->button != nullptr) {
        g_buttonProc = reinterpret_cast<WNDPROC>(SetWindowLongPtrA(
            state->button, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(ButtonSubclassProc)));
    }
    bool noText = creation->lpszName == nullptr || creation->lpszName[0] == '\0';
    state->imageAlignment = noText ? BUTTON_IMAGELIST_ALIGN_CENTER : BUTTON_IMAGELIST_ALIGN_LEFT;
    int bitmap = (state->style & kStyleUpArrow) != 0 ? IDB_IMAGE_BUTTON_STYLE2 : IDB_IMAGE_BUTTON;
    state->imageList = ImageList_LoadImageA(g_classInstance, MAKEINTRESOURCEA(bitmap), kImageWidth, 0,
                                            CLR_DEFAULT, IMAGE_BITMAP, 0);
    state->face = nullptr;
    if (state->button != nullptr) {
        SetWindowTextA(state->button, creation->lpszName);
        Render(state, nullptr);
    }
    SetWindowLongPtrA(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(state));
    return 1;
}

LRESULT OnDestroy(HWND window, CImageButton* state) {
    if (state->imageList != nullptr) ImageList_Destroy(state->imageList);
    if (state->face != nullptr) DeleteObject(state->face);
    if (state->button != nullptr) DestroyWindow(state->button);
    delete state;
    SetWindowLongPtrA(window, GWLP_USERDATA, 0);
    return 1;
}

LRESULT OnSize(CImageButton* state, int width, int height) {
    if (state->button == nullptr || state->resizing) return 0;
    state->resizing = 1;
    MoveWindow(state->button, 0, 0, width, height, TRUE);
    RECT rect = {};
    GetWindowRect(state->button, &rect);
    // The child's own height decides.
    SetWindowPos(state->host, nullptr, 0, 0, width, rect.bottom - rect.top, kSizeOnly);
    state->resizing = 0;
    return 1;
}

LRESULT OnEnable(CImageButton* state, bool enable) {
    HWND focus = GetFocus();
    bool hadFocus = focus != nullptr && (focus == state->host || focus == state->button);
    if (state->native) {
        EnableWindow(state->button, enable);
    } else {
        Render(state, nullptr);  // the face shows the disabled frame
    }
    // Keeps the keyboard alive when Move up reaches the top while the user presses it.
    if (!enable && hadFocus) SetFocus(GetNextDlgTabItem(GetParent(state->host), state->button, FALSE));
    return 1;
}

LRESULT CALLBACK ImageButtonProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_CREATE) return OnCreate(window, reinterpret_cast<const CREATESTRUCTA*>(lParam));
    CImageButton* state = StateOf(window);
    if (state == nullptr) return DefWindowProcA(window, message, wParam, lParam);
    switch (message) {
    case WM_DESTROY:
        return OnDestroy(window, state);
    case WM_SIZE:
        return OnSize(state, LOWORD(lParam), HIWORD(lParam));
    case WM_SETFOCUS:
        SetFocus((state->style & kStylePassFocus) != 0 ? reinterpret_cast<HWND>(wParam) : state->button);
        return 0;
    case WM_ENABLE:
        return OnEnable(state, wParam != 0);
    case WM_SETTEXT:
    case WM_SETFONT: {
        LRESULT answer = SendMessageA(state->button, message, wParam, lParam);
        Render(state, nullptr);
        return answer;
    }
    case WM_PAINT: {
        PAINTSTRUCT paint;
        HDC dc = BeginPaint(window, &paint);
        Render(state, dc);
        EndPaint(window, &paint);
        return 0;
    }
    case WM_SYSCOLORCHANGE:
        Render(state, nullptr);
        return 1;
    case WM_SHOWWINDOW:
        ShowWindow(state->button, static_cast<int>(wParam));
        return 1;
    case WM_NOTIFY:
    case WM_COMMAND:
        return SendMessageA(GetParent(window), message, wParam, lParam);
    case WM_GETDLGCODE:
    case BM_GETCHECK:
    case BM_SETCHECK:
    case BM_GETSTATE:
    case BM_SETSTATE:
    case BM_SETSTYLE:
    case BM_CLICK:
    case BM_GETIMAGE:
        return SendMessageA(state->button, message, wParam, lParam);
    case BM_SETIMAGE:
        return 0;  // the images are the class's own
    default:
        return DefWindowProcA(window, message, wParam, lParam);
    }
}

}  // namespace

void RegisterImageButtonClass(HINSTANCE instance) {
    if (g_classRegistered) return;
    WNDCLASSEXA button = {};
    button.cbSize = sizeof button;
    if (!GetClassInfoExA(instance, "Button", &button)) return;
    WNDCLASSEXA image = button;
    image.cbSize = sizeof image;
    image.style |= CS_GLOBALCLASS;
    image.lpfnWndProc = ImageButtonProc;
    image.cbClsExtra = 0;
    image.cbWndExtra = 8;
    image.hInstance = instance;
    image.lpszClassName = kImageButtonClassName;
    g_classInstance = instance;
    g_classRegistered = RegisterClassExA(&image) != 0;
}

void UnregisterImageButtonClass(HINSTANCE instance) {
    if (!g_classRegistered) return;
    UnregisterClassA(kImageButtonClassName, instance);
    g_classRegistered = false;
}

bool ImageButtonClassRegistered() {
    return g_classRegistered;
}

void FitComboDropHeight(HWND combo, int maxLines) {
    int textHeight = 0;
    HDC dc = GetDC(combo);
    if (dc != nullptr) {
        HFONT font = reinterpret_cast<HFONT>(SendMessageA(combo, WM_GETFONT, 0, 0));
        HGDIOBJ old = font != nullptr ? SelectObject(dc, font) : nullptr;
        TEXTMETRICA metrics = {};
        if (GetTextMetricsA(dc, &metrics)) textHeight = metrics.tmHeight;
        if (old != nullptr) SelectObject(dc, old);
        ReleaseDC(combo, dc);
    } else {
        textHeight = HIWORD(GetDialogBaseUnits());
    }
    int count = static_cast<int>(SendMessageA(combo, CB_GETCOUNT, 0, 0));
    int height = ComboDropHeight(count, maxLines, textHeight);
    RECT rect = {};
    GetWindowRect(combo, &rect);
    if (rect.bottom - rect.top != height) {
        SetWindowPos(combo, nullptr, 0, 0, rect.right - rect.left, height, kSizeOnly);
        SendMessageA(combo, CB_SETEDITSEL, 0, 65535);
    }
}
