// Configuration dialog: what the SOCKS editor costs with many maps, headless. For each size the
// settings file holds that many maps (numbered ones and the default map), DXSOCKS.DLL is loaded so
// that it reads them at attach, and SOCKS_ConfigurationDialog runs on this thread while a second
// thread drives it: the time until the dialog stands with every row listed, one Move down of the
// first row (the list is filled again), and OK, whose save writes the settings file, until the call
// returns. No figure has a target.
//
// It uses the settings file and Software\Verdane of both hives, which it clears before and after.
// Flags: --maps=10,100,1000 the sizes; --runs=N (5) dialogs per size; --rows=PATH.
#include <winsock2.h>
#include <windows.h>
#include <commctrl.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"

namespace {

constexpr int kMapList = 1016;
constexpr int kMoveDown = 1027;
constexpr int kWaitMs = 30000;

using ConfigurationDialog = int (*)(HWND);

// A settings file of `count` SOCKS maps: count - 1 numbered ones, then the default map.
void WriteSettings(int count) {
    std::string maps;
    auto value = [](const char* name, const std::string& text) {
        return std::string("<") + name + " value=\"" + text + "\"/>";
    };
    auto proxy = [&](const std::string& user) {
        return value("BasicAuthentication", "0") + value("ProtocolVersion", "4") +
               value("ProxyAddress", "proxy.example") + value("ProxyPort", "1080") + value("ProxyUser", user) +
               value("UseProxy", "1");
    };
    for (int i = 1; i < count; ++i) {
        maps += "<Map id=\"" + std::to_string(i) + "\">" + value("DestinationAddress", "host-" + std::to_string(i) + ".example") +
                value("DestinationPort", "80") + proxy("user" + std::to_string(i)) + "</Map>";
    }
    maps += "<Map id=\"Default\">" + proxy("Guest") + "</Map>";
    const std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE Settings>\r\n"
                             "<Settings version=\"25..2..0\"><Proxies><Proxy type=\"SOCKS\"><Maps count=\"" +
                             std::to_string(count - 1) + "\">" + maps + "</Maps></Proxy></Proxies></Settings>";
    const std::string path = dxbench::SettingsPath();
    for (size_t slash = path.find('\\', 3); slash != std::string::npos; slash = path.find('\\', slash + 1)) {
        CreateDirectoryA(path.substr(0, slash).c_str(), nullptr);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    if (!file) throw std::runtime_error("cannot write the settings file");
}

struct Search {
    HWND found;
};

BOOL CALLBACK MatchMainDialog(HWND window, LPARAM context) {
    char className[32] = {};
    GetClassNameA(window, className, sizeof className);
    if (lstrcmpA(className, "#32770") != 0 || !IsWindowVisible(window) || GetDlgItem(window, kMapList) == nullptr) {
        return TRUE;
    }
    reinterpret_cast<Search*>(context)->found = window;
    return FALSE;
}

// One dialog's times, in ns; not a number where a step did not happen.
struct DialogTimes {
    double open = dxbench::kNoValue;
    double moveDown = dxbench::kNoValue;
    double save = dxbench::kNoValue;
};

// Runs the dialog on this thread; a second thread waits for it with all `rows` listed, moves the first
// row down, and presses OK.
DialogTimes RunDialog(ConfigurationDialog dialog, int rows) {
    DialogTimes times;
    const DWORD thread = GetCurrentThreadId();
    std::atomic<double> okPressed{0};
    const double start = dxbench::NowNs();
    std::thread driver([&]() {
        HWND window = nullptr;
        for (double waited = 0; waited < kWaitMs * 1e6; waited = dxbench::NowNs() - start) {
            Search search = {nullptr};
            EnumThreadWindows(thread, MatchMainDialog, reinterpret_cast<LPARAM>(&search));
            HWND list = search.found != nullptr ? GetDlgItem(search.found, kMapList) : nullptr;
            if (list != nullptr && SendMessageA(list, LVM_GETITEMCOUNT, 0, 0) == rows) {
                times.open = dxbench::NowNs() - start;
                window = search.found;
                break;
            }
            Sleep(0);
        }
        if (window == nullptr) return;
        HWND list = GetDlgItem(window, kMapList);
        LVITEMA item = {};
        item.stateMask = LVIS_SELECTED | LVIS_FOCUSED;
        item.state = LVIS_SELECTED | LVIS_FOCUSED;
        SendMessageA(list, LVM_SETITEMSTATE, 0, reinterpret_cast<LPARAM>(&item));
        const double move = dxbench::NowNs();
        SendMessageA(GetDlgItem(window, kMoveDown), BM_CLICK, 0, 0);
        times.moveDown = dxbench::NowNs() - move;
        okPressed = dxbench::NowNs();
        PostMessageA(GetDlgItem(window, IDOK), BM_CLICK, 0, 0);
    });
    const int result = dialog(nullptr);
    const double end = dxbench::NowNs();
    driver.join();
    if (result == 1 && okPressed.load() != 0) times.save = end - okPressed.load();
    return times;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        const std::vector<int> counts = flags.Counts("maps", "10,100,1000");
        const int runs = flags.Positive("runs", 5);
        dxbench::ResultTable table(flags);
        InitCommonControls();
        for (int count : counts) {
            dxbench::ClearSettingsStore();
            WriteSettings(count);
            HMODULE library = LoadLibraryA("DXSOCKS.DLL");
            if (library == nullptr) throw std::runtime_error("DXSOCKS.DLL does not load");
            auto dialog = reinterpret_cast<ConfigurationDialog>(
                reinterpret_cast<void*>(GetProcAddress(library, "SOCKS_ConfigurationDialog")));
            if (dialog == nullptr) throw std::runtime_error("no SOCKS_ConfigurationDialog");
            std::vector<double> open, moveDown, save;
            for (int run = 0; run < runs; ++run) {
                DialogTimes times = RunDialog(dialog, count);
                if (times.open != times.open || times.save != times.save) {
                    throw std::runtime_error("the dialog did not open with " + std::to_string(count) + " rows or end with OK");
                }
                open.push_back(times.open);
                moveDown.push_back(times.moveDown);
                save.push_back(times.save);
            }
            FreeLibrary(library);
            const std::string maps = std::to_string(count) + " maps";
            dxbench::Summary opened = dxbench::Summarize(open);
            table.Add("dialog list", "open, " + maps, opened.count, opened.median, opened.p99,
                      "call to the dialog shown with every row; no target");
            dxbench::Summary moved = dxbench::Summarize(moveDown);
            table.Add("dialog list", "Move down, " + maps, moved.count, moved.median, moved.p99,
                      dxbench::FormatNs(moved.median / count) + " per row; the list filled again");
            dxbench::Summary saved = dxbench::Summarize(save);
            table.Add("dialog list", "OK's save, " + maps, saved.count, saved.median, saved.p99,
                      dxbench::FormatNs(saved.median / count) + " per map; the settings file written");
        }
        dxbench::ClearSettingsStore();
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        dxbench::ClearSettingsStore();
        std::fprintf(stderr, "dialog_list: %s\n", error.what());
        return 1;
    }
}
