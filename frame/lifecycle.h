// Process-wide handles of the library's lifetime.
#pragma once

#include <winsock2.h>
#include <windows.h>

constexpr UINT WM_SOCKET_EVENT = WM_USER + 1;

extern HMODULE g_hModule;
extern HWND g_hSocksWindow;
extern HWND g_hParentWindow;
