// Stands in for DXSOCKS.DLL's own module in the unit tests, which link the library's code into the
// test program: it lies in a folder of its own, without a UI library beside it, so that a password
// prompt there is one that is missing.
#include <windows.h>

extern "C" __declspec(dllexport) int StandInMarker() { return 1; }
