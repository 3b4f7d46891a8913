#include "map_rules.h"

#include <cstring>

#include "bounded_text.h"
#include "decimal_text.h"

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Whether the first `count` characters of `text` hold a digit.
bool DigitWithin(const char* text, size_t count) {
    if (text == nullptr) return false;
    for (size_t i = 0; i < count && text[i] != '\0'; ++i) {
        if (IsDigit(text[i])) return true;
    }
    return false;
}

// Appends `part` (`length` characters) to `writer` as ExpandWildcard's step for one part.
void PutPart(BoundedWriter& writer, const char* part, size_t length, const char* wildcard, const char* other) {
    if (part[0] == '*') {
        if (wildcard != nullptr) writer.Put(wildcard);
    } else if (other != nullptr) {
        writer.Put(other);
    } else {
        writer.Put(part, length);
    }
}

}  // namespace

bool ContainsDigit(const char* text) { return DigitWithin(text, static_cast<size_t>(-1)); }

int ParsePortNumber(const char* text, uint32_t* mask) {
    const char* digit = text;
    while (digit != nullptr && *digit != '\0' && !IsDigit(*digit)) ++digit;
    bool found = digit != nullptr && IsDigit(*digit);
    if (mask != nullptr) *mask = found ? 65535u : 0u;
    return found ? ReadDecimal(digit) : 0;
}

void ApplyHostRule(char (&host)[kMapHostSize], const char* text, const char* anyHostWord,
                   TextComparison compareNoCase) {
    bool wildcard = text == nullptr || text[0] == '\0' || text[0] == '*' ||
                    (anyHostWord != nullptr && compareNoCase(text, anyHostWord) == 0);
    CopyText(host, kMapHostKept + 1, wildcard ? "*" : text);
    host[kMapHostSize - 1] = '\0';
}

// Kept: a digit anywhere will do, so "abc1" is stored and reads as port 1.
void ApplyPortRule(char (&port)[kMapPortSize], const char* text) {
    CopyText(port, kMapPortKept + 1, DigitWithin(text, kMapPortKept) ? text : "*");
    port[kMapPortSize - 1] = '\0';
}

void ExpandWildcard(char (&out)[kMapHostSize], const char* text, const char* wildcard, const char* other) {
    if (text == nullptr || strnlen(text, kExpandLimit + 1) > kExpandLimit) return;
    const char* work = text[0] == '*' ? "*.*.*.*" : text;
    BoundedWriter writer(out, sizeof out);
    bool first = true;
    // Split by hand, as strtok would: runs of dots give no empty part.
    for (const char* cursor = work; *cursor != '\0';) {
        if (*cursor == '.') {
            ++cursor;
            continue;
        }
        size_t length = std::strcspn(cursor, ".");
        if (!first) writer.Put('.');
        PutPart(writer, cursor, length, wildcard, other);
        first = false;
        cursor += length;
    }
}

const CListNode* PickFirstMap(const CListNode* first, const char* host, uint32_t port, DestinationReader destinationOf,
                              TextComparison compareNoCase, const PickLog& log) {
    const char* asked = host != nullptr ? host : "";
    int position = 0;
    for (const CListNode* node = first; node != nullptr; node = node->next, ++position) {
        MapDestination stored = destinationOf(node);
        if (stored.host == nullptr || stored.host[0] == '\0') continue;
        log.line(log.comparingHosts, asked, stored.host);
        if (compareNoCase(asked, stored.host) != 0 && compareNoCase("*", stored.host) != 0) continue;
        int storedPort = ParsePortNumber(stored.port, nullptr);
        log.line(log.comparingPorts, port, storedPort);
        if (static_cast<uint32_t>(storedPort) == port || storedPort == 0) {
            log.line(log.portsMatch, position);
            return node;
        }
    }
    return nullptr;
}
