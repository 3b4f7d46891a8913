#include "bench_util.h"

#include <shlobj.h>

#include <climits>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace dxbench {

Flags::Flags(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word.rfind("--", 0) != 0) throw std::runtime_error("unexpected argument: " + word);
        word = word.substr(2);
        size_t equals = word.find('=');
        if (equals != std::string::npos) {
            values_[word.substr(0, equals)] = word.substr(equals + 1);
        } else if (i + 1 < argc && std::string(argv[i + 1]).rfind("--", 0) != 0) {
            values_[word] = argv[++i];
        } else {
            values_[word] = "1";
        }
    }
}

std::string Flags::Text(const std::string& name, const std::string& fallback) const {
    auto found = values_.find(name);
    return found == values_.end() ? fallback : found->second;
}

long Flags::Number(const std::string& name, long fallback) const {
    auto found = values_.find(name);
    if (found == values_.end()) return fallback;
    char* end = nullptr;
    long value = std::strtol(found->second.c_str(), &end, 10);
    if (end == found->second.c_str() || *end != '\0') throw std::runtime_error("--" + name + " wants a number");
    return value;
}

int Flags::Positive(const std::string& name, int fallback) const {
    const long value = Number(name, fallback);
    if (value < 1 || value > INT_MAX) throw std::runtime_error("--" + name + " must be at least 1");
    return static_cast<int>(value);
}

std::vector<int> Flags::Counts(const std::string& name, const std::string& fallback) const {
    std::vector<int> counts;
    std::stringstream words(Text(name, fallback));
    std::string word;
    while (std::getline(words, word, ',')) {
        int count = std::stoi(word);
        if (count < 1) throw std::runtime_error("--" + name + ": each at least 1");
        counts.push_back(count);
    }
    return counts;
}

BenchFile::BenchFile(const Flags& flags) {
    std::string path = flags.Text("bench-env", "");
    if (path.empty()) {
        const char* fromEnvironment = std::getenv("DXTEST_BENCH");
        if (fromEnvironment == nullptr) throw std::runtime_error("give --bench-env=PATH or set DXTEST_BENCH");
        path = fromEnvironment;
    }
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read the bench file " + path);
    std::string line;
    while (std::getline(file, line)) {
        size_t equals = line.find('=');
        if (equals != std::string::npos) values_[line.substr(0, equals)] = line.substr(equals + 1);
    }
}

uint16_t BenchFile::Port(const std::string& key) const {
    auto found = values_.find(key);
    if (found == values_.end()) throw std::runtime_error("the bench file has no " + key);
    return static_cast<uint16_t>(std::stoi(found->second));
}

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

double NowNs() {
    static const double nsPerTick = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return 1e9 / static_cast<double>(frequency.QuadPart);
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * nsPerTick;
}

std::vector<double> BatchMeans(const std::function<double(size_t)>& batch, size_t first, size_t limit, int batchMs,
                               int batches) {
    size_t calls = first;
    while (batch(calls) < batchMs * 1e6 && calls < limit) calls *= 2;
    std::vector<double> means;
    for (int i = 0; i < batches; ++i) means.push_back(batch(calls) / static_cast<double>(calls));
    return means;
}

Summary Summarize(std::vector<double> samples) {
    Summary summary;
    if (samples.empty()) return summary;
    std::sort(samples.begin(), samples.end());
    auto rank = [&](double fraction) {
        size_t index = static_cast<size_t>(std::ceil(fraction * static_cast<double>(samples.size())));
        return samples[index == 0 ? 0 : index - 1];
    };
    summary.count = samples.size();
    summary.median = rank(0.5);
    summary.p99 = rank(0.99);
    summary.min = samples.front();
    summary.max = samples.back();
    double total = 0;
    for (double sample : samples) total += sample;
    summary.mean = total / static_cast<double>(samples.size());
    return summary;
}

std::string Fixed(double value, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string FormatNs(double ns) {
    if (std::isnan(ns)) return "-";
    char text[32];
    double size = std::fabs(ns);
    if (size < 1e3) {
        std::snprintf(text, sizeof text, "%.1f ns", ns);
    } else if (size < 1e6) {
        std::snprintf(text, sizeof text, "%.1f us", ns / 1e3);
    } else if (size < 1e9) {
        std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
    } else {
        std::snprintf(text, sizeof text, "%.2f s", ns / 1e9);
    }
    return text;
}

ResultTable::ResultTable(const Flags& flags) : rowsPath_(flags.Text("rows", "")) {}

void ResultTable::Add(const std::string& benchmark, const std::string& item, size_t count, double medianNs,
                      double p99Ns, const std::string& notes) {
    rows_.push_back({benchmark, item, count, medianNs, p99Ns, notes});
}

bool ResultTable::Print() const {
    std::printf("| Benchmark | Case | N | Median | p99 | Notes |\n");
    std::printf("|---|---|---:|---:|---:|---|\n");
    for (const Row& row : rows_) {
        std::printf("| %s | %s | %zu | %s | %s | %s |\n", row.benchmark.c_str(), row.item.c_str(), row.count,
                    FormatNs(row.median).c_str(), FormatNs(row.p99).c_str(), row.notes.c_str());
    }
    std::fflush(stdout);
    if (rowsPath_.empty()) return true;
    FILE* file = std::fopen(rowsPath_.c_str(), "ab");
    if (file == nullptr) {
        std::fprintf(stderr, "cannot append to %s\n", rowsPath_.c_str());
        return false;
    }
    for (const Row& row : rows_) {
        std::fprintf(file, "%s\t%s\t%zu\t%.1f\t%.1f\t%s\n", row.benchmark.c_str(), row.item.c_str(), row.count,
                     row.median, row.p99, row.notes.c_str());
    }
    return std::fclose(file) == 0;
}

Winsock::Winsock() {
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) throw std::runtime_error("WSAStartup failed");
}

Winsock::~Winsock() { WSACleanup(); }

bool SendAll(SOCKET s, const void* bytes, int length) {
    const char* next = static_cast<const char*>(bytes);
    while (length > 0) {
        int sent = send(s, next, length, 0);
        if (sent <= 0) return false;
        next += sent;
        length -= sent;
    }
    return true;
}

bool ReceiveExactly(SOCKET s, void* buffer, int count) {
    char* next = static_cast<char*>(buffer);
    while (count > 0) {
        int received = recv(s, next, count, 0);
        if (received <= 0) return false;
        next += received;
        count -= received;
    }
    return true;
}

std::string SettingsPath() {
    char folder[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder))) return "";
    return std::string(folder) + "\\Zelmont\\Verdane\\Settings.xml";
}

void ClearSettingsStore() {
    const std::string file = SettingsPath();
    if (!file.empty()) DeleteFileA(file.c_str());
    RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\Verdane");
    RegDeleteKeyA(HKEY_CURRENT_USER, "Software\\Verdane");
    RegDeleteTreeA(HKEY_USERS, ".Default\\Software\\Verdane");
    RegDeleteKeyA(HKEY_USERS, ".Default\\Software\\Verdane");
}

}  // namespace dxbench
