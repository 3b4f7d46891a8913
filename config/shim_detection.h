// The check for other programs that wrap the socket layer themselves: their control windows are
// looked for before a proxy is chosen, and the user is warned. A warning only: nothing changes how
// a connection is made.
#pragma once

#include <windows.h>

// The words that tell the two families' checks apart.
struct ShimFamily {
    const char* exportName;  // "SOCKS_DetectShims", for the log
    const char* key;         // the family's key under Software\Verdane, where "Detect" stands
    const char* title;       // the control window's title this family looks for
};
extern const ShimFamily kSocksShims;
extern const ShimFamily kHttpShims;

// 1 when a shim's control window is there and detection is on ("Detect", default 1), else 0.
int FindShim(const ShimFamily& family);
// The stop box with texts 502 and 503 of the resource library; nothing without text 502.
void ShowShimWarning(HWND owner);
// SOCKS_DetectShims and HTTP_DetectShims: FindShim, and with `warn` the box over `owner` or, without
// one, over the top of the active window.
int DetectShims(const ShimFamily& family, int warn, HWND owner);
