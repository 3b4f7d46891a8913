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

// Activates this library's common-controls 6 manifest (resource 2) on the calling thread while it
// lives; open dialogs inside one, else the native buttons show no image. Failures leave it inert.
class CommonControlsActivation {
public:
    explicit CommonControlsActivation(HMODULE module);
    ~CommonControlsActivation();
    CommonControlsActivation(const CommonControlsActivation&) = delete;
    CommonControlsActivation& operator=(const CommonControlsActivation&) = delete;

private:
    HANDLE context = INVALID_HANDLE_VALUE;
    ULONG_PTR cookie = 0;
    bool active = false;
};
