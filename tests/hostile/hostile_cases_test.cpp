// The predictor against rows of the failure tables, written out by hand, and the generator's
// coverage: if either went wrong, the hostile-proxy run would check the library against nonsense.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "bench.h"
#include "hostile_cases.h"

namespace {

using namespace hostile;

Bytes B(const std::string& hex) { return dxtest::Unhex(hex); }

// One answer in segments, each given as hex.
Answer To(Message m, std::vector<std::string> hexChunks) {
    Answer a{m, {}};
    for (const std::string& hex : hexChunks) a.chunks.push_back(Chunk{0, B(hex)});
    return a;
}

Answer ToText(Message m, const std::string& text) { return Answer{m, {Chunk{0, text}}}; }

Case Make(Family family, Mode mode, Ending ending, std::vector<Answer> answers) {
    Case c;
    c.family = family;
    c.mode = mode;
    c.ending = ending;
    c.host = "127.0.0.1";
    c.port = 80;
    c.answers = std::move(answers);
    return c;
}

constexpr Mode kBlocking = Mode::kBlocking;
constexpr Mode kNonBlocking = Mode::kNonBlocking;
constexpr Ending kFin = Ending::kFin;
constexpr Ending kHold = Ending::kHold;

// ---- SOCKS 4 ----

Case Socks4(Mode mode, Ending ending, std::vector<std::string> chunks) {
    return Make(Family::kSocks4, mode, ending, {To(Message::kSocks4Request, std::move(chunks))});
}

TEST(HostilePrediction, Socks4ReplyCodeDecides) {
    Prediction granted = Predict(Socks4(kBlocking, kHold, {"005a000000000000"}));
    EXPECT_EQ(granted.outcome, Outcome::kSuccess);
    EXPECT_EQ(granted.result, 0);
    // Byte 0 is not looked at, byte 1 is.
    Prediction refused = Predict(Socks4(kBlocking, kHold, {"5a5b000000000000"}));
    EXPECT_EQ(refused.outcome, Outcome::kFailure);
    EXPECT_EQ(refused.result, -1);
    EXPECT_EQ(refused.code, 10061);
    EXPECT_EQ(refused.lastError, 10061);
    EXPECT_EQ(Predict(Socks4(kNonBlocking, kHold, {"005c000000000000"})).posted, 10061u);
    // The request: version, command, port, address, user id and its terminator.
    Case named = Socks4(kBlocking, kHold, {"005a000000000000"});
    named.user = "bob";
    EXPECT_EQ(Hex(Predict(named).sent.at(0)), "04010050" "7f000001" "626f6200");
}

TEST(HostilePrediction, Socks4ShortReply) {
    EXPECT_EQ(Predict(Socks4(kBlocking, kFin, {"005a00"})).stall, Stall::kSpins);
    EXPECT_EQ(Predict(Socks4(kBlocking, kHold, {"005a00"})).stall, Stall::kBlocked);
    EXPECT_EQ(Predict(Socks4(kNonBlocking, kFin, {"005a00"})).stall, Stall::kHiddenThreadSpins);
    Prediction lost = Predict(Socks4(kNonBlocking, kHold, {"005a00"}));
    EXPECT_EQ(lost.stall, Stall::kReadLost);
    EXPECT_EQ(lost.quietTries, 200);  // the read, and the step FD_READ armed again
    EXPECT_EQ(Predict(Socks4(kNonBlocking, kFin, {})).stall, Stall::kNoEvent);
    EXPECT_EQ(Predict(Socks4(kBlocking, kFin, {})).stall, Stall::kSpins);
}

TEST(HostilePrediction, Socks4SegmentsAndTheReadWindow) {
    EXPECT_EQ(Predict(Socks4(kBlocking, kHold, {"005a", "000000", "000000"})).outcome, Outcome::kSuccess);
    EXPECT_EQ(Predict(Socks4(kNonBlocking, kHold, {"00", "5b000000000000"})).posted, 10061u);
    // A read takes up to 64 bytes: the rest of an over-long reply is the host's.
    Bytes reply = B("005a000000000000") + Bytes(92, 'x');
    Case longReply = Make(Family::kSocks4, kBlocking, kFin, {Answer{Message::kSocks4Request, {Chunk{0, reply}}}});
    Prediction p = Predict(longReply);
    EXPECT_EQ(p.outcome, Outcome::kSuccess);
    EXPECT_TRUE(p.checkHostData);
    EXPECT_EQ(p.hostData, Bytes(36, 'x'));
    // After a non-blocking refusal the unread bytes keep FD_READ coming.
    Case refusedLong = longReply;
    refusedLong.mode = kNonBlocking;
    refusedLong.answers[0].chunks[0].bytes[1] = 91;
    EXPECT_TRUE(Predict(refusedLong).eventLoop);
    EXPECT_FALSE(Predict(Socks4(kNonBlocking, kHold, {"005b000000000000"})).eventLoop);
}

// ---- SOCKS 5 ----

Case Socks5(Mode mode, Ending ending, std::vector<std::string> method, std::vector<std::string> status,
            std::vector<std::string> reply) {
    return Make(Family::kSocks5, mode, ending,
                {To(Message::kMethodSelect, std::move(method)), To(Message::kPasswordRequest, std::move(status)),
                 To(Message::kConnectRequest, std::move(reply))});
}

const char kGranted5[] = "05000001000000000000";

TEST(HostilePrediction, Socks5Methods) {
    Prediction plain = Predict(Socks5(kBlocking, kHold, {"0500"}, {}, {kGranted5}));
    EXPECT_EQ(plain.outcome, Outcome::kSuccess);
    ASSERT_EQ(plain.sent.size(), 2u);
    EXPECT_EQ(Hex(plain.sent[0]), "050100");
    EXPECT_EQ(Hex(plain.sent[1]), "050100017f0000010050");

    Prediction refused = Predict(Socks5(kBlocking, kHold, {"05ff"}, {}, {}));
    EXPECT_EQ(refused.outcome, Outcome::kFailure);
    EXPECT_EQ(refused.code, -1);  // a version 5 failure reports -1, and the WinSock error stays
    EXPECT_EQ(refused.lastError, kLeft);
    EXPECT_EQ(Predict(Socks5(kNonBlocking, kHold, {"0501"}, {}, {})).posted, 10061u);

    Case declined = Socks5(kNonBlocking, kHold, {"0502"}, {}, {});
    declined.user = "alice";
    declined.passwordGiven = false;
    Prediction cancel = Predict(declined);
    EXPECT_EQ(cancel.posted, 65534u);  // the cancel is posted first
    EXPECT_EQ(cancel.canceled, 1);
    EXPECT_EQ(cancel.asked, 1);
    EXPECT_EQ(Hex(cancel.sent.at(0)), "05020200");

    Case given = Socks5(kBlocking, kHold, {"0502"}, {"0100"}, {kGranted5});
    given.user = "alice";
    given.password = "x";
    Prediction p = Predict(given);
    EXPECT_EQ(p.outcome, Outcome::kSuccess);
    EXPECT_EQ(Hex(p.sent.at(1)), "0105616c69636501" "78");
}

TEST(HostilePrediction, Socks5EndOfStreamLetsTheOldStatusByteDecide) {
    EXPECT_EQ(Predict(Socks5(kBlocking, kFin, {"0500"}, {}, {})).outcome, Outcome::kSuccess);
    EXPECT_EQ(Predict(Socks5(kNonBlocking, kFin, {"0500"}, {}, {})).outcome, Outcome::kSuccess);
    // In the method state nothing is 5: a blocking connect loops, a non-blocking one waits.
    EXPECT_EQ(Predict(Socks5(kBlocking, kFin, {}, {}, {})).stall, Stall::kSpins);
    EXPECT_EQ(Predict(Socks5(kBlocking, kFin, {"0400"}, {}, {})).stall, Stall::kSpins);
    EXPECT_EQ(Predict(Socks5(kNonBlocking, kFin, {"0400"}, {}, {})).stall, Stall::kNoEvent);
    // The password state sends the request on end-of-stream; non-blocking, no event follows.
    Case status = Socks5(kNonBlocking, kFin, {"0502"}, {}, {});
    status.user = "u";
    Prediction p = Predict(status);
    EXPECT_EQ(p.stall, Stall::kNoEvent);
    EXPECT_EQ(p.sent.size(), 3u);
    status.mode = kBlocking;
    EXPECT_EQ(Predict(status).outcome, Outcome::kSuccess);
}

TEST(HostilePrediction, Socks5SilenceAndShortReplies) {
    EXPECT_EQ(Predict(Socks5(kBlocking, kHold, {"0500"}, {}, {})).stall, Stall::kBlocked);
    Prediction timedOut = Predict(Socks5(kNonBlocking, kHold, {"0500"}, {}, {}));
    EXPECT_EQ(timedOut.posted, 10061u);
    EXPECT_EQ(timedOut.retryTries, 300);
    EXPECT_EQ(Predict(Socks5(kBlocking, kHold, {"0500"}, {}, {"050000"})).stall, Stall::kBlocked);
    Prediction shortGrant = Predict(Socks5(kNonBlocking, kHold, {"0500"}, {}, {"050000"}));
    EXPECT_EQ(shortGrant.outcome, Outcome::kSuccess);
    EXPECT_EQ(shortGrant.retryTries, 100);
    EXPECT_EQ(Predict(Socks5(kNonBlocking, kFin, {"0500"}, {}, {"050000"})).stall, Stall::kHiddenThreadSpins);
    EXPECT_EQ(Predict(Socks5(kBlocking, kHold, {"0500"}, {}, {"055b000100000000000000"})).outcome, Outcome::kFailure);
}

TEST(HostilePrediction, Socks5SegmentsMeetTheOldBuffer) {
    // "05" alone: byte 1 is still 0, so method 0; the "00" then heads the connect reply's read, and
    // byte 1 of that read is the reply's version, 5.
    Prediction p = Predict(Socks5(kBlocking, kHold, {"05", "00"}, {}, {kGranted5}));
    EXPECT_EQ(p.outcome, Outcome::kFailure);
    // A reply that doesn't begin with 5 is dropped, and the next one is taken.
    EXPECT_EQ(Predict(Socks5(kBlocking, kHold, {"0400", "0500"}, {}, {kGranted5})).outcome, Outcome::kSuccess);
    // Beyond 64 bytes the method reply's rest is the connect reply: a granted one that is short.
    Bytes method = B("0500") + Bytes(62, 'y') + B("0500");
    Case overLong = Make(Family::kSocks5, kBlocking, kHold, {Answer{Message::kMethodSelect, {Chunk{0, method}}}});
    EXPECT_EQ(Predict(overLong).stall, Stall::kBlocked);
    overLong.mode = kNonBlocking;
    EXPECT_EQ(Predict(overLong).outcome, Outcome::kSuccess);
    overLong.answers[0].chunks[0].bytes.back() = 0x5b;
    EXPECT_EQ(Predict(overLong).posted, 10061u);
}

// ---- HTTP ----

Case Http(Mode mode, Ending ending, const std::string& reply) {
    return Make(Family::kHttp, mode, ending, {ToText(Message::kHttpRequest, reply)});
}

TEST(HostilePrediction, HttpStatusLine) {
    EXPECT_EQ(Predict(Http(kBlocking, kHold, "HTTP/1.0 200 OK\r\n\r\n")).outcome, Outcome::kSuccess);
    EXPECT_EQ(Predict(Http(kBlocking, kHold, "X 200")).outcome, Outcome::kSuccess);
    // Beyond the range of int: saturated, no known status; wrapped, it would read as 200.
    Prediction huge = Predict(Http(kBlocking, kHold, "HTTP/1.1 4294967496 OK\r\n\r\n"));
    EXPECT_EQ(huge.outcome, Outcome::kFailure);
    EXPECT_EQ(huge.connectError, 10061u);
    Prediction noBlank = Predict(Http(kBlocking, kHold, "HTTP/1.1-200-OK\r\n\r\n"));
    EXPECT_EQ(noBlank.outcome, Outcome::kFailure);
    EXPECT_EQ(noBlank.connectError, 10061u);
    EXPECT_EQ(noBlank.code, -1);
    EXPECT_EQ(Predict(Http(kBlocking, kHold, "HTTP/1.1 201 Created\r\n\r\n")).connectError, 10061u);
    EXPECT_EQ(Predict(Http(kBlocking, kHold, "HTTP/1.1 404 Not Found\r\n\r\n")).connectError, 65532u);
    EXPECT_EQ(Predict(Http(kNonBlocking, kHold, "HTTP/1.1 407 Auth\r\n\r\n")).posted, 65533u);
    // The 1024th byte gives way to the terminator: "20" is left.
    EXPECT_EQ(Predict(Http(kBlocking, kHold, std::string(1020, 'X') + " 200")).connectError, 10061u);
    // A zero first byte reads as a silent close.
    EXPECT_EQ(Predict(Http(kBlocking, kHold, std::string("\0HTTP/1.1 500 x\r\n\r\n", 19))).outcome, Outcome::kSuccess);
}

TEST(HostilePrediction, HttpSilenceAndEndOfStream) {
    EXPECT_EQ(Predict(Make(Family::kHttp, kBlocking, kFin, {})).outcome, Outcome::kSuccess);
    EXPECT_EQ(Predict(Make(Family::kHttp, kNonBlocking, kFin, {})).stall, Stall::kNoEvent);
    EXPECT_EQ(Predict(Make(Family::kHttp, kBlocking, kHold, {})).stall, Stall::kBlocked);
    // The first segment is the whole judgement; the rest is the host's.
    Case split = Make(Family::kHttp, kBlocking, kFin,
                      {Answer{Message::kHttpRequest, {Chunk{0, "HTTP/1.1 200 OK\r\n"}, Chunk{0, "Via: x\r\n\r\n"}}}});
    Prediction p = Predict(split);
    EXPECT_EQ(p.outcome, Outcome::kSuccess);
    EXPECT_EQ(p.hostData, "Via: x\r\n\r\n");
}

TEST(HostilePrediction, HttpRequestBytes) {
    Case plain = Http(kBlocking, kHold, "HTTP/1.1 200 OK\r\n\r\n");
    plain.host = "example.invalid";
    plain.port = 443;
    EXPECT_EQ(Predict(plain).sent.at(0),
              "CONNECT example.invalid:443 HTTP/1.1\r\nHost: example.invalid:443\r\n\r\n");
    Case basic = plain;
    basic.authenticate = true;
    basic.user = "alice";
    basic.password = "x";
    EXPECT_EQ(Predict(basic).sent.at(0), "CONNECT example.invalid:443 HTTP/1.1\r\nHost: example.invalid:443\r\n"
                                         "Proxy-Authorization: basic YWxpY2U6eA==\r\n\r\n");
    // Both empty: the credential text is empty, and no blank line ends the request.
    basic.user.clear();
    basic.password.clear();
    EXPECT_EQ(Predict(basic).sent.at(0), "CONNECT example.invalid:443 HTTP/1.1\r\nHost: example.invalid:443\r\n"
                                         "Proxy-Authorization: basic \r\n");
    basic.passwordGiven = false;
    Prediction declined = Predict(basic);
    EXPECT_TRUE(declined.sent.empty());
    EXPECT_EQ(declined.lastError, 65534);
    EXPECT_EQ(declined.canceled, 1);
}

// ---- The generator ----

TEST(HostileGeneration, SameSeedSameCases) {
    for (Family f : {Family::kSocks4, Family::kSocks5, Family::kHttp}) {
        for (int i : {0, 7, 99, 209}) {
            EXPECT_EQ(Predict(GenerateCase(f, 42, i)).script, Predict(GenerateCase(f, 42, i)).script);
            EXPECT_EQ(Describe(GenerateCase(f, 42, i)), Describe(GenerateCase(f, 42, i)));
        }
        EXPECT_NE(Predict(GenerateCase(f, 42, 150)).script, Predict(GenerateCase(f, 43, 150)).script);
    }
}

TEST(HostileGeneration, EveryFamilyCoversEveryOffsetAndEveryClass) {
    for (Family f : {Family::kSocks4, Family::kSocks5, Family::kHttp}) {
        SCOPED_TRACE(FamilyName(f));
        std::vector<Case> cases = GenerateCases(f, 20240611, 210);
        std::set<std::string> kinds, classes;
        int askedGiven = 0, askedDeclined = 0;
        for (const Case& c : cases) {
            Prediction p = Predict(c);
            kinds.insert(c.kind + (c.ending == Ending::kFin ? " fin" : " hold"));
            classes.insert(std::string(c.mode == Mode::kBlocking ? "b" : "n") + std::to_string(static_cast<int>(p.outcome)));
            EXPECT_NE(p.stall, Stall::kHiddenThreadSpins) << Describe(c);
            if (p.asked > 0) (c.passwordGiven ? askedGiven : askedDeclined)++;
        }
        // A close and a silence before every byte of a valid handshake, and after the last.
        int offsets = f == Family::kSocks4 ? 8 : f == Family::kSocks5 ? 12 : 19;
        for (int k = 0; k <= offsets; ++k) {
            std::string name = "offset " + std::to_string(k) + "/" + std::to_string(offsets);
            EXPECT_TRUE(kinds.count(name + " fin") && kinds.count(name + " hold")) << name;
        }
        // Success, failure and no outcome, blocking and non-blocking.
        EXPECT_EQ(classes.size(), 6u);
        if (f != Family::kSocks4) {
            EXPECT_GT(askedGiven, 0);
            EXPECT_GT(askedDeclined, 0);
        }
    }
}

}  // namespace
