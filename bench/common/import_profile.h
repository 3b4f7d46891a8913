// Counts and times the system calls that a connect makes, by module imports: the library's own
// (DXSOCKS.DLL's) and the benchmark's hand-written handshake (the program's), alike. The time of a
// call includes any wait in it, such as a blocking recv that waits for the proxy.
#pragma once

#include <windows.h>

#include <array>
#include <string>

namespace dxbench {

constexpr size_t kProfiledImports = 16;

struct ImportTotals {
    std::array<long long, kProfiledImports> calls{};
    std::array<long long, kProfiledImports> ns{};
    ImportTotals operator-(const ImportTotals& earlier) const;
    ImportTotals& operator+=(const ImportTotals& more);
    long long TotalNs() const;
};

class ImportProfile {
public:
    // Points the imports of both modules (`program` may be null) at the timing wrappers; the
    // destructor puts them back.
    ImportProfile(HMODULE library, HMODULE program);
    ~ImportProfile();
    ImportProfile(const ImportProfile&) = delete;
    ImportProfile& operator=(const ImportProfile&) = delete;

    // Totals so far of the calls made on any thread, or only of those made on other threads than
    // the one that set the profile up (the library's hidden threads, in a program with one thread).
    // To be called before the library's first connect: the resolver functions, which the library
    // binds by name at its first use, then reach it through timing wrappers.
    static void WatchBindings(HMODULE library);

    static ImportTotals Now();
    static ImportTotals NowOnOtherThreads();
    static const char* Name(size_t index);

private:
    HMODULE modules_[2];
};

}  // namespace dxbench
