// dxidentd: answers a proxy's ident queries (RFC 1413) from the identity table that DXSOCKS.DLL
// keeps for the time of each SOCKS handshake, so that a proxy that checks its clients by ident
// learns the user id the host gave.
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "ident_query.h"
#include "identity_mapping.h"
#include "identity_table.h"
#include "tool_options.h"

namespace {

enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = kToolExitUsage, kExitSetup = 3 };

const char kUsage[] =
    "Usage: dxidentd [options]\n"
    "\n"
    "Answers ident queries (RFC 1413) about the connections that DXSOCKS.DLL is handing to a SOCKS\n"
    "proxy, from the library's identity table: the user id of the handshake, or an error.\n"
    "\n"
    "Options:\n"
    "  -p PORT      port to answer on (default 113, which needs root under Wine)\n"
    "  -t SECONDS   idle limit of a connection that sends no complete query (default 30)\n"
    "  -w MS        how long a key not yet in the table is looked up again before the answer\n"
    "               is NO-USER (default 5000): a proxy may ask before the library has entered it\n"
    "  -d           print the identity table as it stands and exit\n"
    "  -h           show this help\n"
    "\n"
    "Exit status: 0 done, 1 the table's layout is refused, 2 usage error, 3 local setup failed.\n";

// A key the library hasn't entered yet is looked up again for a while (-w). The library enters the
// user just after its connect is accepted, a proxy may ask as soon as it accepts, and on a loaded
// machine the connecting thread can take far more than a moment to get there: a "not found" sent
// too early makes the proxy refuse a client it would have let through.
constexpr unsigned kMissingKeyWaitMs = 5000;

struct Options {
    unsigned port = 113;
    unsigned idleSeconds = 30;
    unsigned missingKeyWaitMs = kMissingKeyWaitMs;
    bool dump = false;
};

constexpr DWORD kMissingKeyStepMs = 20;
// Connections served at once; more are closed at accept.
constexpr int kMostConnections = 64;

int UsageError(const std::string& message) { return ToolUsageError("dxidentd", message); }

// Returns -1 when the command line is good, else the exit code (0 after -h).
int ParseOptions(int argc, char** argv, Options* o) {
    return ReadOptionWords("dxidentd", kUsage, "hd", "ptw", argc, argv, [o](const OptionWord& word) {
        const std::string& value = word.value;
        switch (word.flag) {
            case 'd':
                o->dump = true;
                break;
            case 'p':
                if (!ReadDecimal(value, 1, 65535, &o->port))
                    return UsageError("-p: '" + value + "' is not a port from 1 to 65535");
                break;
            case 't':
                if (!ReadDecimal(value, 1, 3600, &o->idleSeconds))
                    return UsageError("-t: '" + value + "' is not a number of seconds from 1 to 3600");
                break;
            default:
                if (!ReadDecimal(value, 0, 60000, &o->missingKeyWaitMs))
                    return UsageError("-w: '" + value + "' is not a number of milliseconds from 0 to 60000");
        }
        return -1;
    });
}

// The table's word for one key: the block is opened read-only for this query and closed again.
IdentityLookupResult LookUp(const IdentQuery& query, unsigned waitMs, char* name, size_t size) {
    const DWORD start = GetTickCount();
    for (;;) {
        IdentityLookupResult found = IdentityLookupResult::kNotFound;
        HANDLE mapping = IdentityOpen(FILE_MAP_READ);
        if (mapping != nullptr) {
            found = IdentityRead(mapping, query.localPort, query.remotePort, name, size);
            CloseHandle(mapping);
        }
        if (found != IdentityLookupResult::kNotFound || GetTickCount() - start >= waitMs) return found;
        Sleep(kMissingKeyStepMs);
    }
}

bool SendAll(SOCKET s, const char* data, size_t size) {
    while (size > 0) {
        int sent = send(s, data, static_cast<int>(size), 0);
        if (sent == SOCKET_ERROR || sent == 0) return false;
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

std::atomic<int> g_connections{0};

// One connection: a query per line, an answer per query, until the peer closes, a line runs over
// the limit, or the idle limit passes without a complete query.
void Serve(SOCKET s, unsigned idleSeconds, unsigned missingKeyWaitMs) {
    IdentLineReader reader;
    char buffer[512];
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(s, &readable);
        timeval idle = {static_cast<long>(idleSeconds), 0};
        if (select(0, &readable, nullptr, nullptr, &idle) != 1) break;
        int received = recv(s, buffer, sizeof buffer, 0);
        if (received <= 0) break;
        const char* data = buffer;
        size_t left = static_cast<size_t>(received);
        bool cut = false;
        while (left > 0 && !cut) {
            size_t used = 0;
            IdentLineReader::Result result = reader.Take(data, left, &used);
            data += used;
            left -= used;
            if (result == IdentLineReader::Result::kTooLong) cut = true;
            if (result != IdentLineReader::Result::kLine) continue;
            IdentQuery query = ParseIdentQuery(reader.Line(), reader.Length());
            char name[kIdentityNameSize] = {};
            IdentityLookupResult found = query.valid ? LookUp(query, missingKeyWaitMs, name, sizeof name) : IdentityLookupResult::kNotFound;
            char answer[kIdentAnswerSize];
            size_t length = ComposeIdentAnswer(query, found, name, answer, sizeof answer);
            if (!SendAll(s, answer, length)) cut = true;
        }
        if (cut) break;
    }
    closesocket(s);
    --g_connections;
}

int Answer(const Options& o) {
    SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (listener == INVALID_SOCKET) {
        std::fprintf(stderr, "dxidentd: socket failed: WinSock error %d\n", WSAGetLastError());
        return kExitSetup;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u_short>(o.port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 64) != 0) {
        int error = WSAGetLastError();
        std::fprintf(stderr, "dxidentd: cannot answer on port %u: WinSock error %d%s\n", o.port, error,
                     error == WSAEACCES ? " (a port below 1024 needs root)" : "");
        closesocket(listener);
        return kExitSetup;
    }
    std::fprintf(stderr, "dxidentd: answering on port %u\n", o.port);
    for (;;) {
        SOCKET s = accept(listener, nullptr, nullptr);
        if (s == INVALID_SOCKET) {
            // A failing accept (no buffers, a reset on the queue) must not spin a core.
            Sleep(100);
            continue;
        }
        if (g_connections >= kMostConnections) {
            closesocket(s);
            continue;
        }
        ++g_connections;
        std::thread(Serve, s, o.idleSeconds, o.missingKeyWaitMs).detach();
    }
}

int Dump() {
    HANDLE mapping = IdentityOpen(FILE_MAP_READ);
    if (mapping == nullptr) {
        std::printf("%s: none (no SOCKS handshake is under way)\n", kIdentityTableName);
        return kExitOk;
    }
    static uint8_t block[kIdentityTableSize];
    bool copied = IdentitySnapshot(mapping, block);
    CloseHandle(mapping);
    if (!copied) {
        std::printf("%s: the block cannot be read as %u bytes\n", kIdentityTableName, kIdentityTableSize);
        return kExitFailed;
    }
    std::printf("%s: totalSize %u, version %u, highWater %u, addCount %u, entrySize %u, entryCount %u\n",
                kIdentityTableName, IdentityWord(block, kIdentityTotalSizeAt), IdentityWord(block, kIdentityVersionAt),
                IdentityWord(block, kIdentityHighWaterAt), IdentityWord(block, kIdentityAddCountAt),
                IdentityWord(block, kIdentityEntrySizeAt), IdentityWord(block, kIdentityEntryCountAt));
    if (!IdentityLayoutValid(block)) {
        std::printf("layout refused\n");
        return kExitFailed;
    }
    uint32_t count = IdentityWord(block, kIdentityEntryCountAt);
    for (uint32_t slot = 0; slot < count && slot < kIdentitySlots; ++slot) {
        IdentityEntry entry = IdentityEntryAt(block, slot);
        if (entry.inUse == 0) continue;
        std::printf("slot %u: local %u, remote %u, user \"%s\"\n", slot, entry.localPort, entry.remotePort,
                    entry.userName);
    }
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    const int parsed = ParseOptions(argc, argv, &o);
    if (parsed >= 0) return parsed;
    if (o.dump) return Dump();
    WSADATA wsa;
    if (const int rc = WSAStartup(MAKEWORD(2, 2), &wsa)) {
        std::fprintf(stderr, "dxidentd: WSAStartup failed: WinSock error %d\n", rc);
        return kExitSetup;
    }
    const int status = Answer(o);
    WSACleanup();
    return status;
}
