// Many threads on the one registry of sockets, in two parts.
//
// The stress load: eight host threads connect blocking sockets while a ninth runs non-blocking
// connects through the family's hidden window, through danted (SOCKS 4 and 5) and squid (HTTP), each
// connect followed by a line through the echo server and a close, as the stress test does. The
// connects per second of the nine threads are set against one thread that does the same alone. The
// library is loaded from DXSOCKS.DLL by name, so that this program can also hold the registry's class
// itself for the second part.
//
// Registry contention: lookups of CProxySocketManager (from the static core, as the registry lookup
// benchmark reaches it) while other threads look up too, or add and remove sockets; against the same
// walk over the same objects in a plain list without the lock and without the use a lookup takes, so
// that what the lock and the uses cost is visible. The machine's cores bound what runs at once: more
// threads than cores take turns, and a lookup's time then includes the waits for a core.
//
// Flags: --part=load|contention|all (all); --connects=N (200) per thread and phase; --counts=1,64
// managed sockets for the contention part (with one, the walk is short and the lock's own cost shows); --batch-ms=N
// (20) the least time of one timed batch of lookups; --batches=N (15) per thread; --wait-ms=N (30000) the limit on one
// phase of the load;
// --rows=PATH and --bench-env=PATH as in every benchmark.
#include <windows.h>
#include <winsock2.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "http_api.h"
#include "linked_list.h"
#include "proxy_socket_factory.h"
#include "proxy_socket_manager.h"
#include "socks_api.h"

namespace {

using dxbench::NowNs;

// ---------------------------------------------------------------- threads

// Runs each body on a thread of its own; false if they did not all end within `ms`.
bool RunThreads(const std::vector<std::function<void()>>& bodies, DWORD ms) {
    std::vector<HANDLE> threads;
    for (const auto& body : bodies) {
        auto* copy = new std::function<void()>(body);
        HANDLE thread = CreateThread(
            nullptr, 0,
            [](void* p) -> DWORD {
                auto* call = static_cast<std::function<void()>*>(p);
                (*call)();
                delete call;
                return 0;
            },
            copy, 0, nullptr);
        if (thread == nullptr) throw std::runtime_error("CreateThread failed");
        threads.push_back(thread);
    }
    bool ended = WaitForMultipleObjects(static_cast<DWORD>(threads.size()), threads.data(), TRUE, ms) == WAIT_OBJECT_0;
    for (HANDLE thread : threads) CloseHandle(thread);
    return ended;
}

// ---------------------------------------------------------------- the stress load

// The exports this part calls, from DXSOCKS.DLL.
struct Library {
    decltype(&SOCKS_Startup) socksStartup;
    decltype(&SOCKS_Cleanup) socksCleanup;
    decltype(&SOCKS_SetProxyEx) socksSetProxy;
    decltype(&SOCKS_ConnectEx) socksConnect;
    decltype(&SOCKS_closesocket) socksClose;
    decltype(&SOCKS_WSAAsyncSelect) socksSelect;
    decltype(&HTTP_Startup) httpStartup;
    decltype(&HTTP_Cleanup) httpCleanup;
    decltype(&HTTP_SetProxy) httpSetProxy;
    decltype(&HTTP_ConnectEx) httpConnect;
    decltype(&HTTP_closesocket) httpClose;
    decltype(&HTTP_WSAAsyncSelect) httpSelect;
};

template <typename Function>
void Bind(HMODULE module, const char* name, Function* slot) {
    *slot = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (*slot == nullptr) throw std::runtime_error(std::string("DXSOCKS.DLL has no ") + name);
}

Library LoadLibraryExports() {
    HMODULE module = LoadLibraryA("DXSOCKS.DLL");
    if (module == nullptr) throw std::runtime_error("DXSOCKS.DLL did not load");
    Library library;
    Bind(module, "SOCKS_Startup", &library.socksStartup);
    Bind(module, "SOCKS_Cleanup", &library.socksCleanup);
    Bind(module, "SOCKS_SetProxyEx", &library.socksSetProxy);
    Bind(module, "SOCKS_ConnectEx", &library.socksConnect);
    Bind(module, "SOCKS_closesocket", &library.socksClose);
    Bind(module, "SOCKS_WSAAsyncSelect", &library.socksSelect);
    Bind(module, "HTTP_Startup", &library.httpStartup);
    Bind(module, "HTTP_Cleanup", &library.httpCleanup);
    Bind(module, "HTTP_SetProxy", &library.httpSetProxy);
    Bind(module, "HTTP_ConnectEx", &library.httpConnect);
    Bind(module, "HTTP_closesocket", &library.httpClose);
    Bind(module, "HTTP_WSAAsyncSelect", &library.httpSelect);
    return library;
}

enum class Kind { kSocks4, kSocks5, kHttp };

struct Load {
    Library library;
    sockaddr_in dante;
    sockaddr_in squid;
    uint16_t echo;
    int connects;
    int waitMs;
};

constexpr int kBlockingThreads = 8;
constexpr int kNonBlockingBatch = 5;
constexpr UINT kSocketMessage = WM_APP + 9;
constexpr char kDestination[] = "127.0.0.1";

bool SetProxy(const Load& load, SOCKET s, Kind kind) {
    switch (kind) {
        case Kind::kSocks4: return load.library.socksSetProxy(s, &load.dante, sizeof load.dante, "", 4) == 0;
        case Kind::kSocks5: return load.library.socksSetProxy(s, &load.dante, sizeof load.dante, "", 5) == 0;
        case Kind::kHttp: return load.library.httpSetProxy(s, &load.squid, sizeof load.squid, "", 0) == 0;
    }
    return false;
}

int Connect(const Load& load, SOCKET s, Kind kind) {
    return kind == Kind::kHttp ? load.library.httpConnect(s, kDestination, load.echo, nullptr, AF_INET)
                               : load.library.socksConnect(s, kDestination, load.echo, nullptr, AF_INET);
}

int Close(const Load& load, SOCKET s, Kind kind) {
    return kind == Kind::kHttp ? load.library.httpClose(s) : load.library.socksClose(s);
}

// A line to the echo server and back; the socket may be non-blocking, so the read waits in select.
bool CarriesLine(SOCKET s) {
    static const char kLine[] = "stress load\n";
    const int length = static_cast<int>(sizeof kLine - 1);
    if (!dxbench::SendAll(s, kLine, length)) return false;
    char back[sizeof kLine] = {};
    int got = 0;
    while (got < length) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(s, &readable);
        timeval wait = {5, 0};
        if (select(0, &readable, nullptr, nullptr, &wait) != 1) return false;
        int n = recv(s, back + got, length - got, 0);
        if (n <= 0) return false;
        got += n;
    }
    return std::string(back, static_cast<size_t>(got)) == kLine;
}

struct Samples {
    std::mutex mutex;
    std::vector<double> blocking;     // ns of each blocking ConnectEx
    std::vector<double> nonBlocking;  // ns from ConnectEx to its FD_CONNECT
    int failures = 0;
    std::string firstFailure;
    void Fail(const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex);
        if (failures++ == 0) firstFailure = what;
    }
};

void BlockingConnects(const Load& load, const std::vector<Kind>& kinds, int first, int count, Samples& samples) {
    std::vector<double> mine;
    for (int i = 0; i < count; ++i) {
        Kind kind = kinds[static_cast<size_t>(first + i) % kinds.size()];
        SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        DWORD limit = 10000;
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
        double start = NowNs();
        bool connected = SetProxy(load, s, kind) && Connect(load, s, kind) == 0;
        double took = NowNs() - start;
        if (!connected) {
            samples.Fail("a blocking connect failed: " + std::to_string(WSAGetLastError()));
        } else if (!CarriesLine(s)) {
            samples.Fail("a blocking connect carried no line");
        } else {
            mine.push_back(took);
        }
        Close(load, s, kind);
    }
    std::lock_guard<std::mutex> lock(samples.mutex);
    samples.blocking.insert(samples.blocking.end(), mine.begin(), mine.end());
}

// The FD_CONNECT messages of the non-blocking thread's window: the time each arrived.
std::map<SOCKET, double>* g_connected = nullptr;

LRESULT CALLBACK LoadWindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == kSocketMessage && WSAGETSELECTEVENT(lParam) == FD_CONNECT && g_connected != nullptr) {
        double now = NowNs();
        auto& at = (*g_connected)[static_cast<SOCKET>(wParam)];
        at = WSAGETSELECTERROR(lParam) == 0 ? now : -1;
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

void NonBlockingConnects(const Load& load, const std::vector<Kind>& kinds, HANDLE go, Samples& samples) {
    bool socks = false, http = false;
    for (Kind kind : kinds) (kind == Kind::kHttp ? http : socks) = true;
    if (socks) load.library.socksStartup(nullptr, 0);
    if (http) load.library.httpStartup(nullptr, 0);
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = LoadWindowProcedure;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = "DXBENCH_STRESS_HOST";
    RegisterClassA(&windowClass);
    HWND window = CreateWindowExA(0, windowClass.lpszClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                  windowClass.hInstance, nullptr);
    std::map<SOCKET, double> connected;
    g_connected = &connected;
    SetEvent(go);

    std::vector<double> mine;
    for (int first = 0; first < load.connects; first += kNonBlockingBatch) {
        struct Pending {
            SOCKET s;
            Kind kind;
            double start;
        };
        std::vector<Pending> batch;
        connected.clear();
        for (int i = first; i < load.connects && i < first + kNonBlockingBatch; ++i) {
            Kind kind = kinds[static_cast<size_t>(i) % kinds.size()];
            SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
            double start = NowNs();
            int selected = kind == Kind::kHttp
                               ? load.library.httpSelect(s, window, kSocketMessage, FD_CONNECT | FD_READ)
                               : load.library.socksSelect(s, window, kSocketMessage, FD_CONNECT | FD_READ);
            if (selected != 0 || !SetProxy(load, s, kind) || Connect(load, s, kind) != 0) {
                samples.Fail("a non-blocking connect failed at once");
                Close(load, s, kind);
                continue;
            }
            batch.push_back({s, kind, start});
        }
        double end = NowNs() + load.waitMs * 1e6;
        auto allIn = [&] {
            for (const Pending& p : batch) {
                if (connected.count(p.s) == 0) return false;
            }
            return true;
        };
        while (!allIn() && NowNs() < end) {
            MSG message;
            while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageA(&message);
            if (!allIn()) MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
        }
        for (const Pending& p : batch) {
            auto found = connected.find(p.s);
            if (found == connected.end() || found->second < 0) {
                samples.Fail("a non-blocking connect got no FD_CONNECT, or one with an error");
            } else if (!CarriesLine(p.s)) {
                samples.Fail("a non-blocking connect carried no line");
            } else {
                mine.push_back(found->second - p.start);
            }
            Close(load, p.s, p.kind);
        }
    }
    g_connected = nullptr;
    DestroyWindow(window);
    if (socks) load.library.socksCleanup();
    if (http) load.library.httpCleanup();
    std::lock_guard<std::mutex> lock(samples.mutex);
    samples.nonBlocking.insert(samples.nonBlocking.end(), mine.begin(), mine.end());
}

struct Phase {
    std::string name;
    std::vector<Kind> kinds;
};

void RunLoad(const Load& load, dxbench::ResultTable& table) {
    const std::vector<Phase> phases = {
        {"SOCKS via danted", {Kind::kSocks4, Kind::kSocks5}},
        {"HTTP via squid", {Kind::kHttp}},
        {"both families", {Kind::kSocks4, Kind::kHttp, Kind::kSocks5}},
    };
    // A few connects of each kind first, so that no phase pays for the first use.
    {
        Samples warm;
        BlockingConnects(load, {Kind::kSocks4, Kind::kSocks5, Kind::kHttp}, 0, 6, warm);
    }
    for (const Phase& phase : phases) {
        // One thread alone, the same connects one after another.
        Samples alone;
        double start = NowNs();
        BlockingConnects(load, phase.kinds, 0, load.connects, alone);
        double aloneNs = NowNs() - start;
        if (alone.failures != 0) throw std::runtime_error(phase.name + ", one thread: " + alone.firstFailure);

        Samples together;
        HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::vector<std::function<void()>> bodies;
        for (int t = 0; t < kBlockingThreads; ++t) {
            bodies.push_back([&, t] {
                WaitForSingleObject(go, 30000);
                BlockingConnects(load, phase.kinds, t, load.connects, together);
            });
        }
        bodies.push_back([&] { NonBlockingConnects(load, phase.kinds, go, together); });
        start = NowNs();
        if (!RunThreads(bodies, static_cast<DWORD>(load.waitMs) + 30000)) {
            throw std::runtime_error(phase.name + ": the threads did not end in time");
        }
        double togetherNs = NowNs() - start;
        CloseHandle(go);
        if (together.failures != 0) {
            throw std::runtime_error(phase.name + ", nine threads: " + std::to_string(together.failures) +
                                     " failures, first: " + together.firstFailure);
        }

        const int total = (kBlockingThreads + 1) * load.connects;
        const double perSecond = total / (togetherNs / 1e9);
        const double alonePerSecond = load.connects / (aloneNs / 1e9);
        dxbench::Summary blocking = dxbench::Summarize(together.blocking);
        dxbench::Summary nonBlocking = dxbench::Summarize(together.nonBlocking);
        dxbench::Summary single = dxbench::Summarize(alone.blocking);
        table.Add("stress load", phase.name + ", 8 blocking + 1 non-blocking threads", static_cast<size_t>(total),
                  blocking.median, blocking.p99,
                  dxbench::Fixed(perSecond, 0) +
                      " connects per second (each with a line through the echo server "
                      "and a close), " +
                      dxbench::Fixed(perSecond / alonePerSecond, 2) +
                      " times one thread alone; median and p99 of the blocking connect calls; non-blocking, "
                      "connect call to FD_CONNECT: median " +
                      dxbench::FormatNs(nonBlocking.median) + ", p99 " + dxbench::FormatNs(nonBlocking.p99));
        table.Add("stress load", phase.name + ", 1 blocking thread alone", single.count, single.median, single.p99,
                  dxbench::Fixed(alonePerSecond, 0) + " connects per second");
    }
}

// ---------------------------------------------------------------- registry contention

// Handles as WinSock hands them out: multiples of 4. Writers use a range of their own.
SOCKET HandleAt(int index) { return static_cast<SOCKET>(0x100 + 4 * index); }

// The keys of the readers: managed sockets in a fixed pseudo-random order.
std::vector<SOCKET> ReaderKeys(int sockets, uint32_t seed) {
    std::vector<SOCKET> keys;
    for (int i = 0; i < 4096; ++i) {
        seed = seed * 1103515245u + 12345u;
        keys.push_back(HandleAt(static_cast<int>((seed >> 8) % static_cast<uint32_t>(sockets))));
    }
    return keys;
}

// Mean ns per lookup over batches of at least `batchMs`; one sample per batch.
std::vector<double> TimeBatches(const std::function<uintptr_t(SOCKET)>& lookup, const std::vector<SOCKET>& keys,
                                int batchMs, int batches) {
    volatile uintptr_t sink = 0;
    auto batch = [&](size_t lookups) {
        uintptr_t found = 0;
        double start = NowNs();
        for (size_t i = 0; i < lookups; ++i) found += lookup(keys[i % keys.size()]);
        double elapsed = NowNs() - start;
        sink = sink + found;
        return elapsed;
    };
    return dxbench::BatchMeans(batch, keys.size(), size_t{1} << 30, batchMs, batches);
}

struct Contention {
    int sockets;
    int batchMs;
    int batches;
};

// The same objects as the registry's, linked in a plain list and walked without lock or use.
double BareWalk(const Contention& setup) {
    CLinkedList plain;
    for (int i = 0; i < setup.sockets; ++i) {
        CProxySocket* object = MakeProxySocket(HandleAt(i), i % 2 == 0 ? kSocksSocketType : kHttpSocketType);
        if (object == nullptr) throw std::runtime_error("no object");
        plain.Append(object);
    }
    auto lookup = [&](SOCKET s) -> uintptr_t {
        for (CListNode* node = plain.First(); node != nullptr; node = CLinkedList::Next(node)) {
            if (static_cast<CProxySocket*>(node)->socket == s) return reinterpret_cast<uintptr_t>(node);
        }
        return 0;
    };
    dxbench::Summary summary =
        dxbench::Summarize(TimeBatches(lookup, ReaderKeys(setup.sockets, 12345u), setup.batchMs, setup.batches));
    plain.Clear(FreeCountedBlock);
    return summary.median;
}

struct ContentionResult {
    dxbench::Summary lookup;     // ns per lookup, over every reader's batches
    dxbench::Summary addRemove;  // ns per add and remove of a writer
    double lookupsPerSecond;     // all readers together
};

ContentionResult Contend(const Contention& setup, int readers, int writers) {
    CProxySocketManager manager(MakeProxySocket);
    for (int i = 0; i < setup.sockets; ++i) {
        if (manager.AddSocket(HandleAt(i), i % 2 == 0 ? kSocksSocketType : kHttpSocketType) == nullptr) {
            throw std::runtime_error("AddSocket failed");
        }
    }
    std::atomic<bool> stop{false};
    std::atomic<int> readersLeft{readers};
    std::mutex mutex;
    std::vector<double> lookups, pairs;
    double totalLookupNs = 0;
    std::vector<std::function<void()>> bodies;
    for (int r = 0; r < readers; ++r) {
        bodies.push_back([&, r] {
            auto lookup = [&](SOCKET s) { return reinterpret_cast<uintptr_t>(manager.FindSocket(s).get()); };
            std::vector<double> mine =
                TimeBatches(lookup, ReaderKeys(setup.sockets, 12345u + 7919u * r), setup.batchMs, setup.batches);
            if (--readersLeft == 0) stop = true;
            std::lock_guard<std::mutex> lock(mutex);
            lookups.insert(lookups.end(), mine.begin(), mine.end());
            for (double ns : mine) totalLookupNs += ns;
        });
    }
    for (int w = 0; w < writers; ++w) {
        bodies.push_back([&, w] {
            // Sockets beyond the managed ones, one at a time: added at the tail, found, removed.
            std::vector<double> mine;
            int next = 0;
            while (!stop) {
                SOCKET s = HandleAt(setup.sockets + 1000 * (w + 1) + (next++ % 1000));
                double start = NowNs();
                manager.AddSocket(s, kSocksSocketType);
                manager.RemoveSocket(s);
                mine.push_back(NowNs() - start);
            }
            std::lock_guard<std::mutex> lock(mutex);
            pairs.insert(pairs.end(), mine.begin(), mine.end());
        });
    }
    if (!RunThreads(bodies, 600000)) throw std::runtime_error("contention threads did not end");
    ContentionResult result;
    result.lookup = dxbench::Summarize(lookups);
    result.addRemove = dxbench::Summarize(pairs);
    // Each reader's mean per lookup gives its rate; the readers' rates add up.
    result.lookupsPerSecond = readers * 1e9 / (totalLookupNs / static_cast<double>(lookups.size()));
    return result;
}

void RunContention(const Contention& setup, dxbench::ResultTable& table) {
    const std::string sockets = std::to_string(setup.sockets) + " sockets";
    const double bare = BareWalk(setup);
    table.Add("registry contention", sockets + ", plain walk without lock or use, 1 thread",
              static_cast<size_t>(setup.batches), bare, dxbench::kNoValue,
              "the same objects in a plain list, the same keys: what a lookup costs without the lock");
    struct Mix {
        int readers, writers;
    };
    for (Mix mix : {Mix{1, 0}, Mix{2, 0}, Mix{1, 1}, Mix{2, 2}, Mix{4, 4}}) {
        ContentionResult result = Contend(setup, mix.readers, mix.writers);
        std::string item = sockets + ", " + std::to_string(mix.readers) + (mix.readers == 1 ? " reader" : " readers");
        if (mix.writers > 0) {
            item += ", " + std::to_string(mix.writers) + (mix.writers == 1 ? " writer" : " writers") +
                    " adding and removing";
        }
        std::string notes = dxbench::Fixed(result.lookup.median / bare, 2) + " of the plain walk; " +
                            dxbench::Fixed(result.lookupsPerSecond / 1e6, 2) + " million lookups per second in all";
        if (mix.writers > 0) {
            notes += "; a writer's add and remove: median " + dxbench::FormatNs(result.addRemove.median) + ", p99 " +
                     dxbench::FormatNs(result.addRemove.p99) + " (" + std::to_string(result.addRemove.count) + ")";
        }
        table.Add("registry contention", item, result.lookup.count, result.lookup.median, result.lookup.p99, notes);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        const std::string part = flags.Text("part", "all");
        if (part != "all" && part != "load" && part != "contention") {
            throw std::runtime_error("--part is load, contention or all");
        }
        dxbench::ResultTable table(flags);
        if (part != "contention") {
            dxbench::BenchFile file(flags);
            dxbench::Winsock winsock;
            Load load{LoadLibraryExports(),
                      dxbench::Loopback(file.Port("DANTE_PORT")),
                      dxbench::Loopback(file.Port("SQUID_PORT")),
                      file.Port("ECHO_PORT"),
                      static_cast<int>(flags.Number("connects", 200)),
                      static_cast<int>(flags.Number("wait-ms", 30000))};
            if (load.connects < 1) throw std::runtime_error("--connects must be at least 1");
            RunLoad(load, table);
        }
        if (part != "load") {
            const int batchMs = flags.Positive("batch-ms", 20);
            const int batches = flags.Positive("batches", 15);
            std::stringstream counts(flags.Text("counts", "1,64"));
            std::string count;
            while (std::getline(counts, count, ',')) {
                Contention setup{std::stoi(count), batchMs, batches};
                if (setup.sockets < 1) throw std::runtime_error("--counts: each at least 1");
                RunContention(setup, table);
            }
        }
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "registry_stress: %s\n", error.what());
        return 1;
    }
}
