// The rules of a proxy map's texts and of the choice of a map for a destination, free of the Windows
// API: what the system takes from its platform (the localised word for any host, the comparison
// without regard to case, the log) is handed in.
#pragma once

#include <cstddef>
#include <cstdint>

#include "linked_list.h"

constexpr size_t kMapHostSize = 1025;    // at most 1023 characters are stored
constexpr size_t kMapPortSize = 32;      // at most 30 characters are stored
constexpr size_t kMapUserSize = 512;     // at most 510 characters are stored
constexpr size_t kAnyHostWordSize = 32;  // the localised word for any host, with its terminator
constexpr size_t kMapHostKept = 1023;
constexpr size_t kMapPortKept = 30;
constexpr size_t kMapUserKept = 510;
// ExpandWildcard gives up on a longer text.
constexpr size_t kExpandLimit = 1024;

// A comparison of two texts without regard to case, 0 when they are equal.
using TextComparison = int (*)(const char* first, const char* second);

// Whether `text` holds a decimal digit anywhere; null holds none.
bool ContainsDigit(const char* text);

// The number from the first decimal digit of `text` on, read as atoi reads it, with no range: "70000"
// gives 70000. Without a digit (null, "*"): 0. `mask`, where given, gets 65535 with a digit, else 0.
int ParsePortNumber(const char* text, uint32_t* mask);

// Stores a host into an endpoint's `Host`: "*" for a null or empty text, one that begins with '*',
// or one equal to `anyHostWord` by `compareNoCase`; otherwise its first 1023 characters. The last
// byte is zeroed either way.
void ApplyHostRule(char (&host)[kMapHostSize], const char* text, const char* anyHostWord,
                   TextComparison compareNoCase);

// Stores a port into an endpoint's `Port`: its first 30 characters where they hold a decimal digit,
// else "*". So "abc1" is kept (and reads as port 1), while a text whose only digit lies past the 30
// characters kept becomes "*": a stored port is "*" or holds a digit.
void ApplyPortRule(char (&port)[kMapPortSize], const char* text);

// Rewrites a host text part by part for inet_addr: a text that begins with '*' counts as "*.*.*.*";
// the parts between dots (empty ones vanish) are joined again with dots, each part that begins with
// '*' replaced by `wildcard`, every other part by `other` where that is given, else kept. Leaves
// `out` as it was for a null text or one longer than 1024 characters; never writes past `out`.
void ExpandWildcard(char (&out)[kMapHostSize], const char* text, const char* wildcard, const char* other);

// The log of a set's choice: the three formats with the family's class name, and where they go.
struct PickLog {
    const char* comparingHosts;  // asked host, stored host
    const char* comparingPorts;  // asked port, stored number (%04x)
    const char* portsMatch;      // position counted from 0
    void (*line)(const char* format, ...);
};

// The destination a map applies to, as stored: host and port text.
struct MapDestination {
    const char* host;
    const char* port;
};
using DestinationReader = MapDestination (*)(const CListNode* node);

// The first node from `first` on whose stored host equals `host` without regard to case, or is "*",
// and whose stored port reads as `port` or as 0 ("*" and "0" mean any port); null when none does.
// A stored host that is null or empty is passed over without a line. A null `host` counts as the
// empty text.
const CListNode* PickFirstMap(const CListNode* first, const char* host, uint32_t port, DestinationReader destinationOf,
                              TextComparison compareNoCase, const PickLog& log);
