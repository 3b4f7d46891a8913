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
    // The library binds this one by name at its first use instead of importing it.
    bool bound;
    void* wrapper;
    void* real;
    volatile LONG64 calls;
    volatile LONG64 ns;
    volatile LONG64 otherThreadCalls;
    volatile LONG64 otherThreadNs;
};

extern Entry g_entries[kProfiledImports];
DWORD g_profilingThread = 0;
// The wrappers of the functions bound by name stay in place for good; they time only while a
// profile is.
volatile LONG g_profiling = 0;

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

template <size_t I, typename R, typename... A>
R WINAPI TimedWhileProfiling(A... arguments) {
    auto real = reinterpret_cast<R(WINAPI*)(A...)>(g_entries[I].real);
    if (g_profiling == 0) return real(arguments...);
    double start = NowNs();
    R result = real(arguments...);
    Record(I, NowNs() - start);
    return result;
}

template <size_t I>
void WINAPI TimedFree(addrinfo* list) {
    auto real = reinterpret_cast<void(WINAPI*)(addrinfo*)>(g_entries[I].real);
    if (g_profiling == 0) return real(list);
    double start = NowNs();
    real(list);
    Record(I, NowNs() - start);
}

// The library's GetProcAddress: a function it binds by name gets its wrapper, which calls what the
// system gave.
FARPROC WINAPI ProfiledGetProcAddress(HMODULE module, LPCSTR name) {
    FARPROC real = GetProcAddress(module, name);
    if (real == nullptr || IS_INTRESOURCE(name)) return real;
    for (Entry& entry : g_entries) {
        if (entry.bound && lstrcmpA(entry.name, name) == 0) {
            entry.real = reinterpret_cast<void*>(real);
            return reinterpret_cast<FARPROC>(entry.wrapper);
        }
    }
    return real;
}

template <typename F>
void* Address(F function) {
    return reinterpret_cast<void*>(function);
}

Entry g_entries[kProfiledImports] = {
    {"ws2_32.dll", "connect", false, Address(&Timed<0, int, SOCKET, const sockaddr*, int>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "send", false, Address(&Timed<1, int, SOCKET, const char*, int, int>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "recv", false, Address(&Timed<2, int, SOCKET, char*, int, int>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "getaddrinfo", true,
     Address(&TimedWhileProfiling<3, int, const char*, const char*, const addrinfo*, addrinfo**>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "freeaddrinfo", true, Address(&TimedFree<4>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "inet_ntoa", false, Address(&Timed<5, char*, in_addr>), nullptr, 0, 0, 0, 0},
    {"ws2_32.dll", "WSAAsyncSelect", false, Address(&Timed<6, int, SOCKET, HWND, u_int, long>), nullptr, 0, 0, 0, 0},
    {"user32.dll", "LoadStringA", false, Address(&Timed<7, int, HINSTANCE, UINT, LPSTR, int>), nullptr, 0, 0, 0, 0},
    // One call per line of the log: the first of its two formatting passes.
    {"user32.dll", "wvsprintfA", false, Address(&Timed<8, int, LPSTR, LPCSTR, va_list>), nullptr, 0, 0, 0, 0},
    // The outcome of a non-blocking handshake, posted to the host's window.
    {"user32.dll", "PostMessageA", false, Address(&Timed<9, BOOL, HWND, UINT, WPARAM, LPARAM>), nullptr, 0, 0, 0, 0},
    // What a SOCKS handshake's identity entry costs: the local port, the shared block, a view per operation.
    {"ws2_32.dll", "getsockname", false, Address(&Timed<10, int, SOCKET, sockaddr*, int*>), nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "OpenFileMappingA", false, Address(&Timed<11, HANDLE, DWORD, BOOL, LPCSTR>), nullptr, 0, 0, 0,
     0},
    {"kernel32.dll", "CreateFileMappingA", false,
     Address(&Timed<12, HANDLE, HANDLE, LPSECURITY_ATTRIBUTES, DWORD, DWORD, DWORD, LPCSTR>), nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "MapViewOfFile", false, Address(&Timed<13, LPVOID, HANDLE, DWORD, DWORD, DWORD, SIZE_T>),
     nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "UnmapViewOfFile", false, Address(&Timed<14, BOOL, LPCVOID>), nullptr, 0, 0, 0, 0},
    {"kernel32.dll", "CloseHandle", false, Address(&Timed<15, BOOL, HANDLE>), nullptr, 0, 0, 0, 0},
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

void ImportProfile::WatchBindings(HMODULE library) {
    PatchImport(library, "kernel32.dll", "GetProcAddress", reinterpret_cast<void*>(&ProfiledGetProcAddress));
}

ImportProfile::ImportProfile(HMODULE library, HMODULE program) : modules_{library, program} {
    g_profilingThread = GetCurrentThreadId();
    InterlockedExchange(&g_profiling, 1);
    for (HMODULE module : modules_) {
        if (module == nullptr) continue;
        for (Entry& entry : g_entries) {
            if (entry.bound && module == library) continue;
            void* real = PatchImport(module, entry.dll, entry.name, entry.wrapper);
            if (real != nullptr && real != entry.wrapper) entry.real = real;
        }
    }
}

ImportProfile::~ImportProfile() {
    InterlockedExchange(&g_profiling, 0);
    for (HMODULE module : modules_) {
        if (module == nullptr) continue;
        for (Entry& entry : g_entries) {
            if (entry.bound && module == modules_[0]) continue;
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
