// The library's lifetime: the entry routine's globals, each family's hidden thread and window, and
// the message pump that every wait of the library turns.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstddef>
#include <cstdint>

constexpr UINT WM_SOCKET_EVENT = WM_USER + 1;

extern HMODULE g_hModule;
extern HWND g_hParentWindow;
// The first-use prompt of either family is open; a time-out reported meanwhile (nothing reads it).
extern int32_t g_configPromptActive;
extern int32_t g_configPromptTimedOut;

extern int32_t g_socksStartupCount;
extern HANDLE g_hSocksThread;
extern HWND g_hSocksWindow;
extern int32_t g_socksThreadDone;

extern int32_t g_httpStartupCount;
extern HANDLE g_hHttpThread;
extern HWND g_hHttpWindow;
extern int32_t g_httpThreadDone;

// Serves at most one message of the calling thread's queue; returns at once when it is empty.
void PumpOneMessage();

using SocketEventHandler = int (*)(SOCKET socket, unsigned error, unsigned events);

// What tells one family's hidden window apart from the other's. The fields point at the family's
// own plain globals.
struct HiddenWindowFamily {
    const char* className;
    HWND* window;
    HANDLE* thread;
    int32_t* threadDone;
    int32_t* startupCount;
    WNDPROC windowProcedure;
    LPTHREAD_START_ROUTINE threadRoutine;
};

// The window procedure both families share, with the family's event handler.
LRESULT HiddenWindowProcedure(const HiddenWindowFamily& family, SocketEventHandler onSocketEvent, HWND window,
                              UINT message, WPARAM wParam, LPARAM lParam);
// The body of a family's hidden thread: register the class, make the window, serve its messages.
DWORD RunHiddenWindowThread(const HiddenWindowFamily& family);

// A family's Startup: copies the smaller of `size` and the dispatch table into `table` (may be null;
// the comparison is unsigned on the sign-extended size, so a negative size copies the whole table);
// the first startup starts the thread and waits, pumping, until its window exists; then counts.
// Returns 1, or 0 when the thread could not be created.
int StartFamily(const HiddenWindowFamily& family, const char* name, void* table, int size, const void* dispatch,
                size_t dispatchSize);
