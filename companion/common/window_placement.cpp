#include "window_placement.h"

namespace companion {

namespace {

LONG Width(const RECT& r) { return r.right - r.left; }
LONG Height(const RECT& r) { return r.bottom - r.top; }

// Moves a window to a screen position; a child window's position is relative to its parent's client area.
void MoveTo(HWND window, LONG x, LONG y) {
    POINT position = {x, y};
    if ((GetWindowLongPtrA(window, GWL_STYLE) & WS_CHILD) != 0) {
        MapWindowPoints(nullptr, GetParent(window), &position, 1);
    }
    SetWindowPos(window, nullptr, position.x, position.y, 0, 0, SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

}  // namespace

RECT WorkAreaFor(const RECT& rect) {
    MONITORINFO info = {};
    info.cbSize = sizeof info;
    HMONITOR monitor = MonitorFromRect(&rect, MONITOR_DEFAULTTONEAREST);
    if (monitor != nullptr && GetMonitorInfoA(monitor, &info)) return info.rcWork;
    RECT area = {};
    if (!SystemParametersInfoA(SPI_GETWORKAREA, 0, &area, 0)) {
        area = {0, 0, GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN)};
    }
    return area;
}

RECT KeepOn(const RECT& rect, const RECT& area) {
    LONG x = rect.left;
    LONG y = rect.top;
    if (x + Width(rect) > area.right) x = area.right - Width(rect);
    if (y + Height(rect) > area.bottom) y = area.bottom - Height(rect);
    if (x < area.left) x = area.left;
    if (y < area.top) y = area.top;
    return {x, y, x + Width(rect), y + Height(rect)};
}

void CenterWindowOn(HWND window, HWND parent) {
    RECT own = {};
    if (!IsWindow(window) || !GetWindowRect(window, &own)) return;
    RECT reference = {};
    bool onParent = parent != nullptr && IsWindow(parent) && IsWindowVisible(parent) && !IsIconic(parent) &&
                    GetWindowRect(parent, &reference);
    if (!onParent) reference = WorkAreaFor(own);
    LONG x = reference.left + (Width(reference) - Width(own)) / 2;
    LONG y = reference.top + (Height(reference) - Height(own)) / 2;
    RECT centred = {x, y, x + Width(own), y + Height(own)};
    RECT placed = KeepOn(centred, WorkAreaFor(reference));
    MoveTo(window, placed.left, placed.top);
}

void CascadeWindowFrom(HWND window, HWND reference) {
    RECT own = {};
    RECT base = {};
    if (!IsWindow(window) || !GetWindowRect(window, &own)) return;
    if (reference == nullptr || !IsWindow(reference) || !GetWindowRect(reference, &base)) return;
    LONG step = GetSystemMetrics(SM_CYCAPTION) + GetSystemMetrics(SM_CYSIZEFRAME);
    RECT moved = {base.left + step, base.top + step, base.left + step + Width(own), base.top + step + Height(own)};
    RECT placed = KeepOn(moved, WorkAreaFor(moved));
    MoveTo(window, placed.left, placed.top);
}

}  // namespace companion
