#include "dialog_driver.h"

#include <commctrl.h>
#include <gtest/gtest.h>

#include <thread>

#include "module_files.h"
#include "prompt_window.h"

namespace dxtest {

namespace {

BOOL CALLBACK CollectDialogs(HWND window, LPARAM context) {
    char className[32] = {};
    GetClassNameA(window, className, sizeof className);
    if (lstrcmpA(className, "#32770") == 0 && IsWindowVisible(window)) {
        reinterpret_cast<std::vector<HWND>*>(context)->push_back(window);
    }
    return TRUE;
}

// Cancels the topmost dialogs first (a map dialog before its main dialog, a message box before all).
void CloseAllDialogs(DWORD thread) {
    for (int waited = 0; waited <= kDialogWaitMs; waited += 20) {
        std::vector<HWND> open;
        EnumThreadWindows(thread, CollectDialogs, reinterpret_cast<LPARAM>(&open));
        if (open.empty()) return;
        for (HWND dialog : open) {
            if (IsWindowEnabled(dialog)) PostMessageA(dialog, WM_COMMAND, IDCANCEL, 0);
        }
        Sleep(20);
    }
}

}  // namespace

intptr_t DriveDialog(const std::function<intptr_t()>& open, const std::function<void(DWORD thread)>& drive) {
    const DWORD thread = GetCurrentThreadId();
    std::thread driver([&]() {
        drive(thread);
        CloseAllDialogs(thread);
    });
    intptr_t result = open();
    driver.join();
    return result;
}

HWND MainDialog(DWORD thread) { return FindDialog(thread, 1016, nullptr, kDialogWaitMs); }
HWND MapDialog(DWORD thread) { return FindDialog(thread, 1004, nullptr, kDialogWaitMs); }
HWND MessageBoxOf(DWORD thread) { return FindDialog(thread, 65535, nullptr, kDialogWaitMs); }

bool Closes(HWND window) {
    for (int waited = 0; waited <= kDialogWaitMs; waited += 10) {
        if (!IsWindow(window) || !IsWindowVisible(window)) return true;
        Sleep(10);
    }
    return false;
}

std::vector<Row> Rows(HWND dialog) {
    HWND list = GetDlgItem(dialog, 1016);
    std::vector<Row> rows;
    const int count = static_cast<int>(SendMessageA(list, LVM_GETITEMCOUNT, 0, 0));
    for (int i = 0; i < count; ++i) {
        std::string cells[3];
        for (int column = 0; column < 3; ++column) {
            char text[1100] = {};
            LVITEMA item = {};
            item.iSubItem = column;
            item.pszText = text;
            item.cchTextMax = sizeof text;
            SendMessageA(list, LVM_GETITEMTEXTA, static_cast<WPARAM>(i), reinterpret_cast<LPARAM>(&item));
            cells[column] = text;
        }
        rows.push_back({cells[0], cells[1], cells[2]});
    }
    return rows;
}

int SelectedRow(HWND dialog) {
    return static_cast<int>(
        SendMessageA(GetDlgItem(dialog, 1016), LVM_GETNEXTITEM, static_cast<WPARAM>(-1), LVNI_SELECTED));
}

void SelectRow(HWND dialog, int row) {
    LVITEMA item = {};
    item.stateMask = LVIS_SELECTED | LVIS_FOCUSED;
    item.state = LVIS_SELECTED | LVIS_FOCUSED;
    SendMessageA(GetDlgItem(dialog, 1016), LVM_SETITEMSTATE, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(&item));
}

void ClearSelection(HWND dialog) {
    LVITEMA item = {};
    item.stateMask = LVIS_SELECTED | LVIS_FOCUSED;
    SendMessageA(GetDlgItem(dialog, 1016), LVM_SETITEMSTATE, static_cast<WPARAM>(-1), reinterpret_cast<LPARAM>(&item));
}

void DoubleClickRow(HWND dialog, int row) {
    HWND list = GetDlgItem(dialog, 1016);
    RECT rect = {};
    rect.left = LVIR_LABEL;
    SendMessageA(list, LVM_GETITEMRECT, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(&rect));
    const LPARAM point = MAKELPARAM((rect.left + rect.right) / 2, (rect.top + rect.bottom) / 2);
    PostMessageA(list, WM_LBUTTONDOWN, MK_LBUTTON, point);
    PostMessageA(list, WM_LBUTTONUP, 0, point);
    PostMessageA(list, WM_LBUTTONDBLCLK, MK_LBUTTON, point);
    PostMessageA(list, WM_LBUTTONUP, 0, point);
}

void SetText(HWND dialog, int id, const std::string& text) { SetDlgItemTextA(dialog, id, text.c_str()); }

void Click(HWND dialog, int id) { SendMessageA(GetDlgItem(dialog, id), BM_CLICK, 0, 0); }

bool Checked(HWND dialog, int id) { return SendDlgItemMessageA(dialog, id, BM_GETCHECK, 0, 0) == BST_CHECKED; }

bool Enabled(HWND dialog, int id) { return IsWindowEnabled(GetDlgItem(dialog, id)) != FALSE; }

bool Visible(HWND dialog, int id) {
    return (GetWindowLongA(GetDlgItem(dialog, id), GWL_STYLE) & WS_VISIBLE) != 0;
}

int ComboSelection(HWND dialog, int id) {
    return static_cast<int>(SendDlgItemMessageA(dialog, id, CB_GETCURSEL, 0, 0));
}

void SelectCombo(HWND dialog, int id, int index) {
    SendDlgItemMessageA(dialog, id, CB_SETCURSEL, static_cast<WPARAM>(index), 0);
}

int Height(HWND window) {
    RECT rect = {};
    GetWindowRect(window, &rect);
    return rect.bottom - rect.top;
}

namespace {

DWORD RunAtomAdder(const char* verb, const char* name) {
    std::string command = "\"" + BesideProgram("atom_adder.exe") + "\" " + verb + " " + name;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
        return 3;
    }
    DWORD code = 3;
    if (WaitForSingleObject(process.hProcess, kDialogWaitMs) == WAIT_OBJECT_0) {
        GetExitCodeProcess(process.hProcess, &code);
    } else {
        TerminateProcess(process.hProcess, 3);
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return code;
}

}  // namespace

void AddAtomElsewhere(const char* name) {
    ASSERT_EQ(RunAtomAdder("add", name), 0u);
    ASSERT_NE(GlobalFindAtomA(name), 0);
}

bool AtomSeenElsewhere(const char* name) { return RunAtomAdder("find", name) == 0; }

void DeleteAtoms() {
    for (const char* name : {"KVT_Verdane_SOCKS_Configuration", "KVT_Verdane_HTTP_Configuration"}) {
        for (int i = 0; i < 100; ++i) {
            ATOM atom = GlobalFindAtomA(name);
            if (atom == 0) break;
            GlobalDeleteAtom(atom);
        }
    }
}

}  // namespace dxtest
