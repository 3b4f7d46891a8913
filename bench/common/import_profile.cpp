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
};

extern Entry g_entries[kProfiledImports];

template <size_t I, typename R, typename... A>
R WINAPI Timed(A... arguments) {
    auto real = reinterpret_cast<R(WINAPI*)(A...)>(g_entries[I].real);
    double start = NowNs();
    R result = real(arguments...);
    InterlockedExchangeAdd64(&g_entries[I].ns, static_cast<LONG64>(NowNs() - start));
    InterlockedIncrement64(&g_entries[I].calls);
    return result;
}

template <size_t I>
void WINAPI TimedFree(addrinfo* list) {
    auto real = reinterpret_cast<void(WINAPI*)(addrinfo*)>(g_entries[I].real);
    double start = NowNs();
    real(list);
    InterlockedExchangeAdd64(&g_entries[I].ns, static_cast<LONG64>(NowNs() - start));
    InterlockedIncrement64(&g_entries[I].calls);
}

template <typename F>
void* Address(F function) {
    return reinterpret_cast<void*>(function);
}

Entry g_entries[kProfiledImports] = {
    {"ws2_32.dll", "connect", Address(&Timed<0, int, SOCKET, const sockaddr*, int>), nullptr, 0, 0},
    {"ws2_32.dll", "send", Address(&Timed<1, int, SOCKET, const char*, int, int>), nullptr, 0, 0},
    {"ws2_32.dll", "recv", Address(&Timed<2, int, SOCKET, char*, int, int>), nullptr, 0, 0},
    {"ws2_32.dll", "getaddrinfo",
     Address(&Timed<3, int, const char*, const char*, const addrinfo*, addrinfo**>), nullptr, 0, 0},
    {"ws2_32.dll", "freeaddrinfo", Address(&TimedFree<4>), nullptr, 0, 0},
    {"ws2_32.dll", "inet_ntoa", Address(&Timed<5, char*, in_addr>), nullptr, 0, 0},
    {"ws2_32.dll", "WSAAsyncSelect", Address(&Timed<6, int, SOCKET, HWND, u_int, long>), nullptr, 0, 0},
    {"user32.dll", "LoadStringA", Address(&Timed<7, int, HINSTANCE, UINT, LPSTR, int>), nullptr, 0, 0},
    // One call per line of the log: the first of its two formatting passes.
    {"user32.dll", "wvsprintfA", Address(&Timed<8, int, LPSTR, LPCSTR, va_list>), nullptr, 0, 0},
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
    for (HMODULE module : modules_) {
        for (Entry& entry : g_entries) {
            void* real = PatchImport(module, entry.dll, entry.name, entry.wrapper);
            if (real != nullptr && real != entry.wrapper) entry.real = real;
        }
    }
}

ImportProfile::~ImportProfile() {
    for (HMODULE module : modules_) {
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

const char* ImportProfile::Name(size_t index) { return g_entries[index].name; }

}  // namespace dxbench
