#include "lifecycle.h"

HMODULE g_hModule = nullptr;
HWND g_hSocksWindow = nullptr;
HWND g_hParentWindow = nullptr;
