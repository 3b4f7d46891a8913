// Bytes of an ident connection in pieces the input chooses: every line the reader gives is within
// the limit and holds no line feed, every answer fits and ends in CR LF, and a valid query reads
// back the ports it was answered with.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "ident_query.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    size_t piece = data[0] % 64 + 1;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    size_t left = size - 1;
    IdentLineReader reader;
    while (left > 0) {
        size_t offered = left < piece ? left : piece;
        size_t used = 0;
        IdentLineReader::Result result = reader.Take(bytes, offered, &used);
        if (used == 0 || used > offered) std::abort();
        bytes += used;
        left -= used;
        if (result == IdentLineReader::Result::kTooLong) break;
        if (result != IdentLineReader::Result::kLine) continue;
        if (reader.Length() >= kIdentLineLimit || std::memchr(reader.Line(), '\n', reader.Length()) != nullptr)
            std::abort();
        IdentQuery query = ParseIdentQuery(reader.Line(), reader.Length());
        if (query.valid && (query.localPort < 1 || query.localPort > 65535 || query.remotePort < 1 ||
                            query.remotePort > 65535))
            std::abort();
        for (IdentityLookupResult found :
             {IdentityLookupResult::kFound, IdentityLookupResult::kNotFound, IdentityLookupResult::kRefused}) {
            char answer[kIdentAnswerSize];
            size_t length = ComposeIdentAnswer(query, found, reader.Line(), answer, sizeof answer);
            if (length < 2 || length >= sizeof answer || std::strlen(answer) != length) std::abort();
            if (std::strcmp(answer + length - 2, "\r\n") != 0) std::abort();
            if (std::memchr(answer, '\n', length - 1) != nullptr) std::abort();
        }
        if (query.valid) {
            char text[32];
            int n = std::snprintf(text, sizeof text, "%u,%u", static_cast<unsigned>(query.localPort),
                                  static_cast<unsigned>(query.remotePort));
            IdentQuery again = ParseIdentQuery(text, static_cast<size_t>(n));
            if (!again.valid || again.localPort != query.localPort || again.remotePort != query.remotePort)
                std::abort();
        }
    }
    return 0;
}
