// The arrow buttons of the configuration dialogs (Move up, Move down): the window class
// "SocksImageButtonClass", registered at process attach, and the dialogs' small window helpers.
#pragma once

#include <windows.h>

constexpr char kImageButtonClassName[] = "SocksImageButtonClass";

// At process attach: registers the class on `instance` unless it is registered already. A failure
// leaves it unregistered; templates that name the class then fail to load.
void RegisterImageButtonClass(HINSTANCE instance);
// At process detach: unregisters the class when it is registered.
void UnregisterImageButtonClass(HINSTANCE instance);
bool ImageButtonClassRegistered();

// Sizes a combo box's window so that its drop-down list shows its items, at most `maxLines`.
void FitComboDropHeight(HWND combo, int maxLines);
