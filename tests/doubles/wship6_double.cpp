// A wship6.dll with the three resolver functions, each answering a code of its own, for the binder's
// fall-back to the helper library beside a system folder without ws2_32.
#include <windows.h>

extern "C" {

__declspec(dllexport) int WINAPI getaddrinfo(const char*, const char*, const void*, void** result) {
    if (result != nullptr) *result = nullptr;
    return 60001;
}

__declspec(dllexport) int WINAPI getnameinfo(const void*, int, char*, DWORD, char*, DWORD, int) { return 60002; }

__declspec(dllexport) void WINAPI freeaddrinfo(void*) {}

}  // extern "C"
