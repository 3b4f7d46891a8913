#include "sleep_counter.h"

#include "import_patch.h"

namespace dxbench {
namespace {

using SleepFunction = VOID(WINAPI*)(DWORD);

SleepFunction g_realSleep = nullptr;
volatile LONG g_tenMs = 0;
volatile LONG g_zero = 0;
volatile LONG g_other = 0;

// The hidden threads sleep here as well as the caller's, hence the interlocked counts.
VOID WINAPI CountingSleep(DWORD milliseconds) {
    if (milliseconds == 10) {
        InterlockedIncrement(&g_tenMs);
    } else if (milliseconds == 0) {
        InterlockedIncrement(&g_zero);
    } else {
        InterlockedIncrement(&g_other);
    }
    g_realSleep(milliseconds);
}

}  // namespace

bool CountSleepsOf(HMODULE module) {
    void* real = PatchImport(module, "kernel32.dll", "Sleep", reinterpret_cast<void*>(&CountingSleep));
    if (real == nullptr) return false;
    g_realSleep = reinterpret_cast<SleepFunction>(real);
    return true;
}

SleepCounts ReadSleepCounts() {
    SleepCounts counts;
    counts.tenMs = InterlockedCompareExchange(&g_tenMs, 0, 0);
    counts.zero = InterlockedCompareExchange(&g_zero, 0, 0);
    counts.other = InterlockedCompareExchange(&g_other, 0, 0);
    return counts;
}

void ResetSleepCounts() {
    InterlockedExchange(&g_tenMs, 0);
    InterlockedExchange(&g_zero, 0);
    InterlockedExchange(&g_other, 0);
}

}  // namespace dxbench
