// Counts the retry sleeps of DXSOCKS.DLL's handshakes, on every thread, without changing the
// library: the DLL's import of Sleep is pointed at a counting wrapper that then sleeps as asked.
#pragma once

#include <windows.h>

namespace dxbench {

struct SleepCounts {
    long tenMs = 0;  // reads and peeks that found nothing yet
    long zero = 0;   // sends that would have blocked
    long other = 0;  // any other duration
};

// Redirects `module`'s import of KERNEL32!Sleep; false if the module has no such import.
bool CountSleepsOf(HMODULE module);
SleepCounts ReadSleepCounts();
void ResetSleepCounts();

}  // namespace dxbench
