#include "import_profile.h"

#include <winsock2.h>

#include <ws2tcpip.h>

#include "bench_util.h"
#include "import_patch.h"

namespace dxbench {
namespace {

struct Entry {
    const char* dll;
    const char* name;
    void* wrapper;
    void* real;
    volatile LONG64 calls;
    volatile LONG64 ns;
    volatile LONG64 otherThreadCalls;
    volatile LONG64 otherThreadNs;
};

extern Entry g_entries[kProfiledImports];
DWORD g_profilingThread = 0;

void Record(size_t index, double ns) {
    Entry& entry = g_entries[index];
    InterlockedExchangeAdd64(&entry.ns, static_cast<LONG64>(ns));
    InterlockedIncrement64(&entry.calls);
    if (GetCurrentThreadId() != g_profilingThread) {
        InterlockedExchangeAdd64(&entry.otherThreadNs, static_cast<LONG64>(ns));
        InterlockedIncrement64(&entry.otherThreadCalls);
    }
}

template <size_t I, typename R, typename... A>
R WINAPI Timed(A... arguments) {
    auto real = reinterpret_cast<R(WINAPI*)(A...)>(g_entries[I].real);
    double start = NowNs();
    R result = real(arguments...);
    Record(I, NowNs() - start);
    return result;
}

template <size_t I>
void WINAPI TimedFree(addrinfo* list) {
    auto real = reinterpret_cast<void(WINAPI*)(addrinfo*)>(g_entries[I].real);
    double start = NowNs();
    real(list);
    Record(I, NowNs() - start);
}

template <typename F>
void* Address(F function) {
    return reinterpret_cast<void*>(function);
}

Entry g_entries[kProfiledImports] = {
    {"ws2_32.dll", "connect", Address(&Timed<0, int, SOCKET, const sockaddr*, int>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "send", Address(&Timed<1, int, SOCKET, const char*, int, int>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "recv", Address(&Timed<2, int, SOCKET, char*, int, int>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "getaddrinfo",
     Address(&Timed<3, int, const char*, const char*, const addrinfo*, addrinfo**>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "freeaddrinfo", Address(&TimedFree<4>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "inet_ntoa", Address(&Timed<5, char*, in_addr>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "WSAAsyncSelect", Address(&Timed<6, int, SOCKET, HWND, u_int, long>), nullptr, 0, 0, 0, 0},
    {"user32.dll", "LoadStringA", Address(&Timed<7, int, HINSTANCE, UINT, LPSTR, int>), nullptr, 0, 0, 0, 0},
    // One call per line of the log: the first of its two formatting passes.
    {"user32.dll", "wvsprintfA", Address(&Timed<8, int, LPSTR, LPCSTR, va_list>), nullptr, 0, 0, 0, 0},
    // The outcome of a non-blocking handshake, posted to the host's window.
    {"user32.dll", "PostMessageA", Address(&Timed<9, BOOL, HWND, UINT, WPARAM, LPARAM>), nullptr, 0, 0, 0, 0},
    // What a SOCKS handshake's identity entry costs: the local port, the shared block, a view per operation.
    {"ws2_32.dll", "getsockname", Address(&Timed<10, int, SOCKET, sockaddr*, int*>), nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "OpenFileMappingA", Address(&Timed<11, HANDLE, DWORD, BOOL, LPCSTR>), nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "CreateFileMappingA",
     Address(&Timed<12, HANDLE, HANDLE, LPSECURITY_ATTRIBUTES, DWORD, DWORD, DWORD, LPCSTR>), nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "MapViewOfFile", Address(&Timed<13, LPVOID, HANDLE, DWORD, DWORD, DWORD, SIZE_T>), nullptr, 0, 0,
     0, 0},
    {"kernel32.dll", "UnmapViewOfFile", Address(&Timed<14, BOOL, LPCVOID>), nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "CloseHandle", Address(&Timed<15, BOOL, HANDLE>), nullptr, 0, 0, 0, 0},
};

}  // namespace

ImportTotals ImportTotals::operator-(const ImportTotals& earlier) const {
    ImportTotals difference;
    for (size_t i = 0; i < kProfiledImports; ++i) {
        difference.calls[i] = calls[i] - earlier.calls[i];
        difference.ns[i] = ns[i] - earlier.ns[i];
    }
    return difference;
}

ImportTotals& ImportTotals::operator+=(const ImportTotals& more) {
    for (size_t i = 0; i < kProfiledImports; ++i) {
        calls[i] += more.calls[i];
        ns[i] += more.ns[i];
    }
    return *this;
}

long long ImportTotals::TotalNs() const {
    long long total = 0;
    for (long long value : ns) total += value;
    return total;
}

ImportProfile::ImportProfile(HMODULE library, HMODULE program) : modules_{library, program} {
    g_profilingThread = GetCurrentThreadId();
    for (HMODULE module : modules_) {
        if (module == nullptr) continue;
        for (Entry& entry : g_entries) {
            void* real = PatchImport(module, entry.dll, entry.name, entry.wrapper);
            if (real != nullptr && real != entry.wrapper) entry.real = real;
        }
    }
}

ImportProfile::~ImportProfile() {
    for (HMODULE module : modules_) {
        if (module == nullptr) continue;
        for (Entry& entry : g_entries) {
            if (entry.real != nullptr) PatchImport(module, entry.dll, entry.name, entry.real);
        }
    }
}

ImportTotals ImportProfile::Now() {
    ImportTotals totals;
    for (size_t i = 0; i < kProfiledImports; ++i) {
        totals.calls[i] = InterlockedCompareExchange64(&g_entries[i].calls, 0, 0);
        totals.ns[i] = InterlockedCompareExchange64(&g_entries[i].ns, 0, 0);
    }
    return totals;
}

ImportTotals ImportProfile::NowOnOtherThreads() {
    ImportTotals totals;
    for (size_t i = 0; i < kProfiledImports; ++i) {
        totals.calls[i] = InterlockedCompareExchange64(&g_entries[i].otherThreadCalls, 0, 0);
        totals.ns[i] = InterlockedCompareExchange64(&g_entries[i].otherThreadNs, 0, 0);
    }
    return totals;
}

const char* ImportProfile::Name(size_t index) { return g_entries[index].name; }

}  // namespace dxbench
