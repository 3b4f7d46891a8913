// Finding and driving prompts, message boxes and dialogs from a test thread, as a user would.
#pragma once

#include <windows.h>

#include <string>

namespace dxtest {

// The visible prompt with `title` among the windows of `thread` (0: of any thread), waiting at most
// `timeoutMs`; null if none came.
HWND FindPrompt(DWORD thread, const char* title, int timeoutMs = 8000);
// The visible dialog box (class "#32770": a dialog or a message box) among the windows of `thread`
// (0: of any thread) that has a child control `controlId` and, when `title` is given, that title;
// waiting at most `timeoutMs`; null if none came. A message box's text is control 65535.
HWND FindDialog(DWORD thread, int controlId, const char* title = nullptr, int timeoutMs = 8000);
std::string ItemText(HWND dialog, int id);
// Typed as a user types: one WM_CHAR per character, so that the edit's limit applies.
void Type(HWND dialog, const std::string& text);
// The same into the control `id` of a dialog.
void TypeInto(HWND dialog, int id, const std::string& text);
// Posted, so that a button that ends a nested modal loop does not hold the caller.
void Press(HWND dialog, int button);

}  // namespace dxtest
