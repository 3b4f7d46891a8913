// The predictor: each family's client as the library's rules describe it, fed the proxy's segments
// one at a time. It never runs the library.
//
// Rules it follows, in short:
// - A blocking handshake loops on the caller's thread; recv waits, so the library adds no delay of
//   its own, and end-of-stream reads as 0 bytes at once.
// - A non-blocking step runs per FD_READ. A step that found bytes is always followed by one more
//   (FD_READ is armed again at each step while bytes are there, and bytes that arrive during a
//   step raise FD_READ too), and that step waits in its retry loop for the next answer.
//   End-of-stream raises FD_CLOSE, which no step handles. Wine at times raises FD_READ for it as
//   well, when a recv came shortly before; where that changes the outcome, the prediction names
//   both (the second as `also`).
// - SOCKS reads ask for what is left of 64 bytes; a counted read (8 for SOCKS 4, 10 for a granted
//   SOCKS 5 connect reply) loops for ever on end-of-stream; a peek that sees end-of-stream leaves
//   the reply buffer as it was, and its old bytes decide.
// - HTTP takes what the first peek shows (at most 1024 bytes) and judges that alone.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <deque>

#include "hostile_cases.h"

namespace hostile {
namespace {

constexpr unsigned kRefused = 10061;
constexpr unsigned kNotFound = 65532;
constexpr unsigned kAuthRequired = 65533;
constexpr unsigned kCancelled = 65534;
constexpr int kSocksWindow = 64;
constexpr int kHttpWindow = 1024;

bool ParseDottedQuad(const std::string& host, uint8_t out[4]) {
    unsigned a, b, c, d;
    char tail;
    if (std::sscanf(host.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &tail) != 4) return false;
    if (a > 255 || b > 255 || c > 255 || d > 255) return false;
    out[0] = static_cast<uint8_t>(a);
    out[1] = static_cast<uint8_t>(b);
    out[2] = static_cast<uint8_t>(c);
    out[3] = static_cast<uint8_t>(d);
    return true;
}

Bytes PortBytes(uint16_t port) {
    return Bytes{static_cast<char>(port >> 8), static_cast<char>(port & 0xff)};
}

uint8_t At(const Bytes& bytes, size_t i) { return static_cast<uint8_t>(bytes[i]); }

// What a client model reports to the exchange that feeds it.
class Client {
public:
    // `eofReads`: end-of-stream also raises FD_READ, so a non-blocking step runs on it.
    Client(const Case& c, bool eofReads) : case_(c), blocking_(c.mode == Mode::kBlocking), eofReads_(eofReads) {}
    virtual ~Client() = default;

    virtual void Start() = 0;
    // One segment has arrived.
    virtual void Arrive(const Bytes& bytes) = 0;
    virtual void EndOfStream() = 0;
    // The proxy says nothing more and keeps the connection open.
    virtual void Silence() = 0;

    bool Done() const { return p_.outcome != Outcome::kNone || p_.stall != Stall::kNone; }
    std::deque<Bytes>& Outbox() { return outbox_; }
    Prediction& Result() { return p_; }

protected:
    void Send(const Bytes& message) {
        outbox_.push_back(message);
        p_.sent.push_back(message);
    }
    void Succeed(const std::string& why) {
        p_.outcome = Outcome::kSuccess;
        p_.why = why;
        p_.result = 0;
        p_.code = 0;
        p_.posted = 0;
    }
    // `code` is what the connect reports (blocking), `posted` the error of FD_CONNECT.
    void Fail(const std::string& why, int code, int lastError, unsigned posted) {
        p_.outcome = Outcome::kFailure;
        p_.why = why;
        p_.result = -1;
        p_.code = code;
        p_.lastError = lastError;
        p_.posted = posted;
    }
    void Stop(Stall stall, const std::string& why) {
        p_.stall = stall;
        p_.why = why;
    }
    // Bytes after success reach the host; after a failure they stay in the socket.
    void ToHost(const Bytes& bytes) {
        if (p_.outcome == Outcome::kSuccess) p_.hostData += bytes;
        if (p_.outcome == Outcome::kFailure) unread_ += bytes;
    }

public:
    const Bytes& Unread() const { return unread_; }

protected:
    Bytes unread_;

    const Case& case_;
    const bool blocking_;
    const bool eofReads_;
    Prediction p_;
    std::deque<Bytes> outbox_;
};

// SOCKS 4: one request, then a counted read of 8 bytes; byte 1 of the reply decides.
class Socks4Client : public Client {
public:
    using Client::Client;

    void Start() override { Send(Socks4Request(case_)); }


    void Arrive(const Bytes& bytes) override {
        if (Done()) {
            ToHost(bytes);
            return;
        }
        ++segments_;
        avail_ += bytes;
        // Each recv asks for what is left of 64 bytes.
        size_t take = std::min(avail_.size(), static_cast<size_t>(kSocksWindow) - got_.size());
        got_ += avail_.substr(0, take);
        avail_.erase(0, take);
        if (got_.size() < 8) return;
        if (At(got_, 1) == 90) {
            Succeed("SOCKS 4 reply code 90");
        } else {
            char why[64];
            std::snprintf(why, sizeof why, "SOCKS 4 reply code %u: refusal", At(got_, 1));
            Fail(why, static_cast<int>(kRefused), static_cast<int>(kRefused), kRefused);
        }
        ToHost(avail_);
        avail_.clear();
    }

    void EndOfStream() override {
        if (Done()) return;
        if (blocking_) {
            Stop(Stall::kSpins, "end-of-stream during the counted read of 8: recv gives 0, which is no retry");
        } else if (got_.empty() && !eofReads_) {
            Stop(Stall::kNoEvent, "end-of-stream before any byte raises no FD_READ");
        } else {
            Stop(Stall::kHiddenThreadSpins, "end-of-stream during the counted read of 8, on the hidden thread");
        }
    }

    void Silence() override {
        if (Done()) return;
        if (blocking_) {
            Stop(Stall::kBlocked, "the counted read of 8 waits in recv");
        } else if (got_.empty()) {
            Stop(Stall::kNoEvent, "no byte, no FD_READ");
        } else {
            // The read gives up after its tries; the step that FD_READ armed again, and one per
            // segment that came during the read, each start afresh and give up too.
            p_.quietTries = (1 + segments_) * kTries;
            Stop(Stall::kReadLost, "short reply: the counted read gives up, and its bytes are lost");
        }
    }

private:
    Bytes avail_;
    Bytes got_;
    int segments_ = 0;
};

// SOCKS 5: method selection, perhaps username/password, then the request; each reply is peeked,
// then read; the reply buffer keeps its old bytes across steps.
class Socks5Client : public Client {
public:
    using Client::Client;

    void Start() override {
        Send(MethodSelect(case_));
        state_ = kMethod;
    }

    void Arrive(const Bytes& bytes) override {
        if (Done()) {
            ToHost(bytes);
            return;
        }
        avail_ += bytes;
        Run();
        if (Done()) {
            ToHost(avail_);
            avail_.clear();
        }
    }

    void EndOfStream() override {
        if (Done()) return;
        if (counting_) {
            if (blocking_) {
                Stop(Stall::kSpins, "end-of-stream during the counted read of 10: recv gives 0, which is no retry");
            } else {
                Stop(Stall::kHiddenThreadSpins, "end-of-stream during the counted read of 10, on the hidden thread");
            }
            return;
        }
        // Steps that may see it: the waiting one, and one that FD_READ raised for it.
        int steps = blocking_ ? -1 : (waiting_ ? 1 : 0) + (eofReads_ ? 1 : 0);
        for (;;) {
            if (steps-- == 0) {
                Stop(Stall::kNoEvent, "end-of-stream raises no FD_READ, and no step waits");
                return;
            }
            // The peek sees 0 bytes and no error: no read, and the old buffer decides.
            switch (state_) {
                case kMethod:
                    // The first byte was cleared by the last method step, or never set.
                    if (buffer_[0] != 5) {
                        if (blocking_) {
                            Stop(Stall::kSpins, "end-of-stream in the method state: no 5 seen, the loop goes on for ever");
                        } else {
                            Stop(Stall::kNoEvent, "end-of-stream in the method state: the step waits for another event");
                        }
                        return;
                    }
                    OnMethod();
                    break;
                case kPassword:
                    OnPasswordStatus("end-of-stream: the old status byte");
                    break;
                case kReply:
                    OnConnectReply("end-of-stream: the old status byte");
                    break;
            }
            if (Done()) return;
        }
    }

    void Silence() override {
        if (Done()) return;
        if (blocking_) {
            Stop(Stall::kBlocked, counting_ ? "the counted read of 10 waits in recv" : "the peek waits in recv");
            return;
        }
        if (counting_) {
            // The read gives up; byte 1 as it stands decides.
            p_.retryTries += kTries;
            counting_ = false;
            OnConnectReply("the counted read of 10 gave up");
            return;
        }
        if (!waiting_) {
            Stop(Stall::kNoEvent, "no byte, no FD_READ");
            return;
        }
        // The waiting step peeks until its tries run out: 10035, and the failure tail.
        p_.retryTries += (state_ == kReply ? 3 : 2) * kTries;
        Fail("nothing came within the peeks: 10035, a refusal to the host", -1, kLeft, kRefused);
    }

private:
    enum State { kMethod = 4, kPassword = 6, kReply = 8 };

    void Run() {
        while (!Done() && !avail_.empty()) {
            if (counting_) {
                Take(kSocksWindow - got_);
                if (got_ >= 10) {
                    counting_ = false;
                    OnConnectReply("connect reply");
                }
                continue;
            }
            // A step: the peek shows what has arrived, up to 64 bytes.
            size_t seen = std::min(avail_.size(), static_cast<size_t>(kSocksWindow));
            std::copy(avail_.begin(), avail_.begin() + static_cast<long>(seen), buffer_);
            waiting_ = true;
            if (state_ == kReply && buffer_[1] == 0) {
                counting_ = true;
                got_ = 0;
                continue;
            }
            got_ = 0;
            Take(kSocksWindow);
            switch (state_) {
                case kMethod:
                    // A reply that doesn't begin with 5 is dropped, and the state waits on.
                    if (buffer_[0] == 5) OnMethod();
                    buffer_[0] = 0;
                    buffer_[1] = 0;
                    break;
                case kPassword:
                    OnPasswordStatus("password status");
                    break;
                case kReply:
                    OnConnectReply("connect reply");
                    break;
            }
        }
    }

    // Reads what has arrived into the buffer at got_, up to `room` bytes.
    void Take(int room) {
        size_t take = std::min(avail_.size(), static_cast<size_t>(std::max(room, 0)));
        std::copy(avail_.begin(), avail_.begin() + static_cast<long>(take), buffer_ + got_);
        got_ += static_cast<int>(take);
        avail_.erase(0, take);
    }

    void OnMethod() {
        char why[64];
        switch (buffer_[1]) {
            case 0:
                Send(Socks5Request(case_));
                state_ = kReply;
                return;
            case 2:
                ++p_.asked;
                if (case_.passwordGiven) {
                    Send(PasswordRequest(case_));
                    state_ = kPassword;
                } else {
                    p_.canceled = 1;
                    // The cancel is posted first; the refusal of the failure tail finds nothing to post.
                    Fail("method 2 and the callback declines: cancelled", -1, kLeft, kCancelled);
                }
                return;
            default:
                std::snprintf(why, sizeof why, "method %u: refused", buffer_[1]);
                Fail(why, -1, kLeft, kRefused);
                return;
        }
    }

    void OnPasswordStatus(const char* what) {
        if (buffer_[1] == 0) {
            Send(Socks5Request(case_));
            state_ = kReply;
            return;
        }
        Fail(std::string(what) + ": status not 0, refused", -1, kLeft, kRefused);
    }

    void OnConnectReply(const char* what) {
        if (buffer_[1] == 0) {
            Succeed(std::string(what) + ": status 0");
        } else {
            Fail(std::string(what) + ": status not 0, refused", -1, kLeft, kRefused);
        }
    }

    State state_ = kMethod;
    uint8_t buffer_[kSocksWindow] = {};  // the reply buffer of a fresh socket starts zeroed
    Bytes avail_;
    int got_ = 0;
    bool counting_ = false;
    // A step waits in its retry loop: blocking always; non-blocking after a step that found bytes.
    bool waiting_ = false;
};

// The status of an HTTP reply as the rules read it: the digits behind the first blank, through
// atoi, which stops at 2147483647 as the Windows runtime's does.
int HttpStatus(const Bytes& text) {
    size_t end = text.find('\0');
    Bytes line = text.substr(0, end);
    size_t blank = line.find(' ');
    if (blank == Bytes::npos) return 500;
    int64_t value = 0;
    for (size_t i = blank + 1; i < line.size() && line[i] >= '0' && line[i] <= '9'; ++i) {
        value = std::min<int64_t>(value * 10 + (line[i] - '0'), INT32_MAX);
    }
    return static_cast<int>(value);
}

// HTTP: one request; the first segment of the reply, at most 1024 bytes, is the whole judgement.
class HttpClient : public Client {
public:
    using Client::Client;

    void Start() override {
        if (case_.authenticate) ++p_.asked;
        if (case_.authenticate && !case_.passwordGiven) {
            p_.canceled = 1;
            Fail("the password callback declines: nothing is sent", -1, static_cast<int>(kCancelled), kCancelled);
            return;
        }
        Send(HttpRequest(case_));
    }

    void Arrive(const Bytes& bytes) override {
        if (Done()) {
            ToHost(bytes);
            return;
        }
        size_t seen = std::min(bytes.size(), static_cast<size_t>(kHttpWindow));
        // The 1024th byte gives way to the terminator.
        Bytes reply = bytes.substr(0, std::min(seen, static_cast<size_t>(kHttpWindow - 1)));
        if (reply.empty() || reply[0] == '\0') {
            Succeed("reply begins with a zero byte: read as a silent close");
        } else {
            int status = HttpStatus(reply);
            char why[64];
            std::snprintf(why, sizeof why, "status %d", status);
            switch (status) {
                case 200: Succeed(why); break;
                case 404: Refuse(why, kNotFound); break;
                case 407: Refuse(why, kAuthRequired); break;
                default: Refuse(why, kRefused); break;
            }
        }
        ToHost(bytes.substr(seen));
    }

    void EndOfStream() override {
        if (Done()) return;
        if (blocking_ || eofReads_) {
            Succeed("silent close: the peek sees nothing, and that counts as success");
        } else {
            Stop(Stall::kNoEvent, "end-of-stream raises FD_CLOSE, which changes no state");
        }
    }

    void Silence() override {
        if (Done()) return;
        Stop(blocking_ ? Stall::kBlocked : Stall::kNoEvent, blocking_ ? "the peek waits in recv" : "no byte, no FD_READ");
    }

private:
    void Refuse(const char* why, unsigned code) {
        p_.connectError = code;
        Fail(why, -1, kLeft, code);
    }
};

class Script {
public:
    void Read(size_t n) { Step("read=" + std::to_string(n)); }
    void Pause(int ms) {
        if (ms <= 0) return;
        Step("sleep=" + std::to_string(ms));
        ms_ += ms;
    }
    void Send(const Bytes& bytes) {
        if (!bytes.empty()) Step("send=" + Hex(bytes));
    }
    void Step(const std::string& step) {
        if (!text_.empty()) text_ += ' ';
        text_ += step;
    }
    const std::string& Text() const { return text_; }
    int Ms() const { return ms_; }

private:
    std::string text_;
    int ms_ = 0;
};

const Answer* AnswerTo(const Case& c, Message m) {
    for (const Answer& a : c.answers) {
        if (a.to == m) return &a;
    }
    return nullptr;
}

Message KindOf(const Case& c, const Bytes& message) {
    switch (c.family) {
        case Family::kSocks4: return Message::kSocks4Request;
        case Family::kHttp: return Message::kHttpRequest;
        case Family::kSocks5: break;
    }
    if (message[0] == 5 && message.size() <= 4) return Message::kMethodSelect;
    if (message[0] == 1) return Message::kPasswordRequest;
    return Message::kConnectRequest;
}

// The exchange: the proxy reads each message of the client, answers it with the case's segments,
// and ends as the case says once the client has nothing more to say.
Prediction Play(const Case& c, bool eofReads) {
    Socks4Client socks4(c, eofReads);
    Socks5Client socks5(c, eofReads);
    HttpClient http(c, eofReads);
    Client& client = c.family == Family::kSocks4 ? static_cast<Client&>(socks4)
                     : c.family == Family::kSocks5 ? static_cast<Client&>(socks5)
                                                   : static_cast<Client&>(http);
    Script script;
    bool first = true;
    client.Start();
    while (!client.Outbox().empty()) {
        Bytes message = client.Outbox().front();
        client.Outbox().pop_front();
        script.Read(message.size());
        const Answer* answer = AnswerTo(c, KindOf(c, message));
        if (answer == nullptr) continue;
        for (const Chunk& chunk : answer->chunks) {
            if (chunk.bytes.empty()) continue;
            script.Pause(first ? chunk.gapMs : std::max(chunk.gapMs, kGapMs));
            first = false;
            script.Send(chunk.bytes);
            client.Arrive(chunk.bytes);
        }
    }
    script.Pause(kGapMs);
    if (c.ending == Ending::kFin) {
        script.Step("fin=30000");
        client.EndOfStream();
    } else {
        script.Step("drain=30000");
        client.Silence();
    }
    Prediction p = client.Result();
    p.script = script.Text();
    p.scriptMs = script.Ms();
    p.checkHostData = p.outcome == Outcome::kSuccess && c.ending == Ending::kFin;
    if (c.mode == Mode::kNonBlocking) {
        // ConnectEx only starts the handshake.
        p.result = 0;
        p.code = 0;
        p.lastError = kLeft;
        // HTTP stops the events in its failed state; SOCKS runs a step in state 9, which selects FD_READ again.
        p.eventLoop = c.family != Family::kHttp && p.outcome == Outcome::kFailure && !client.Unread().empty();
    }
    return p;
}

bool SameOutcome(const Prediction& a, const Prediction& b) {
    return a.outcome == b.outcome && a.stall == b.stall && a.posted == b.posted && a.canceled == b.canceled &&
           a.connectError == b.connectError && a.sent == b.sent && a.hostData == b.hostData && a.eventLoop == b.eventLoop;
}

}  // namespace

int NonBlockingBoundMs(const Prediction& p) {
    if (p.outcome != Outcome::kNone) return p.scriptMs + p.retryTries * kTryBoundMs + 2500;
    return p.scriptMs + p.quietTries * kTryBoundMs + 1500;
}

Prediction Predict(const Case& c) {
    Prediction p = Play(c, false);
    if (c.mode == Mode::kNonBlocking && c.ending == Ending::kFin) {
        Prediction eofRead = Play(c, true);
        if (!SameOutcome(p, eofRead)) p.also.push_back(eofRead);
    }
    return p;
}

// ---- The client's messages ----

Bytes Socks4Request(const Case& c) {
    uint8_t address[4] = {};
    ParseDottedQuad(c.host, address);
    Bytes request{4, 1};
    request += PortBytes(c.port);
    request.append(reinterpret_cast<const char*>(address), 4);
    request += c.user;
    request += '\0';
    return request;
}

Bytes MethodSelect(const Case& c) {
    if (c.user.empty()) return Bytes{5, 1, 0};
    return Bytes{5, 2, 2, 0};
}

Bytes PasswordRequest(const Case& c) {
    Bytes request{1, static_cast<char>(c.user.size() & 0xff)};
    request += c.user;
    request += static_cast<char>(c.password.size() & 0xff);
    request += c.password;
    return request;
}

Bytes Socks5Request(const Case& c) {
    uint8_t address[4] = {};
    Bytes request{5, 1, 0};
    if (ParseDottedQuad(c.host, address) && (address[0] | address[1] | address[2] | address[3]) != 0) {
        request += '\1';
        request.append(reinterpret_cast<const char*>(address), 4);
    } else {
        // A name that doesn't resolve here goes to the proxy.
        request += '\3';
        request += static_cast<char>(c.host.size() & 0xff);
        request += c.host;
    }
    return request + PortBytes(c.port);
}

Bytes Base64(const Bytes& text) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    Bytes out;
    for (size_t i = 0; i < text.size(); i += 3) {
        uint32_t group = At(text, i) << 16;
        if (i + 1 < text.size()) group |= At(text, i + 1) << 8;
        if (i + 2 < text.size()) group |= At(text, i + 2);
        out += kAlphabet[(group >> 18) & 63];
        out += kAlphabet[(group >> 12) & 63];
        out += i + 1 < text.size() ? kAlphabet[(group >> 6) & 63] : '=';
        out += i + 2 < text.size() ? kAlphabet[group & 63] : '=';
    }
    return out;
}

Bytes HttpRequest(const Case& c) {
    std::string target = c.host + ":" + std::to_string(c.port);
    Bytes request = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (c.authenticate) {
        // Without a password the user name stands alone, with no colon.
        Bytes credentials = Base64(c.password.empty() ? c.user : c.user + ":" + c.password);
        request += "Proxy-Authorization: basic ";
        if (!credentials.empty()) request += credentials + "\r\n";
    }
    return request + "\r\n";
}

std::string Hex(const Bytes& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char b : bytes) {
        hex += kDigits[b >> 4];
        hex += kDigits[b & 15];
    }
    return hex;
}

}  // namespace hostile
