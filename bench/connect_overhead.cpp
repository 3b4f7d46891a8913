// Connect overhead: blocking connects through DXSOCKS.DLL against the same handshake written out by
// hand over plain WinSock, to the same local proxy and the local echo server, alternating in one
// process. The timed span is what a host waits for before it can send: for the library the proxy
// naming call and the connect call, for the hand-written side connect, request and reply. Socket
// creation, a one-round-trip check of the tunnel and the close stay outside it.
//
// Where the library's time goes: the retry sleeps of its reads and sends are counted in the timed
// runs (they would show as multiples of 10 ms); afterwards, with both kinds alternating again, the
// calls a connect makes to WinSock and the other system calls are counted and timed per connect, so
// that the library's extra calls and its own code (outside them) can be told apart.
//
// Flags: --count=N (1000) timed connects of each kind per protocol; --warmup=N (20);
// --protocols=socks4,socks5,http; --http-proxy=auto|tinyproxy|squid (auto: the faster by a short
// hand-written trial); --breakdown=N (200) connects of each kind with their calls timed (0: none);
// --samples=PATH appends every timed sample as CSV; --rows=PATH and --bench-env=PATH as in every
// benchmark.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "http_api.h"
#include "import_profile.h"
#include "sleep_counter.h"
#include "socks_api.h"

namespace {

using dxbench::NowNs;

constexpr char kDestination[] = "127.0.0.1";
constexpr char kProbe[] = "ping";

enum class Protocol { kSocks4, kSocks5, kHttp };

struct Target {
    Protocol protocol;
    std::string name;       // as the table shows it
    std::string proxyName;  // the bench service
    sockaddr_in proxy;
    uint16_t echoPort;
};

// One connect's outcome: the timed span, or a failure with its reason.
struct Attempt {
    bool ok = false;
    double ns = 0;
    std::string failure;
    dxbench::ImportTotals calls;  // counted while ImportProfile is in place
};

SOCKET NewSocket() {
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) throw std::runtime_error("socket() failed: " + std::to_string(WSAGetLastError()));
    return s;
}

// The tunnel reaches the echo server: one round trip of a few bytes.
bool TunnelEchoes(SOCKET s) {
    char back[sizeof kProbe - 1] = {};
    return dxbench::SendAll(s, kProbe, sizeof kProbe - 1) && dxbench::ReceiveExactly(s, back, sizeof back) &&
           std::memcmp(back, kProbe, sizeof back) == 0;
}

Attempt LibraryConnect(const Target& target) {
    Attempt attempt;
    SOCKET s = NewSocket();
    int result;
    dxbench::ImportTotals before = dxbench::ImportProfile::Now();
    double start = NowNs();
    if (target.protocol == Protocol::kHttp) {
        HTTP_SetProxy(s, &target.proxy, sizeof target.proxy, "", 0);
        result = HTTP_ConnectEx(s, kDestination, target.echoPort, nullptr, AF_INET);
    } else {
        SOCKS_SetProxyEx(s, &target.proxy, sizeof target.proxy, "", target.protocol == Protocol::kSocks4 ? 4 : 5);
        result = SOCKS_ConnectEx(s, kDestination, target.echoPort, nullptr, AF_INET);
    }
    attempt.ns = NowNs() - start;
    attempt.calls = dxbench::ImportProfile::Now() - before;
    if (result != 0) {
        attempt.failure = "library connect failed, WinSock error " + std::to_string(WSAGetLastError());
    } else if (!TunnelEchoes(s)) {
        attempt.failure = "library tunnel did not echo";
    } else {
        attempt.ok = true;
    }
    // The library's close: the object leaves the registry before WinSock can hand the number out again.
    if (target.protocol == Protocol::kHttp) {
        HTTP_closesocket(s);
    } else {
        SOCKS_closesocket(s);
    }
    return attempt;
}

bool HandSocks4(SOCKET s, const Target& target) {
    uint8_t request[9] = {4, 1};
    uint16_t port = htons(target.echoPort);
    uint32_t address = inet_addr(kDestination);
    std::memcpy(request + 2, &port, 2);
    std::memcpy(request + 4, &address, 4);  // byte 8: the empty user id's terminator
    uint8_t reply[8];
    return dxbench::SendAll(s, request, sizeof request) && dxbench::ReceiveExactly(s, reply, sizeof reply) &&
           reply[1] == 90;
}

bool HandSocks5(SOCKET s, const Target& target) {
    const uint8_t select[3] = {5, 1, 0};
    uint8_t method[2];
    if (!dxbench::SendAll(s, select, sizeof select) || !dxbench::ReceiveExactly(s, method, sizeof method) ||
        method[0] != 5 || method[1] != 0) {
        return false;
    }
    uint8_t request[10] = {5, 1, 0, 1};
    uint32_t address = inet_addr(kDestination);
    uint16_t port = htons(target.echoPort);
    std::memcpy(request + 4, &address, 4);
    std::memcpy(request + 8, &port, 2);
    uint8_t head[4];
    if (!dxbench::SendAll(s, request, sizeof request) || !dxbench::ReceiveExactly(s, head, sizeof head) ||
        head[1] != 0) {
        return false;
    }
    // The bound address that closes the reply: IPv4, a name, or IPv6, then the port.
    uint8_t rest[262];
    int length;
    if (head[3] == 1) {
        length = 4 + 2;
    } else if (head[3] == 4) {
        length = 16 + 2;
    } else {
        uint8_t nameLength;
        if (!dxbench::ReceiveExactly(s, &nameLength, 1)) return false;
        length = nameLength + 2;
    }
    return dxbench::ReceiveExactly(s, rest, length);
}

bool HandHttp(SOCKET s, const Target& target) {
    std::string authority = std::string(kDestination) + ":" + std::to_string(target.echoPort);
    std::string request = "CONNECT " + authority + " HTTP/1.1\r\nHost: " + authority + "\r\n\r\n";
    if (!dxbench::SendAll(s, request.data(), static_cast<int>(request.size()))) return false;
    // The header ends at the blank line; the echo server sends nothing first, so nothing follows it.
    std::string reply;
    char buffer[1024];
    while (reply.find("\r\n\r\n") == std::string::npos) {
        int received = recv(s, buffer, sizeof buffer, 0);
        if (received <= 0) return false;
        reply.append(buffer, static_cast<size_t>(received));
    }
    size_t blank = reply.find(' ');
    return blank != std::string::npos && reply.compare(blank + 1, 3, "200") == 0;
}

Attempt HandConnect(const Target& target) {
    Attempt attempt;
    SOCKET s = NewSocket();
    dxbench::ImportTotals before = dxbench::ImportProfile::Now();
    double start = NowNs();
    bool granted = connect(s, reinterpret_cast<const sockaddr*>(&target.proxy), sizeof target.proxy) == 0;
    if (granted) {
        switch (target.protocol) {
            case Protocol::kSocks4: granted = HandSocks4(s, target); break;
            case Protocol::kSocks5: granted = HandSocks5(s, target); break;
            case Protocol::kHttp: granted = HandHttp(s, target); break;
        }
    }
    attempt.ns = NowNs() - start;
    attempt.calls = dxbench::ImportProfile::Now() - before;
    if (!granted) {
        attempt.failure = "hand-written handshake failed, WinSock error " + std::to_string(WSAGetLastError());
    } else if (!TunnelEchoes(s)) {
        attempt.failure = "hand-written tunnel did not echo";
    } else {
        attempt.ok = true;
    }
    closesocket(s);
    return attempt;
}

// The faster of the bench's HTTP proxies by the median of a few hand-written connects.
std::string FasterHttpProxy(const dxbench::BenchFile& bench, uint16_t echoPort, int trials) {
    std::string best;
    double bestMedian = 0;
    for (const std::string name : {"tinyproxy", "squid"}) {
        Target trial{Protocol::kHttp, "", name, dxbench::Loopback(bench.Port(name == "squid" ? "SQUID_PORT"
                                                                                             : "TINYPROXY_PORT")),
                     echoPort};
        std::vector<double> samples;
        for (int i = 0; i < trials; ++i) {
            Attempt attempt = HandConnect(trial);
            if (!attempt.ok) throw std::runtime_error(name + ": " + attempt.failure);
            samples.push_back(attempt.ns);
        }
        double median = dxbench::Summarize(samples).median;
        std::printf("HTTP proxy trial: %s, median of %d hand-written connects %s\n", name.c_str(), trials,
                    dxbench::FormatNs(median).c_str());
        if (best.empty() || median < bestMedian) {
            best = name;
            bestMedian = median;
        }
    }
    return best;
}

struct Measured {
    std::vector<double> library, hand;
    dxbench::SleepCounts sleeps;
};

// Median by nearest rank, as Summarize takes it, reordering `values`.
double MedianOf(std::vector<double>& values) {
    size_t rank = (values.size() + 1) / 2 - 1;
    std::nth_element(values.begin(), values.begin() + static_cast<long>(rank), values.end());
    return values[rank];
}

// How far the ratio of the medians would move over other runs like this one: a bootstrap over the
// iterations, each drawn with its library and its hand-written connect, 2000 times; the 2.5th and
// 97.5th percentiles.
std::pair<double, double> RatioInterval(const std::vector<double>& library, const std::vector<double>& hand) {
    std::mt19937 random(20240611);
    std::uniform_int_distribution<size_t> pick(0, library.size() - 1);
    std::vector<double> ratios, drawnLibrary(library.size()), drawnHand(hand.size());
    for (int round = 0; round < 2000; ++round) {
        for (size_t i = 0; i < library.size(); ++i) {
            size_t at = pick(random);
            drawnLibrary[i] = library[at];
            drawnHand[i] = hand[at];
        }
        ratios.push_back(MedianOf(drawnLibrary) / MedianOf(drawnHand));
    }
    std::sort(ratios.begin(), ratios.end());
    return {ratios[ratios.size() * 25 / 1000], ratios[ratios.size() * 975 / 1000 - 1]};
}

// Alternates library and hand-written connects, the first of each pair switching every iteration.
Measured Measure(const Target& target, int count, int warmup, FILE* samplesFile) {
    Measured measured;
    auto run = [&](bool library, bool keep) {
        Attempt attempt = library ? LibraryConnect(target) : HandConnect(target);
        if (!attempt.ok) throw std::runtime_error(target.name + ": " + attempt.failure);
        if (!keep) return;
        (library ? measured.library : measured.hand).push_back(attempt.ns);
        if (samplesFile != nullptr) {
            std::fprintf(samplesFile, "%s,%s,%.0f\n", target.name.c_str(), library ? "library" : "hand-written",
                         attempt.ns);
        }
    };
    for (int i = 0; i < warmup; ++i) {
        run(i % 2 == 0, false);
        run(i % 2 != 0, false);
    }
    dxbench::ResetSleepCounts();
    for (int i = 0; i < count; ++i) {
        run(i % 2 == 0, true);
        run(i % 2 != 0, true);
    }
    measured.sleeps = dxbench::ReadSleepCounts();
    return measured;
}

// Where a kind of connect spends its time: its calls to the system, counted and timed per connect.
struct Breakdown {
    std::vector<double> spans;
    std::vector<dxbench::ImportTotals> calls;
};

// Library and hand-written connects alternate here as in the timed comparison.
void Profile(const Target& target, int count, Breakdown& library, Breakdown& hand) {
    for (int i = 0; i < 2 * count; ++i) {
        bool ofLibrary = (i % 2 == 0) == (i / 2 % 2 == 0);
        Attempt attempt = ofLibrary ? LibraryConnect(target) : HandConnect(target);
        if (!attempt.ok) throw std::runtime_error(target.name + ": " + attempt.failure);
        Breakdown& into = ofLibrary ? library : hand;
        into.spans.push_back(attempt.ns);
        into.calls.push_back(attempt.calls);
    }
}

double MedianCalls(const Breakdown& breakdown, size_t import, bool time) {
    std::vector<double> values;
    for (const auto& totals : breakdown.calls) {
        values.push_back(static_cast<double>(time ? totals.ns[import] : totals.calls[import]));
    }
    return dxbench::Summarize(values).median;
}

double MedianOutside(const Breakdown& breakdown) {
    std::vector<double> outside;
    for (size_t c = 0; c < breakdown.spans.size(); ++c) {
        outside.push_back(breakdown.spans[c] - static_cast<double>(breakdown.calls[c].TotalNs()));
    }
    return dxbench::Summarize(outside).median;
}

// Per call: how many a connect makes and the median time a connect spends in them; then the median
// time a connect spends outside them, in its own code.
std::string Notes(const Breakdown& breakdown) {
    std::string text = "median per connect:";
    for (size_t i = 0; i < dxbench::kProfiledImports; ++i) {
        std::vector<double> calls, ns;
        for (const auto& totals : breakdown.calls) {
            calls.push_back(static_cast<double>(totals.calls[i]));
            ns.push_back(static_cast<double>(totals.ns[i]));
        }
        double count = dxbench::Summarize(calls).mean;
        if (count == 0) continue;
        std::string name = dxbench::ImportProfile::Name(i);
        if (name == "wvsprintfA") name = "log lines (first pass)";
        text += " " + name + " " + dxbench::Fixed(count, count == static_cast<long>(count) ? 0 : 1) + "x " +
                dxbench::FormatNs(dxbench::Summarize(ns).median) + ",";
    }
    return text + " outside these calls (own code) " + dxbench::FormatNs(MedianOutside(breakdown));
}

// What the library does beyond the hand-written handshake: the calls it makes more often, each with
// the difference of the median times spent in them, and the difference of its own code's time.
std::string Extra(const Breakdown& library, const Breakdown& hand) {
    std::string text;
    for (size_t i = 0; i < dxbench::kProfiledImports; ++i) {
        double more = MedianCalls(library, i, false) - MedianCalls(hand, i, false);
        if (more <= 0) continue;
        std::string name = dxbench::ImportProfile::Name(i);
        if (name == "wvsprintfA") name = "log lines (first pass)";
        double ns = MedianCalls(library, i, true) - MedianCalls(hand, i, true);
        text += name + " +" + dxbench::Fixed(more, 0) + " (" + (ns >= 0 ? "+" : "") + dxbench::FormatNs(ns) + "), ";
    }
    double own = MedianOutside(library) - MedianOutside(hand);
    return text + "own code " + (own >= 0 ? "+" : "") + dxbench::FormatNs(own);
}

void AddBreakdownRows(dxbench::ResultTable& table, const Target& target, const Breakdown& library,
                      const Breakdown& hand) {
    dxbench::Summary librarySpan = dxbench::Summarize(library.spans);
    dxbench::Summary handSpan = dxbench::Summarize(hand.spans);
    table.Add("connect breakdown", target.name + " library", librarySpan.count, librarySpan.median,
              librarySpan.p99, Notes(library));
    table.Add("connect breakdown", target.name + " hand-written", handSpan.count, handSpan.median, handSpan.p99,
              Notes(hand));
    table.Add("connect breakdown", target.name + " library minus hand-written", librarySpan.count,
              librarySpan.median - handSpan.median, dxbench::kNoValue,
              "medians per connect: " + Extra(library, hand));
}

}  // namespace

int main(int argc, char** argv) {
    dxbench::ImportProfile::WatchBindings(GetModuleHandleA("DXSOCKS.DLL"));
    try {
        dxbench::Flags flags(argc, argv);
        dxbench::BenchFile bench(flags);
        dxbench::Winsock winsock;
        const int count = static_cast<int>(flags.Number("count", 1000));
        const int warmup = static_cast<int>(flags.Number("warmup", 20));
        const int breakdown = static_cast<int>(flags.Number("breakdown", 200));
        const std::string protocols = flags.Text("protocols", "socks4,socks5,http");
        if (count < 1) throw std::runtime_error("--count must be at least 1");

        if (!dxbench::CountSleepsOf(GetModuleHandleA("DXSOCKS.DLL"))) {
            throw std::runtime_error("DXSOCKS.DLL imports no Sleep to count");
        }
        const uint16_t echoPort = bench.Port("ECHO_PORT");
        const sockaddr_in dante = dxbench::Loopback(bench.Port("DANTE_PORT"));

        std::vector<Target> targets;
        if (protocols.find("socks4") != std::string::npos) {
            targets.push_back({Protocol::kSocks4, "SOCKS 4", "danted", dante, echoPort});
        }
        if (protocols.find("socks5") != std::string::npos) {
            targets.push_back({Protocol::kSocks5, "SOCKS 5", "danted", dante, echoPort});
        }
        if (protocols.find("http") != std::string::npos) {
            std::string proxy = flags.Text("http-proxy", "auto");
            if (proxy == "auto") proxy = FasterHttpProxy(bench, echoPort, std::max(5, std::min(count, 50)));
            if (proxy != "tinyproxy" && proxy != "squid") throw std::runtime_error("--http-proxy: tinyproxy or squid");
            uint16_t port = bench.Port(proxy == "squid" ? "SQUID_PORT" : "TINYPROXY_PORT");
            targets.push_back({Protocol::kHttp, "HTTP CONNECT", proxy, dxbench::Loopback(port), echoPort});
        }

        FILE* samplesFile = nullptr;
        std::string samplesPath = flags.Text("samples", "");
        if (!samplesPath.empty() && (samplesFile = std::fopen(samplesPath.c_str(), "ab")) == nullptr) {
            throw std::runtime_error("cannot append to " + samplesPath);
        }

        dxbench::ResultTable table(flags);
        for (const Target& target : targets) {
            Measured measured = Measure(target, count, warmup, samplesFile);
            dxbench::Summary library = dxbench::Summarize(measured.library);
            dxbench::Summary hand = dxbench::Summarize(measured.hand);
            double ratio = library.median / hand.median;
            auto [low, high] = RatioInterval(measured.library, measured.hand);
            std::string sleeps = "retry sleeps " + std::to_string(measured.sleeps.tenMs) + "x10ms, " +
                                 std::to_string(measured.sleeps.zero) + "x0ms in " + std::to_string(count) +
                                 " connects";
            std::string where = "via " + target.proxyName;
            table.Add("connect", target.name + " library", library.count, library.median, library.p99,
                      where + "; ratio library/hand-written " + dxbench::Fixed(ratio, 3) + " (95% interval " + dxbench::Fixed(low, 3) +
                          " to " + dxbench::Fixed(high, 3) + ", target at most 1.10: " + (ratio <= 1.10 ? "met" : "missed") +
                          "); " + sleeps);
            table.Add("connect", target.name + " hand-written", hand.count, hand.median, hand.p99, where);
        }
        if (samplesFile != nullptr) std::fclose(samplesFile);

        if (breakdown > 0) {
            dxbench::ImportProfile profile(GetModuleHandleA("DXSOCKS.DLL"), GetModuleHandleA(nullptr));
            for (const Target& target : targets) {
                Breakdown library, hand;
                Profile(target, breakdown, library, hand);
                AddBreakdownRows(table, target, library, hand);
            }
        }
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "connect_overhead: %s\n", error.what());
        return 1;
    }
}
