// What the benchmark programs share: their flags, the bench file with the proxies' ports, a
// high-resolution clock, order statistics, and the result table each one prints.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace dxbench {

// Flags of the form --name=value or --name value; a bare --name reads as "1".
class Flags {
public:
    Flags(int argc, char** argv);
    std::string Text(const std::string& name, const std::string& fallback) const;
    long Number(const std::string& name, long fallback) const;
    // A count or time that must be at least 1; throws std::runtime_error naming the flag otherwise.
    int Positive(const std::string& name, int fallback) const;
    // A list of counts such as "1,16,64", each at least 1.
    std::vector<int> Counts(const std::string& name, const std::string& fallback) const;
    bool Has(const std::string& name) const { return values_.count(name) != 0; }

private:
    std::map<std::string, std::string> values_;
};

// KEY=VALUE lines of the file that start_bench.sh writes; the path comes from --bench-env or the
// environment variable DXTEST_BENCH. Throws std::runtime_error when the file or a key is missing.
class BenchFile {
public:
    explicit BenchFile(const Flags& flags);
    uint16_t Port(const std::string& key) const;

private:
    std::map<std::string, std::string> values_;
};

sockaddr_in Loopback(uint16_t port);

// Nanoseconds on the performance counter.
double NowNs();

struct Summary {
    size_t count = 0;
    double median = 0;
    double p99 = 0;
    double mean = 0;
    double min = 0;
    double max = 0;
};
// Order statistics by nearest rank; an empty sample gives all zeros.
Summary Summarize(std::vector<double> samples);

// Mean times per call of `batches` batches. `batch(n)` makes n calls and gives the nanoseconds they
// took; n doubles from `first` until a batch lasts `batchMs` or n reaches `limit`.
std::vector<double> BatchMeans(const std::function<double(size_t)>& batch, size_t first, size_t limit, int batchMs,
                               int batches);

// A table cell without a figure (printed as "-").
constexpr double kNoValue = __builtin_nan("");

// "812 ns", "41.3 us", "1.27 ms", "2.10 s"; "-" for kNoValue.
std::string FormatNs(double ns);
// `value` with `digits` digits behind the point.
std::string Fixed(double value, int digits);

// The one table layout every program prints: | Benchmark | Case | N | Median | p99 | Notes |.
// With --rows=PATH the same rows are appended to PATH as tab-separated values (times in ns), so
// that bench/run can join the programs' rows into one table.
class ResultTable {
public:
    explicit ResultTable(const Flags& flags);
    void Add(const std::string& benchmark, const std::string& item, size_t count, double medianNs, double p99Ns,
             const std::string& notes);
    // Prints the table to stdout; false if the rows file could not be written.
    bool Print() const;

private:
    struct Row {
        std::string benchmark, item;
        size_t count;
        double median, p99;
        std::string notes;
    };
    std::string rowsPath_;
    std::vector<Row> rows_;
};

// The settings file our suite library names: <per-user application data>\Zelmont\Verdane\Settings.xml.
std::string SettingsPath();
// The settings file and Software\Verdane of the user's hive and of HKEY_USERS\.Default removed.
void ClearSettingsStore();

// Starts WinSock 2.2 for the program's life; throws on failure.
class Winsock {
public:
    Winsock();
    ~Winsock();
    Winsock(const Winsock&) = delete;
    Winsock& operator=(const Winsock&) = delete;
};

// Sends all bytes, or receives exactly `count` bytes, on a blocking socket; false on failure or an
// early close.
bool SendAll(SOCKET s, const void* bytes, int length);
bool ReceiveExactly(SOCKET s, void* buffer, int count);

}  // namespace dxbench
