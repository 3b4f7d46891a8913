#include "shim_detection.h"

#include "dxsocks_ids.h"
#include "log.h"
#include "suite_library.h"
#include "xml_registry.h"

const ShimFamily kSocksShims = {"SOCKS_DetectShims", "Network Protocols\\SOCKS", "SocksCap - Control"};
const ShimFamily kHttpShims = {"HTTP_DetectShims", "Network Protocols\\HTTP", "HttpCap - Control"};

namespace {

constexpr int kShimTextSize = 256;
// The stop icon and OK alone.
constexpr UINT kShimBoxStyle = MB_OK | MB_ICONSTOP;

}  // namespace

int FindShim(const ShimFamily& family) {
    // Through the registry layer, so "false" and the default profile's value count as anywhere else.
    if (g_xmlRegistry.ReadFlag(kUserScope, family.key, "Detect", 1) == 0) return 0;
    if (FindWindowA("Firewalker", nullptr) != nullptr) return 1;
    return FindWindowA(nullptr, family.title) != nullptr ? 1 : 0;
}

void ShowShimWarning(HWND owner) {
    char caption[kShimTextSize] = {};
    char text[kShimTextSize] = {};
    // A missing caption alone still shows the box, under an empty title.
    g_resourceLibrary.LoadResourceString(IDS_SHIM_TITLE, caption, kShimTextSize);
    if (g_resourceLibrary.LoadResourceString(IDS_SHIM_WARNING, text, kShimTextSize) == 0) return;
    // Kept: the stop icon (16); the exclamation mark (48) that the warning was meant with is not used.
    MessageBoxA(owner, text, caption, kShimBoxStyle);
}

int DetectShims(const ShimFamily& family, int warn, HWND owner) {
    ExportLog log(family.exportName);
    int result = FindShim(family);
    if (result != 0 && warn != 0) {
        if (owner != nullptr) {
            ShowShimWarning(owner);
        } else {
            HWND top = TopLevelParent(GetActiveWindow());
            ShowShimWarning(top);
            // The box took the focus: hand it back to the application's window.
            SetActiveWindow(top);
        }
    }
    log.End(result);
    return result;
}
