// Placement of top-level windows on a monitor's work area, shared by the suite library and the UI library.
#pragma once

#include <windows.h>

namespace companion {

// Work area of the monitor that holds the largest part of `rect` (the nearest one if none does).
RECT WorkAreaFor(const RECT& rect);

// `rect` moved, with its size kept, so that it lies on `area`; a rectangle larger than the area keeps
// its top-left corner on it, so that the caption stays reachable.
RECT KeepOn(const RECT& rect, const RECT& area);

// Centres `window` on `parent` if that is a visible, not minimised window, else on the work area of
// the window's monitor; either way the window ends on the work area.
void CenterWindowOn(HWND window, HWND parent);

// Places `window` one caption height below and right of `reference`, kept on the work area.
void CascadeWindowFrom(HWND window, HWND reference);

}  // namespace companion
