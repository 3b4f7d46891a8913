#include "ident_query.h"

#include <cstdio>

#include "bounded_text.h"

namespace {

constexpr size_t kLongestPort = 5;
constexpr uint32_t kHighestPort = 65535;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

size_t SkipBlanks(const char* line, size_t length, size_t at) {
    while (at < length && IsBlank(line[at])) ++at;
    return at;
}

// Up to five digits at `at`; false when there are none or more.
bool ReadPort(const char* line, size_t length, size_t* at, uint32_t* port) {
    size_t digits = 0;
    uint32_t value = 0;
    while (*at < length && line[*at] >= '0' && line[*at] <= '9') {
        if (++digits > kLongestPort) return false;
        value = value * 10 + static_cast<uint32_t>(line[*at] - '0');
        ++*at;
    }
    *port = value;
    return digits != 0;
}

}  // namespace

IdentLineReader::Result IdentLineReader::Take(const char* data, size_t size, size_t* used) {
    if (complete_) {
        length_ = 0;
        complete_ = false;
    }
    size_t taken = 0;
    Result result = Result::kNeedMore;
    while (taken < size) {
        char c = data[taken++];
        if (c == '\n') {
            if (length_ > 0 && line_[length_ - 1] == '\r') --length_;
            complete_ = true;
            result = Result::kLine;
            break;
        }
        // The LF must still fit within the limit.
        if (length_ + 1 >= kIdentLineLimit) {
            result = Result::kTooLong;
            break;
        }
        line_[length_++] = c;
    }
    *used = taken;
    return result;
}

IdentQuery ParseIdentQuery(const char* line, size_t length) {
    IdentQuery query;
    uint32_t local = 0;
    uint32_t remote = 0;
    size_t at = SkipBlanks(line, length, 0);
    if (!ReadPort(line, length, &at, &local)) return query;
    at = SkipBlanks(line, length, at);
    if (at >= length || line[at] != ',') return query;
    at = SkipBlanks(line, length, at + 1);
    if (!ReadPort(line, length, &at, &remote)) return query;
    if (SkipBlanks(line, length, at) != length) return query;
    query.localPort = local;
    query.remotePort = remote;
    query.valid = local >= 1 && local <= kHighestPort && remote >= 1 && remote <= kHighestPort;
    return query;
}

size_t ComposeIdentAnswer(const IdentQuery& query, IdentityLookupResult found, const char* name, char* out,
                          size_t size) {
    BoundedWriter answer(out, size);
    char ports[32];
    std::snprintf(ports, sizeof ports, "%u , %u : ", static_cast<unsigned>(query.localPort),
                  static_cast<unsigned>(query.remotePort));
    answer.Put(ports);
    if (!query.valid) {
        answer.Put("ERROR : INVALID-PORT");
    } else if (found == IdentityLookupResult::kRefused) {
        answer.Put("ERROR : UNKNOWN-ERROR");
    } else if (found == IdentityLookupResult::kNotFound) {
        answer.Put("ERROR : NO-USER");
    } else if (name == nullptr || name[0] == '\0') {
        answer.Put("ERROR : HIDDEN-USER");
    } else {
        answer.Put("USERID : WIN32 : ");
        char kept[kIdentityNameSize];
        CopyText(kept, name);
        // A control character in a name would end the answer line early.
        for (char* c = kept; *c != '\0'; ++c) {
            if (static_cast<unsigned char>(*c) < 0x20) *c = '?';
        }
        answer.Put(kept);
    }
    answer.Put("\r\n");
    return answer.Length();
}
