// A proxy map's texts through the rules: a stored host is never empty, and "*" where it begins with
// '*'; a stored port is "*" or holds a digit among at most 30 characters; port numbers read from the
// first digit as atoi does on Windows, held at 2147483647; the wildcard expansion joins the non-empty
// parts and stays inside its 1025 bytes; the choice of a map is the first in order whose host is the
// same without regard to case, or "*", and whose port is the same number, or 0. Nothing is written
// beyond a field.
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "decimal_text.h"
#include "guarded_field.h"
#include "map_rules.h"

namespace {

using dxtest::AsciiCompareNoCase;

template <size_t Size>
struct Guarded : dxtest::GuardedField<Size> {
    void Check() const {
        if (!this->GuardsIntact() || !this->Terminated()) std::abort();
    }
};

bool HasDigit(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

long long Clamp(long long value) { return std::min<long long>(std::max<long long>(value, INT_MIN), INT_MAX); }

// The expansion as the rules state it, on std::string.
std::string Expanded(const std::string& text, const char* wildcard, const char* other) {
    std::string work = !text.empty() && text[0] == '*' ? "*.*.*.*" : text;
    std::string out;
    bool first = true;
    size_t start = 0;
    while (start <= work.size()) {
        size_t dot = work.find('.', start);
        std::string part = work.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        if (!part.empty()) {
            if (!first) out += '.';
            out += part[0] == '*' ? wildcard : (other != nullptr ? other : part);
            first = false;
        }
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    return out;
}

struct Node : CListNode {
    char host[kMapHostSize];
    char port[kMapPortSize];
};

MapDestination DestinationOf(const CListNode* node) {
    const auto* n = static_cast<const Node*>(node);
    return {n->host, n->port};
}

int g_lines = 0;
void CountLine(const char*, ...) { ++g_lines; }

std::vector<std::string> Split(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\n') {
            pieces.emplace_back();
        } else {
            pieces.back() += static_cast<char>(data[i]);
        }
    }
    for (std::string& piece : pieces) piece = piece.c_str();
    return pieces;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> texts = Split(data, size);
    const std::string word = texts.size() > 1 ? texts[1].substr(0, kAnyHostWordSize - 1) : "Any host";

    // Each text as a host, as a port and as a number.
    std::vector<Node> nodes(std::min<size_t>(texts.size(), 8));
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string& text = texts[i];

        Guarded<kMapHostSize> host;
        ApplyHostRule(host.field, text.c_str(), word.c_str(), AsciiCompareNoCase);
        host.Check();
        std::string storedHost = host.field;
        if (storedHost.empty() || host.field[kMapHostSize - 1] != '\0') std::abort();
        if (storedHost[0] == '*' && storedHost != "*") std::abort();
        bool wildcard = text.empty() || text[0] == '*' || AsciiCompareNoCase(text.c_str(), word.c_str()) == 0;
        if (storedHost != (wildcard ? std::string("*") : text.substr(0, kMapHostKept))) std::abort();

        Guarded<kMapPortSize> port;
        ApplyPortRule(port.field, text.c_str());
        port.Check();
        std::string storedPort = port.field;
        if (storedPort.size() > kMapPortKept) std::abort();
        if (storedPort != "*" && !HasDigit(storedPort)) std::abort();
        if (HasDigit(text.substr(0, kMapPortKept)) && storedPort != text.substr(0, kMapPortKept)) std::abort();

        uint32_t mask = 7;
        int number = ParsePortNumber(text.c_str(), &mask);
        size_t digit = text.find_first_of("0123456789");
        if (mask != (digit == std::string::npos ? 0u : 65535u)) std::abort();
        long long expected = digit == std::string::npos ? 0 : Clamp(std::strtoll(text.c_str() + digit, nullptr, 10));
        if (number != expected || number < 0) std::abort();
        if (ReadDecimal(text.c_str()) != Clamp(std::strtoll(text.c_str(), nullptr, 10))) std::abort();

        for (int pass = 0; pass < 2; ++pass) {
            const char* replacement = pass == 0 ? "1" : "0";
            const char* other = pass == 0 ? nullptr : "255";
            Guarded<kMapHostSize> out;
            std::strcpy(out.field, "before");
            ExpandWildcard(out.field, text.c_str(), replacement, other);
            out.Check();
            std::string result = out.field;
            if (text.size() > kExpandLimit) {
                if (result != "before") std::abort();
            } else if (result != Expanded(text, replacement, other).substr(0, kMapHostSize - 1)) {
                std::abort();
            }
        }

        if (i < nodes.size()) {
            std::memcpy(nodes[i].host, host.field, kMapHostSize);
            std::memcpy(nodes[i].port, port.field, kMapPortSize);
            nodes[i].next = i + 1 < nodes.size() ? &nodes[i + 1] : nullptr;
        }
    }

    // The choice among the maps made of the first texts, for the first text as a destination.
    if (nodes.empty()) return 0;
    const std::string& asked = texts[0];
    uint32_t askedPort = size > 0 ? data[size - 1] % 4 * 1000u : 0u;
    int expectedLines = 0;
    const Node* expected = nullptr;
    for (const Node& node : nodes) {
        ++expectedLines;
        bool hostMatches =
            AsciiCompareNoCase(asked.c_str(), node.host) == 0 || AsciiCompareNoCase("*", node.host) == 0;
        if (!hostMatches) continue;
        ++expectedLines;
        int stored = ParsePortNumber(node.port, nullptr);
        if (static_cast<uint32_t>(stored) == askedPort || stored == 0) {
            expected = &node;
            ++expectedLines;
            break;
        }
    }
    const PickLog log = {"%s %s", "%x %x", "%d", CountLine};
    g_lines = 0;
    const CListNode* picked = PickFirstMap(&nodes[0], asked.c_str(), askedPort, DestinationOf, AsciiCompareNoCase, log);
    if (picked != expected || g_lines != expectedLines) std::abort();
    return 0;
}
