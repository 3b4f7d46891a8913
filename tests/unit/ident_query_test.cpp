// The ident responder's reading of queries and writing of answers, without a network.
#include "ident_query.h"

#include <gtest/gtest.h>

#include <string>

namespace {

IdentQuery Parse(const std::string& line) { return ParseIdentQuery(line.data(), line.size()); }

std::string Answer(const std::string& line, IdentityLookupResult found, const char* name = "") {
    char out[kIdentAnswerSize];
    IdentQuery query = Parse(line);
    size_t length = ComposeIdentAnswer(query, found, name, out, sizeof out);
    EXPECT_EQ(length, std::string(out).size());
    return out;
}

TEST(IdentQueryTest, TwoPortsWithBlanksAroundThem) {
    struct Row {
        const char* line;
        uint32_t local;
        uint32_t remote;
    };
    for (Row row : {Row{"6191,23", 6191, 23}, Row{"6191 , 23", 6191, 23}, Row{" \t1 ,\t65535 ", 1, 65535},
                    Row{"00080,00113", 80, 113}}) {
        IdentQuery query = Parse(row.line);
        EXPECT_TRUE(query.valid) << row.line;
        EXPECT_EQ(query.localPort, row.local) << row.line;
        EXPECT_EQ(query.remotePort, row.remote) << row.line;
    }
}

TEST(IdentQueryTest, OutOfRangePortsAreInvalidButKeepTheirNumbers) {
    for (const char* line : {"0 , 23", "23 , 0", "65536 , 23", "23 , 99999"}) {
        IdentQuery query = Parse(line);
        EXPECT_FALSE(query.valid) << line;
        EXPECT_NE(query.localPort + query.remotePort, 0u) << line;
    }
    EXPECT_EQ(Answer("70000 , 80", IdentityLookupResult::kFound, "alice"), "70000 , 80 : ERROR : INVALID-PORT\r\n");
}

TEST(IdentQueryTest, MalformedAndNonNumericQueriesReadAsPortsZero) {
    for (const char* line : {"", " ", "abc", "12", "12,", ",12", "12 34", "12,34,56", "12 , x", "-1 , 5", "+1 , 5",
                             "123456 , 1", "1 , 123456", "1 , 2 junk", "0x10 , 5"}) {
        IdentQuery query = Parse(line);
        EXPECT_FALSE(query.valid) << line;
        EXPECT_EQ(query.localPort, 0u) << line;
        EXPECT_EQ(query.remotePort, 0u) << line;
    }
    EXPECT_FALSE(ParseIdentQuery("1\0, 2", 5).valid);
    EXPECT_EQ(Answer("what?", IdentityLookupResult::kFound, "alice"), "0 , 0 : ERROR : INVALID-PORT\r\n");
}

TEST(IdentQueryTest, AnswersForEachOutcome) {
    EXPECT_EQ(Answer("1234 , 1080", IdentityLookupResult::kFound, "alice"), "1234 , 1080 : USERID : WIN32 : alice\r\n");
    EXPECT_EQ(Answer("1234 , 1080", IdentityLookupResult::kFound, ""), "1234 , 1080 : ERROR : HIDDEN-USER\r\n");
    EXPECT_EQ(Answer("1234 , 1080", IdentityLookupResult::kNotFound), "1234 , 1080 : ERROR : NO-USER\r\n");
    EXPECT_EQ(Answer("1234 , 1080", IdentityLookupResult::kRefused), "1234 , 1080 : ERROR : UNKNOWN-ERROR\r\n");
}

TEST(IdentQueryTest, ANameIsCutAtThirtyCharactersAndControlCharactersAreMasked) {
    std::string name(45, 'k');
    EXPECT_EQ(Answer("1 , 2", IdentityLookupResult::kFound, name.c_str()),
              "1 , 2 : USERID : WIN32 : " + std::string(30, 'k') + "\r\n");
    EXPECT_EQ(Answer("1 , 2", IdentityLookupResult::kFound, "a\r\nb"), "1 , 2 : USERID : WIN32 : a??b\r\n");
}

TEST(IdentQueryTest, TheLongestAnswerFits) {
    std::string name(30, 'w');
    std::string answer = Answer("65535 , 65535", IdentityLookupResult::kFound, name.c_str());
    EXPECT_EQ(answer, "65535 , 65535 : USERID : WIN32 : " + name + "\r\n");
    char small[12];
    EXPECT_EQ(ComposeIdentAnswer(Parse("1 , 2"), IdentityLookupResult::kNotFound, "", small, sizeof small), 11u);
    EXPECT_EQ(std::string(small), "1 , 2 : ERR");
}

TEST(IdentLineReaderTest, LinesEndInLineFeedWithTheCarriageReturnDropped) {
    IdentLineReader reader;
    std::string input = "12 , 34\r\n56,78\nrest";
    size_t at = 0;
    size_t used = 0;
    ASSERT_EQ(reader.Take(input.data(), input.size(), &used), IdentLineReader::Result::kLine);
    EXPECT_EQ(std::string(reader.Line(), reader.Length()), "12 , 34");
    at += used;
    ASSERT_EQ(reader.Take(input.data() + at, input.size() - at, &used), IdentLineReader::Result::kLine);
    EXPECT_EQ(std::string(reader.Line(), reader.Length()), "56,78");
    at += used;
    EXPECT_EQ(reader.Take(input.data() + at, input.size() - at, &used), IdentLineReader::Result::kNeedMore);
    EXPECT_EQ(used, 4u);
    ASSERT_EQ(reader.Take("\n", 1, &used), IdentLineReader::Result::kLine);
    EXPECT_EQ(std::string(reader.Line(), reader.Length()), "rest");
}

TEST(IdentLineReaderTest, ALineInPiecesComesTogether) {
    IdentLineReader reader;
    size_t used = 0;
    for (char c : std::string("9 , 1\r")) ASSERT_EQ(reader.Take(&c, 1, &used), IdentLineReader::Result::kNeedMore);
    ASSERT_EQ(reader.Take("\n", 1, &used), IdentLineReader::Result::kLine);
    EXPECT_EQ(std::string(reader.Line(), reader.Length()), "9 , 1");
}

TEST(IdentLineReaderTest, AThousandBytesWithTheirEndIsTheLongestLine) {
    IdentLineReader reader;
    size_t used = 0;
    std::string longest(999, ' ');
    longest += '\n';
    ASSERT_EQ(reader.Take(longest.data(), longest.size(), &used), IdentLineReader::Result::kLine);
    EXPECT_EQ(reader.Length(), 999u);
    std::string over(1000, ' ');
    EXPECT_EQ(reader.Take(over.data(), over.size(), &used), IdentLineReader::Result::kTooLong);
    IdentLineReader endless;
    std::string chunk(300, '7');
    IdentLineReader::Result result = IdentLineReader::Result::kNeedMore;
    for (int i = 0; i < 10 && result == IdentLineReader::Result::kNeedMore; ++i) {
        result = endless.Take(chunk.data(), chunk.size(), &used);
    }
    EXPECT_EQ(result, IdentLineReader::Result::kTooLong);
}

}  // namespace
