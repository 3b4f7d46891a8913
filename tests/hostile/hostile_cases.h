// Hostile-proxy cases: what the scripted fake proxy answers (generated from a seed), and what the
// library's rules say the host then sees. Nothing here calls the library or Windows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hostile {

using Bytes = std::string;

enum class Family { kSocks4, kSocks5, kHttp };
enum class Mode { kBlocking, kNonBlocking };
// How the proxy ends once its answers are out: end-of-stream (while it still takes in what the
// client sends, so that no RST follows), or silence with the connection left open.
enum class Ending { kFin, kHold };

// The client's messages; the proxy answers each kind at most once.
enum class Message { kSocks4Request, kMethodSelect, kPasswordRequest, kConnectRequest, kHttpRequest };

// One segment the proxy sends, after a pause.
struct Chunk {
    int gapMs = 0;
    Bytes bytes;
};

struct Answer {
    Message to;
    std::vector<Chunk> chunks;
};

struct Case {
    Family family = Family::kSocks4;
    int index = 0;
    Mode mode = Mode::kBlocking;
    std::string kind;  // the generator's name for the hostility, e.g. "truncated"
    std::string host;  // destination as the host passes it
    uint16_t port = 0;
    std::string user;       // SOCKS 4 user id, SOCKS 5 user name, HTTP user
    bool passwordGiven = true;  // the host's password callback answers (or declines)
    std::string password;
    bool authenticate = false;  // HTTP Basic
    std::vector<Answer> answers;
    Ending ending = Ending::kFin;
};

enum class Outcome { kSuccess, kFailure, kNone };

// Why the rules give no outcome.
enum class Stall {
    kNone,
    kSpins,              // blocking: end-of-stream during a counted read, or in the method state, loops for ever
    kBlocked,            // blocking: recv waits for bytes that never come
    kNoEvent,            // non-blocking: no FD_READ comes that would run a step
    kReadLost,           // non-blocking SOCKS 4: the counted read gave up, its bytes are gone
    kHiddenThreadSpins,  // non-blocking: the hidden thread would loop for ever (such cases run blocking)
};

// The WinSock error after a blocking connect that the call leaves as it was.
constexpr int kLeft = -2;

// Pause before every segment but the first of the exchange, and before the ending: far above a
// thread's wake-up, so that each segment is read before the next arrives; far below the library's
// retry windows of about one second, so that a non-blocking step sees every segment of its answer.
constexpr int kGapMs = 120;
// Retry loops: 100 tries, 10 ms apart, per counted read or peek. A try takes a little more than
// 10 ms under Wine (100 take about 1.06 s); 16 ms allows for a loaded machine.
constexpr int kTries = 100;
constexpr int kTryMs = 10;
constexpr int kTryBoundMs = 16;

struct Prediction {
    Outcome outcome = Outcome::kNone;
    Stall stall = Stall::kNone;
    std::string why;  // the rule that decides, for failure messages

    // Blocking: ConnectEx's result, the code it logs as "WinSock Error", the WinSock error after it.
    int result = 0;
    int code = 0;
    int lastError = kLeft;
    // Non-blocking: the error word of the posted FD_CONNECT.
    unsigned posted = 0;
    int canceled = 0;
    unsigned connectError = 0;
    int asked = 0;  // calls of the host's password callback

    // Non-blocking SOCKS failure with bytes still unread: every FD_READ in the finished state runs a
    // step that selects FD_READ again, and the bytes raise it again, until the host reads or closes.
    bool eventLoop = false;

    std::vector<Bytes> sent;   // the client's messages, in order
    bool checkHostData = false;  // success and end-of-stream: the host reads the rest to the end
    Bytes hostData;

    // The outcome if end-of-stream also raises FD_READ, where that differs (Wine does so at times).
    std::vector<Prediction> also;

    std::string script;  // the fake proxy's steps
    int scriptMs = 0;    // the proxy's pauses, all together
    int retryTries = 0;  // tries of the retry loops that the outcome waits out (non-blocking)
    int quietTries = 0;  // no outcome: tries the hidden thread may still spend after the proxy's last act
};

// Non-blocking: by when FD_CONNECT must be posted, from the connect on; or, with no outcome
// predicted, how long nothing may be posted before the case is ended.
int NonBlockingBoundMs(const Prediction& p);

const char* FamilyName(Family family);
Family FamilyFromName(const std::string& name);

// The cases of one family for a seed. Case i depends only on (seed, family, i).
Case GenerateCase(Family family, uint64_t seed, int index);
std::vector<Case> GenerateCases(Family family, uint64_t seed, int count);

// What the rules say the host sees, and the proxy script that plays the case.
Prediction Predict(const Case& c);

std::string Describe(const Case& c);
std::string Hex(const Bytes& bytes);

// The client's messages as the rules build them.
Bytes Socks4Request(const Case& c);
Bytes MethodSelect(const Case& c);
Bytes PasswordRequest(const Case& c);
Bytes Socks5Request(const Case& c);
Bytes HttpRequest(const Case& c);
Bytes Base64(const Bytes& text);

}  // namespace hostile
