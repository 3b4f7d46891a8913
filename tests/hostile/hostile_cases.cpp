// The generator of hostile answers: for each family, first a close and a silence at every offset
// of a valid handshake, then random hostilities of a dozen kinds. Everything comes from one seed.
#include <algorithm>
#include <stdexcept>

#include "hostile_cases.h"

namespace hostile {
namespace {

// splitmix64: small, and the same on every compiler, so that a seed replays anywhere.
class Rng {
public:
    explicit Rng(uint64_t seed) : state_(seed) {}
    uint64_t Next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    int Below(int n) { return n <= 0 ? 0 : static_cast<int>(Next() % static_cast<uint64_t>(n)); }
    int Between(int lo, int hi) { return lo + Below(hi - lo + 1); }
    bool Chance(int percent) { return Below(100) < percent; }
    char Byte() { return static_cast<char>(Below(256)); }
    Bytes Random(int n) {
        Bytes b;
        for (int i = 0; i < n; ++i) b += Byte();
        return b;
    }
    // Letters, digits and a few marks: a user name, a password, a word of a reason phrase.
    std::string Word(int n) {
        static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
        std::string w;
        for (int i = 0; i < n; ++i) w += kLetters[Below(sizeof kLetters - 1)];
        return w;
    }
    // Picks by weight; returns the index.
    int Pick(std::initializer_list<int> weights) {
        int total = 0;
        for (int w : weights) total += w;
        int r = Below(total);
        int i = 0;
        for (int w : weights) {
            if (r < w) return i;
            r -= w;
            ++i;
        }
        return i - 1;
    }

private:
    uint64_t state_;
};

Chunk Now(const Bytes& bytes) { return Chunk{0, bytes}; }

// `bytes` in `pieces` non-empty segments, cut at random places.
std::vector<Chunk> Split(Rng& rng, const Bytes& bytes, int pieces) {
    pieces = std::max(1, std::min(pieces, static_cast<int>(bytes.size())));
    std::vector<size_t> cuts;
    while (static_cast<int>(cuts.size()) < pieces - 1) {
        size_t cut = static_cast<size_t>(rng.Between(1, static_cast<int>(bytes.size()) - 1));
        if (std::find(cuts.begin(), cuts.end(), cut) == cuts.end()) cuts.push_back(cut);
    }
    std::sort(cuts.begin(), cuts.end());
    std::vector<Chunk> chunks;
    size_t from = 0;
    for (size_t cut : cuts) {
        chunks.push_back(Now(bytes.substr(from, cut - from)));
        from = cut;
    }
    chunks.push_back(Now(bytes.substr(from)));
    return chunks;
}

std::string Host(Rng& rng, bool names) {
    switch (rng.Pick({4, 3, names ? 3 : 0})) {
        case 0: return "127.0.0.1";
        case 1:
            return std::to_string(rng.Between(1, 223)) + "." + std::to_string(rng.Below(256)) + "." +
                   std::to_string(rng.Below(256)) + "." + std::to_string(rng.Between(1, 254));
        default:
            // Names under .invalid fail at once: the destination travels as text.
            return "h" + rng.Word(rng.Between(1, 20)) + ".invalid";
    }
}

uint64_t CaseSeed(uint64_t seed, Family family, int index) {
    Rng mix(seed ^ (static_cast<uint64_t>(family) + 1) * 0x100000001b3ull ^ static_cast<uint64_t>(index) << 20);
    return mix.Next();
}

// ---- SOCKS 4 ----

Bytes Socks4Reply(Rng& rng, uint8_t code) {
    Bytes reply;
    reply += rng.Chance(70) ? '\0' : rng.Byte();  // byte 0 is not looked at
    reply += static_cast<char>(code);
    return reply + rng.Random(6);
}

uint8_t Socks4Code(Rng& rng) {
    switch (rng.Pick({5, 2, 2, 2, 3})) {
        case 0: return 90;
        case 1: return 91;
        case 2: return 92;
        case 3: return 93;
        default: return static_cast<uint8_t>(rng.Byte());
    }
}

constexpr int kSocks4Offsets = 9;  // a valid reply cut before each of its 8 bytes, and whole

// Each Make* fills a case; a case of the systematic offsets reports its offset, the others -1.
int MakeSocks4(Case& c, Rng& rng) {
    c.host = Host(rng, false);
    c.port = static_cast<uint16_t>(rng.Between(1, 65535));
    c.user = rng.Chance(15) ? rng.Word(rng.Between(100, 400)) : rng.Word(rng.Below(17));
    Answer answer{Message::kSocks4Request, {}};
    Bytes valid = Socks4Reply(rng, 90);
    if (c.index < 2 * kSocks4Offsets) {
        int k = c.index / 2;
        c.kind = "offset " + std::to_string(k) + "/8";
        c.ending = c.index % 2 == 0 ? Ending::kFin : Ending::kHold;
        answer.chunks.push_back(Now(valid.substr(0, static_cast<size_t>(k))));
        c.answers.push_back(answer);
        return k;
    }
    c.ending = rng.Chance(50) ? Ending::kFin : Ending::kHold;
    // End-of-stream in a short reply loops for ever in a blocking connect; such cases are costly
    // to run, and the offsets above have them all, so the short kinds mostly end in silence.
    const bool shortEnding = rng.Chance(30);
    switch (rng.Pick({10, 10, 10, 8, 10, 14, 4, 8, 5, 4})) {
        case 0:
            c.kind = "valid, random fields";
            answer.chunks.push_back(Now(valid));
            break;
        case 1:
            c.kind = "reply code";
            answer.chunks.push_back(Now(Socks4Reply(rng, Socks4Code(rng))));
            break;
        case 2:
            c.kind = "random bytes";
            answer.chunks.push_back(Now(rng.Random(rng.Between(4, 24))));
            break;
        case 3:
            c.kind = "truncated";
            c.ending = shortEnding ? Ending::kFin : Ending::kHold;
            answer.chunks.push_back(Now(Socks4Reply(rng, Socks4Code(rng)).substr(0, rng.Between(1, 7))));
            break;
        case 4:
            c.kind = "over-long";
            answer.chunks.push_back(Now(Socks4Reply(rng, Socks4Code(rng)) + rng.Random(rng.Between(1, 150))));
            break;
        case 5:
            c.kind = "split";
            answer.chunks = Split(rng, Socks4Reply(rng, Socks4Code(rng)) + rng.Random(rng.Below(9)), rng.Between(2, 4));
            break;
        case 6:
            c.kind = "split, truncated";
            c.ending = shortEnding ? Ending::kFin : Ending::kHold;
            answer.chunks = Split(rng, Socks4Reply(rng, Socks4Code(rng)).substr(0, rng.Between(2, 7)), rng.Between(2, 3));
            break;
        case 7:
            c.kind = "reply, then tunnel bytes";
            answer.chunks.push_back(Now(Socks4Reply(rng, Socks4Code(rng))));
            answer.chunks.push_back(Now(rng.Random(rng.Between(1, 40))));
            break;
        case 8:
            c.kind = "slow";
            answer.chunks.push_back(Chunk{rng.Between(300, 600), Socks4Reply(rng, Socks4Code(rng))});
            break;
        default:
            c.kind = "no answer";
            c.ending = shortEnding ? Ending::kFin : Ending::kHold;
            break;
    }
    c.answers.push_back(answer);
    return -1;
}

// ---- SOCKS 5 ----

Bytes ConnectReply(Rng& rng, uint8_t status) {
    Bytes reply{5, static_cast<char>(status), rng.Chance(80) ? '\0' : rng.Byte()};
    switch (rng.Pick({7, 2, 1})) {
        case 0: return reply + '\1' + rng.Random(6);
        case 1: {
            // Neither the address type nor its length is looked at: 10 bytes are read.
            int n = rng.Between(1, 30);
            return reply + '\3' + static_cast<char>(n) + rng.Word(n) + rng.Random(2);
        }
        default: return reply + '\4' + rng.Random(18);
    }
}

Bytes PasswordStatus(Rng& rng, uint8_t status) {
    return Bytes{rng.Chance(80) ? '\1' : rng.Byte(), static_cast<char>(status)};
}

uint8_t Status(Rng& rng) {
    switch (rng.Pick({4, 4, 2})) {
        case 0: return 0;
        case 1: return static_cast<uint8_t>(rng.Between(1, 8));
        default: return static_cast<uint8_t>(rng.Byte());
    }
}

uint8_t Method(Rng& rng) {
    switch (rng.Pick({3, 2, 3, 2, 2})) {
        case 0: return 0;
        case 1: return 1;
        case 2: return 2;
        case 3: return 0xff;
        default: return static_cast<uint8_t>(rng.Byte());
    }
}

// Offsets of the systematic cases: without a password, 2 + 10 reply bytes; with one, 2 + 2 + 10.
constexpr int kSocks5PlainOffsets = 13;
constexpr int kSocks5PasswordOffsets = 15;

int MakeSocks5(Case& c, Rng& rng) {
    c.host = Host(rng, true);
    c.port = static_cast<uint16_t>(rng.Between(1, 65535));
    c.user = rng.Chance(50) ? std::string() : rng.Word(rng.Between(1, 20));
    c.password = rng.Word(rng.Below(17));
    c.passwordGiven = rng.Chance(75);
    Answer method{Message::kMethodSelect, {}};
    Answer status{Message::kPasswordRequest, {}};
    Answer reply{Message::kConnectRequest, {}};

    const int systematic = 2 * (kSocks5PlainOffsets + kSocks5PasswordOffsets);
    if (c.index < systematic) {
        bool withPassword = c.index >= 2 * kSocks5PlainOffsets;
        int k = (withPassword ? c.index - 2 * kSocks5PlainOffsets : c.index) / 2;
        c.ending = c.index % 2 == 0 ? Ending::kFin : Ending::kHold;
        if (withPassword) {
            if (c.user.empty()) c.user = rng.Word(rng.Between(1, 20));
            c.passwordGiven = true;
        }
        Bytes valid[3] = {Bytes{5, withPassword ? '\2' : '\0'}, withPassword ? PasswordStatus(rng, 0) : Bytes(),
                          Bytes{5, 0, 0, 1} + rng.Random(6)};
        Answer* answers[3] = {&method, &status, &reply};
        int total = withPassword ? kSocks5PasswordOffsets - 1 : kSocks5PlainOffsets - 1;
        c.kind = std::string(withPassword ? "with password, " : "") + "offset " + std::to_string(k) + "/" +
                 std::to_string(total);
        int left = k;
        for (int i = 0; i < 3 && left > 0; ++i) {
            int n = std::min(left, static_cast<int>(valid[i].size()));
            answers[i]->chunks.push_back(Now(valid[i].substr(0, static_cast<size_t>(n))));
            left -= n;
        }
        c.answers = {method, status, reply};
        return k;
    }

    c.ending = rng.Chance(50) ? Ending::kFin : Ending::kHold;
    // A valid handshake to start from; the proxy may pick method 0 although 2 was offered.
    uint8_t chosen = !c.user.empty() && rng.Chance(60) ? 2 : 0;
    Bytes valid[3] = {Bytes{5, static_cast<char>(chosen)}, PasswordStatus(rng, 0), ConnectReply(rng, 0)};
    int stage = chosen == 2 ? rng.Below(3) : (rng.Chance(50) ? 0 : 2);
    bool dropLater = false;
    switch (rng.Pick({8, 10, 8, 10, 10, 10, 10, 8, 12, 4, 4, 5})) {
        case 0:
            c.kind = "valid, random fields";
            break;
        case 1:
            c.kind = "method";
            stage = 0;
            valid[0] = Bytes{5, static_cast<char>(Method(rng))};
            break;
        case 2: {
            c.kind = "reply without version 5";
            stage = 0;
            Bytes wrong{static_cast<char>(rng.Chance(30) ? 4 : rng.Byte()), static_cast<char>(Method(rng))};
            if (wrong[0] == 5) wrong[0] = 6;
            method.chunks.push_back(Now(wrong));
            if (rng.Chance(60)) {
                method.chunks.push_back(Now(valid[0]));
            } else {
                dropLater = true;
            }
            valid[0].clear();
            break;
        }
        case 3:
            c.kind = "password status";
            if (c.user.empty()) c.user = rng.Word(rng.Between(1, 20));
            valid[0] = Bytes{5, 2};
            stage = 1;
            valid[1] = PasswordStatus(rng, Status(rng));
            break;
        case 4:
            c.kind = "reply status";
            stage = 2;
            valid[2] = ConnectReply(rng, Status(rng));
            break;
        case 5:
            c.kind = "random bytes";
            valid[stage] = rng.Random(rng.Between(1, 24));
            break;
        case 6:
            c.kind = "truncated";
            valid[stage] = valid[stage].substr(0, static_cast<size_t>(rng.Between(1, static_cast<int>(valid[stage].size()) - 1)));
            dropLater = true;
            break;
        case 7:
            c.kind = "over-long";
            valid[stage] += rng.Random(rng.Between(1, 100));
            break;
        case 8:
            c.kind = "split";
            if (rng.Chance(30)) valid[stage] += rng.Random(rng.Between(1, 12));
            break;
        case 9:
            c.kind = "two replies in one segment";
            stage = 0;
            valid[0] = Bytes{5, 0} + ConnectReply(rng, Status(rng));
            dropLater = true;
            break;
        case 10:
            c.kind = "slow";
            break;
        default:
            c.kind = "no answer";
            valid[stage].clear();
            dropLater = true;
            break;
    }
    c.kind += std::string(" at ") + (stage == 0 ? "method" : stage == 1 ? "password" : "connect") + " reply";
    Answer* answers[3] = {&method, &status, &reply};
    for (int i = 0; i < 3; ++i) {
        if (dropLater && i > stage) break;
        if (valid[i].empty()) continue;
        if (i == stage && c.kind.rfind("split", 0) == 0 && valid[i].size() > 1) {
            answers[i]->chunks = Split(rng, valid[i], rng.Between(2, 4));
        } else if (i == stage && c.kind.rfind("slow", 0) == 0) {
            answers[i]->chunks.push_back(Chunk{rng.Between(300, 600), valid[i]});
        } else {
            answers[i]->chunks.push_back(Now(valid[i]));
        }
    }
    c.answers = {method, status, reply};
    return -1;
}

// ---- HTTP ----

std::string Reason(Rng& rng) {
    static const char* const kReasons[] = {"OK", "Connection established", "Not Found", "Proxy Authentication Required",
                                           "Bad Gateway", ""};
    return rng.Chance(70) ? kReasons[rng.Below(6)] : rng.Word(rng.Between(1, 30));
}

std::string Headers(Rng& rng) {
    std::string h;
    int n = rng.Below(4);
    for (int i = 0; i < n; ++i) h += "X-" + rng.Word(rng.Between(1, 10)) + ": " + rng.Word(rng.Between(0, 40)) + "\r\n";
    return h;
}

Bytes HttpReply(Rng& rng, const std::string& status) {
    return "HTTP/1." + std::to_string(rng.Below(2)) + " " + status + " " + Reason(rng) + "\r\n" + Headers(rng) + "\r\n";
}

std::string StatusText(Rng& rng) {
    static const char* const kStatus[] = {"200", "404", "407", "403", "500", "502", "503", "100", "301", "0", "999",
                                          // beyond the range of int: no known status, though
                                          // they would wrap to 200 and 407
                                          "4294967496", "4294967703"};
    // Only 200 itself is success: its neighbours fail like the rest.
    static const char* const kNearly[] = {"201", "202", "204", "206", "199", "210", "220", "20", "2000", "0200", "00200"};
    switch (rng.Pick({5, 3, 2})) {
        case 0: return kStatus[rng.Below(sizeof kStatus / sizeof kStatus[0])];
        case 1: return kNearly[rng.Below(sizeof kNearly / sizeof kNearly[0])];
        default: return std::to_string(rng.Below(1000));
    }
}

Bytes StatusLine(Rng& rng) {
    static const char* const kLines[] = {
        "HTTP/1.1-200-OK\r\n\r\n", "HTTP/1.1  200 OK\r\n\r\n", "HTTP/1.1\t200 OK\r\n\r\n", " 200 OK\r\n\r\n",
        "X 200",                   "http/1.1 200 ok\r\n\r\n",  "200\r\n\r\n",             "HTTP/1.1 +200 OK\r\n\r\n",
        "HTTP/1.1 200OK\r\n\r\n",  "HTTP/1.1 200",             "HTTP/1.1 20 0 OK\r\n\r\n", "HTTP/2 200\r\n\r\n",
        "HTTP/1.1 407 x\r\n\r\n",  "SOCKS 404\r\n",            "HTTP/1.1 \r\n\r\n",       "HTTP/1.1 200\n\n"};
    return kLines[rng.Below(sizeof kLines / sizeof kLines[0])];
}

constexpr char kHttpValid[] = "HTTP/1.1 200 OK\r\n\r\n";
constexpr int kHttpOffsets = sizeof kHttpValid;  // cut before each byte, and whole

int MakeHttp(Case& c, Rng& rng) {
    c.host = Host(rng, true);
    c.port = static_cast<uint16_t>(rng.Between(1, 65535));
    c.user = rng.Word(rng.Below(13));
    Answer answer{Message::kHttpRequest, {}};
    if (c.index < 2 * kHttpOffsets) {
        int k = c.index / 2;
        c.kind = "offset " + std::to_string(k) + "/" + std::to_string(kHttpOffsets - 1);
        c.ending = c.index % 2 == 0 ? Ending::kFin : Ending::kHold;
        answer.chunks.push_back(Now(Bytes(kHttpValid).substr(0, static_cast<size_t>(k))));
        c.answers.push_back(answer);
        return k;
    }
    c.ending = rng.Chance(50) ? Ending::kFin : Ending::kHold;
    Bytes reply;
    switch (rng.Pick({8, 16, 10, 10, 6, 6, 8, 8, 12, 6, 8, 4})) {
        case 0:
            c.kind = "valid, random fields";
            answer.chunks.push_back(Now(HttpReply(rng, "200")));
            break;
        case 1:
            c.kind = "status";
            answer.chunks.push_back(Now(HttpReply(rng, StatusText(rng))));
            break;
        case 2:
            c.kind = "odd status line";
            answer.chunks.push_back(Now(StatusLine(rng)));
            break;
        case 3:
            c.kind = "random bytes";
            answer.chunks.push_back(Now(rng.Random(rng.Between(1, 64))));
            break;
        case 4:
            c.kind = "random words";
            for (int i = rng.Between(1, 6); i > 0; --i) reply += rng.Word(rng.Between(0, 12)) + (rng.Chance(70) ? " " : "\r\n");
            answer.chunks.push_back(Now(reply));
            break;
        case 5:
            c.kind = "zero byte inside";
            reply = HttpReply(rng, StatusText(rng));
            reply.insert(static_cast<size_t>(rng.Below(static_cast<int>(reply.size()))), 1, '\0');
            answer.chunks.push_back(Now(reply));
            break;
        case 6:
            c.kind = "truncated";
            reply = HttpReply(rng, rng.Chance(60) ? "200" : StatusText(rng));
            answer.chunks.push_back(Now(reply.substr(0, static_cast<size_t>(rng.Between(1, static_cast<int>(reply.size()) - 1)))));
            break;
        case 7: {
            c.kind = "over-long";
            // Sometimes the status itself stands at the 1024-byte edge.
            if (rng.Chance(40)) {
                int lead = rng.Between(1015, 1023);
                reply = std::string(static_cast<size_t>(lead), 'X') + " 200 OK\r\n\r\n";
            } else {
                reply = "HTTP/1.1 " + StatusText(rng) + " OK\r\nX-Padding: " + std::string(static_cast<size_t>(rng.Between(990, 1500)), 'p') + "\r\n\r\n";
            }
            answer.chunks.push_back(Now(reply));
            break;
        }
        case 8:
            c.kind = "split";
            reply = HttpReply(rng, rng.Chance(60) ? "200" : StatusText(rng));
            answer.chunks = Split(rng, reply, rng.Between(2, 4));
            break;
        case 9:
            c.kind = "reply, then tunnel bytes";
            answer.chunks.push_back(Now(HttpReply(rng, rng.Chance(70) ? "200" : StatusText(rng))));
            answer.chunks.push_back(Now(rng.Random(rng.Between(1, 40))));
            break;
        case 11:
            c.kind = "no answer";
            break;
        default:
            c.kind = "basic authentication";
            c.authenticate = true;
            c.password = rng.Word(rng.Below(13));
            c.passwordGiven = rng.Chance(70);
            answer.chunks.push_back(Now(HttpReply(rng, rng.Chance(50) ? "200" : "407")));
            break;
    }
    c.answers.push_back(answer);
    return -1;
}

}  // namespace

const char* FamilyName(Family family) {
    switch (family) {
        case Family::kSocks4: return "socks4";
        case Family::kSocks5: return "socks5";
        case Family::kHttp: return "http";
    }
    return "?";
}

Family FamilyFromName(const std::string& name) {
    for (Family f : {Family::kSocks4, Family::kSocks5, Family::kHttp}) {
        if (name == FamilyName(f)) return f;
    }
    throw std::invalid_argument("unknown family " + name);
}

Case GenerateCase(Family family, uint64_t seed, int index) {
    Rng rng(CaseSeed(seed, family, index));
    Case c;
    c.family = family;
    c.index = index;
    bool nonBlocking = rng.Chance(30);
    int offset = -1;
    switch (family) {
        case Family::kSocks4: offset = MakeSocks4(c, rng); break;
        case Family::kSocks5: offset = MakeSocks5(c, rng); break;
        case Family::kHttp: offset = MakeHttp(c, rng); break;
    }
    // Every third offset runs non-blocking, with both endings.
    if (offset >= 0) nonBlocking = offset % 3 == 0;
    if (nonBlocking) {
        c.mode = Mode::kNonBlocking;
        // A case that would take the hidden thread for ever, or hold it long after the proxy is
        // done, runs blocking instead.
        Prediction p = Predict(c);
        bool spins = p.stall == Stall::kHiddenThreadSpins;
        for (const Prediction& other : p.also) spins = spins || other.stall == Stall::kHiddenThreadSpins;
        if (spins || p.quietTries > 2 * kTries) c.mode = Mode::kBlocking;
    }
    return c;
}

std::vector<Case> GenerateCases(Family family, uint64_t seed, int count) {
    std::vector<Case> cases;
    for (int i = 0; i < count; ++i) cases.push_back(GenerateCase(family, seed, i));
    return cases;
}

std::string Describe(const Case& c) {
    std::string text = std::string(FamilyName(c.family)) + " case " + std::to_string(c.index) + " (" + c.kind + ", " +
                       (c.mode == Mode::kBlocking ? "blocking" : "non-blocking") + ", " +
                       (c.ending == Ending::kFin ? "end-of-stream" : "silence") + " at the end) to " + c.host + ":" +
                       std::to_string(c.port);
    if (!c.user.empty()) text += " user " + c.user.substr(0, 24) + (c.user.size() > 24 ? "..." : "");
    if (c.family == Family::kSocks5 || c.authenticate) {
        text += c.passwordGiven ? ", password \"" + c.password + "\"" : ", password declined";
    }
    return text;
}

}  // namespace hostile
