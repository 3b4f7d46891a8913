// Driving the configuration dialogs as a user would: the export runs modally on the test's thread
// while a second thread finds its dialogs, reads and types into their controls and presses their
// buttons. Every wait stops at 10 s; whatever the driver leaves open is then closed, so that the
// export returns and a failing case never hangs.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace dxtest {

constexpr int kDialogWaitMs = 10000;

// Runs `open` on this thread and `drive` (given this thread's id) on a second one; returns what
// `open` returned. After `drive` the dialogs of this thread still open are cancelled.
intptr_t DriveDialog(const std::function<intptr_t()>& open, const std::function<void(DWORD thread)>& drive);

// The main dialog (it has the map list) and the map dialog (it has the destination field) of `thread`.
HWND MainDialog(DWORD thread);
HWND MapDialog(DWORD thread);
// A message box of `thread`: its text is control 65535.
HWND MessageBoxOf(DWORD thread);
// True when `window` is gone within the wait.
bool Closes(HWND window);

// The list's rows, each as its three cells.
struct Row {
    std::string destination, proxy, user;
    bool operator==(const Row& other) const {
        return destination == other.destination && proxy == other.proxy && user == other.user;
    }
};
inline void PrintTo(const Row& row, std::ostream* out) {
    *out << "{\"" << row.destination << "\", \"" << row.proxy << "\", \"" << row.user << "\"}";
}
std::vector<Row> Rows(HWND dialog);
int SelectedRow(HWND dialog);
void SelectRow(HWND dialog, int row);
void ClearSelection(HWND dialog);
// A double click on a row, posted as the mouse would.
void DoubleClickRow(HWND dialog, int row);

// Sets a field's text as a program would (no limit applies); clicks are sent, so that they take
// effect before the call returns, except those that open or end a modal dialog: those are posted.
void SetText(HWND dialog, int id, const std::string& text);
void Click(HWND dialog, int id);
bool Checked(HWND dialog, int id);
bool Enabled(HWND dialog, int id);
bool Visible(HWND dialog, int id);
int ComboSelection(HWND dialog, int id);
void SelectCombo(HWND dialog, int id, int index);
// The outer height of a window.
int Height(HWND window);

// A global atom added by another process, which outlives it, and its removal.
void AddAtomElsewhere(const char* name);
// Whether another process finds the atom.
bool AtomSeenElsewhere(const char* name);
void DeleteAtoms();

}  // namespace dxtest
