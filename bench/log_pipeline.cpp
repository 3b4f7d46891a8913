// Log pipeline: the time of one SOCKS_LogString line, with no callback (the line is still formatted
// twice), with a plain callback, and with an Ex callback. The callbacks do as little as a host can:
// they look at the text's first byte.
//
// Flags: --batch-ms=N (20) the least time of one timed batch; --batches=N (15) per case;
// --rows=PATH as in every benchmark.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_util.h"
#include "socks_api.h"

namespace {

volatile long g_lines = 0;
volatile char g_firstByte = 0;

void PlainCallback(int, const char* text) {
    g_firstByte = text[0];
    g_lines = g_lines + 1;
}

void ExCallback(void*, const char* text) {
    g_firstByte = text[0];
    g_lines = g_lines + 1;
}

// A line as the library writes it on every send of a handshake.
void OneLine(int i) { SOCKS_LogString("CSocksSocket::Send - %d bytes sent.", i); }

dxbench::Summary TimeLines(int batchMs, int batches) {
    auto batch = [](long lines) {
        double start = dxbench::NowNs();
        for (long i = 0; i < lines; ++i) OneLine(static_cast<int>(i & 1023));
        return dxbench::NowNs() - start;
    };
    return dxbench::Summarize(dxbench::BatchMeans(batch, 256, size_t{1} << 28, batchMs, batches));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        dxbench::Flags flags(argc, argv);
        const int batchMs = flags.Positive("batch-ms", 20);
        const int batches = flags.Positive("batches", 15);
        dxbench::ResultTable table(flags);

        SOCKS_SetLoggingCallback(nullptr);
        SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
        dxbench::Summary none = TimeLines(batchMs, batches);
        if (g_lines != 0) throw std::runtime_error("a line reached a callback that was not set");
        table.Add("log pipeline", "SOCKS_LogString, no callback", none.count, none.median, none.p99,
                  "median of batch means; formatted twice, delivered nowhere");

        SOCKS_SetLoggingCallback(PlainCallback);
        dxbench::Summary plain = TimeLines(batchMs, batches);
        SOCKS_SetLoggingCallback(nullptr);
        long plainLines = g_lines;
        if (plainLines == 0) throw std::runtime_error("the plain callback got no line");
        table.Add("log pipeline", "SOCKS_LogString, plain callback", plain.count, plain.median, plain.p99,
                  "line ends in a newline");

        SOCKS_SetLoggingCallbackEx(nullptr, ExCallback);
        dxbench::Summary ex = TimeLines(batchMs, batches);
        SOCKS_SetLoggingCallbackEx(nullptr, nullptr);
        if (g_lines == plainLines) throw std::runtime_error("the Ex callback got no line");
        table.Add("log pipeline", "SOCKS_LogString, Ex callback", ex.count, ex.median, ex.p99, "with context");
        return table.Print() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "log_pipeline: %s\n", error.what());
        return 1;
    }
}
