// The ident responder's side of the conversation (RFC 1413), free of the Windows API: lines taken
// from the connection, the port pair read from a query, and the answer line for what the identity
// table says.
#pragma once

#include <cstddef>
#include <cstdint>

#include "identity_table.h"

// A query line with its end may take up to 1000 bytes; a longer one ends the connection.
constexpr size_t kIdentLineLimit = 1000;
// The longest answer: two five-digit ports, the longest keyword and a name of 30 characters.
constexpr size_t kIdentAnswerSize = 96;

// Collects the bytes of one connection into lines ending in LF; a CR before the LF is dropped.
class IdentLineReader {
public:
    enum class Result { kNeedMore, kLine, kTooLong };

    // Takes bytes until a line is complete or the limit is passed; *used tells how many it took.
    // After kLine the line stands in Line() until the next call; after kTooLong the connection is cut.
    Result Take(const char* data, size_t size, size_t* used);
    const char* Line() const { return line_; }
    size_t Length() const { return length_; }

private:
    char line_[kIdentLineLimit] = {};
    size_t length_ = 0;
    bool complete_ = false;
};

// "local , remote": each port 1 to 65535, blanks allowed around both. A line that isn't two
// numbers of up to five digits reads as ports 0 and 0; both cases are not valid.
struct IdentQuery {
    bool valid = false;
    uint32_t localPort = 0;
    uint32_t remotePort = 0;
};
IdentQuery ParseIdentQuery(const char* line, size_t length);

// The answer line with its CR LF: the user's name, or the RFC's error for an invalid query
// (INVALID-PORT), an unknown key (NO-USER), an empty name (HIDDEN-USER) or a refused layout
// (UNKNOWN-ERROR). A control character of a name shows as '?'. Returns the length written, never
// more than size - 1.
size_t ComposeIdentAnswer(const IdentQuery& query, IdentityLookupResult found, const char* name, char* out,
                          size_t size);
