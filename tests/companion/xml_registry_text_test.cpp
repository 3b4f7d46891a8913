// The in-memory registry's text: what each form of value becomes in bytes and type, what the writer
// makes of any bytes, and the texts that fail. Portable: built natively under the sanitizers.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "xml_registry_model.h"
#include "xml_registry_text.h"

namespace {

using namespace xmlreg;

int32_t Read(const std::string& text, Registry& registry) { return ReadText(text.data(), text.size(), registry); }

// A registry read from `text`, which must be good.
std::unique_ptr<Registry> Parsed(const std::string& text) {
    auto registry = std::make_unique<Registry>();
    EXPECT_EQ(Read(text, *registry), kOk) << text;
    return registry;
}

std::string Wrapped(const std::string& values) {
    return "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"k\">" + values + "</Key></Key></Registry>";
}

// Type and bytes of value `name` of HKEY_CURRENT_USER\k, as a registry query gives them.
struct Queried {
    int32_t code;
    uint32_t type;
    std::string bytes;
};
Queried Query(Registry& registry, const char* name) {
    Queried result{kOk, 0, ""};
    Handle key = 0;
    result.code = registry.OpenKey(kCurrentUser, "k", 0x20019, &key);
    if (result.code != kOk) return result;
    uint32_t size = 0;
    result.code = registry.QueryValue(key, name, false, &result.type, nullptr, &size);
    if (result.code == kOk) {
        std::vector<uint8_t> data(size + 1);
        result.code = registry.QueryValue(key, name, false, nullptr, data.data(), &size);
        result.bytes.assign(data.begin(), data.begin() + size);
    }
    registry.CloseKey(key);
    return result;
}

void ExpectRoundTrip(const Registry& registry) {
    std::string text = WriteText(registry);
    Registry again;
    ASSERT_EQ(Read(text, again), kOk) << text;
    EXPECT_TRUE(SameContent(registry, again)) << text;
    EXPECT_EQ(WriteText(again), text);
}

TEST(XmlRegistryTextTest, EachTypeGivesItsBytes) {
    auto registry = Parsed(Wrapped(
        "<Value name=\"Count\" type=\"REG_DWORD\" data=\"2\"/>"
        "<Value name=\"Big\" type=\"REG_DWORD\" data=\"4294967295\"/>"
        "<Value name=\"Hex\" type=\"REG_DWORD\" data=\"0x01020304\"/>"
        "<Value name=\"Text\" type=\"REG_SZ\" data=\"proxy.example\"/>"
        "<Value name=\"Empty\" type=\"REG_SZ\" data=\"\"/>"
        "<Value name=\"Path\" type=\"REG_EXPAND_SZ\" data=\"%TEMP%\\x\"/>"
        "<Value name=\"List\" type=\"REG_MULTI_SZ\"><String>a</String><String> b </String></Value>"
        "<Value name=\"None\" type=\"REG_MULTI_SZ\"/>"
        "<Value name=\"Blob\" type=\"REG_BINARY\" data=\"00ff 1A\"/>"
        "<Value name=\"Numbered\" type=\"11\" hex=\"0102030405060708\"/>"
        "<Value name=\"Raw\" type=\"REG_SZ\" hex=\"4142\"/>"));
    struct Case {
        const char* name;
        uint32_t type;
        std::string bytes;
    };
    const Case cases[] = {
        {"Count", kTypeDword, std::string("\x02\0\0\0", 4)},
        {"Big", kTypeDword, "\xff\xff\xff\xff"},
        {"Hex", kTypeDword, "\x04\x03\x02\x01"},
        {"Text", kTypeString, std::string("proxy.example\0", 14)},
        {"Empty", kTypeString, std::string("\0", 1)},
        {"Path", kTypeExpandString, std::string("%TEMP%\\x\0", 9)},
        {"List", kTypeMultiString, std::string("a\0 b \0\0", 7)},
        {"None", kTypeMultiString, std::string("\0", 1)},
        {"Blob", kTypeBinary, std::string("\x00\xff\x1a", 3)},
        {"Numbered", 11, "\x01\x02\x03\x04\x05\x06\x07\x08"},
        {"Raw", kTypeString, "AB"},
    };
    for (const Case& c : cases) {
        Queried q = Query(*registry, c.name);
        EXPECT_EQ(q.code, kOk) << c.name;
        EXPECT_EQ(q.type, c.type) << c.name;
        EXPECT_EQ(q.bytes, std::string(c.bytes.data(), c.bytes.size())) << c.name;
    }
    ExpectRoundTrip(*registry);
}

TEST(XmlRegistryTextTest, ReferencesStandForOneByteEach) {
    auto registry = Parsed(Wrapped(
        "<Value name=\"a&amp;b&lt;c&gt;d&quot;e&apos;f\" type=\"REG_SZ\" data=\"&#65;&#x42;&#xe9;&#1;&amp;amp;\"/>"
        "<Value name='single \"quoted\"' type='REG_SZ' data='x'/>"));
    Queried q = Query(*registry, "a&b<c>d\"e'f");
    EXPECT_EQ(q.code, kOk);
    EXPECT_EQ(q.bytes, std::string("AB\xe9\x01&amp;\0", 10));
    EXPECT_EQ(Query(*registry, "single \"quoted\"").code, kOk);
}

TEST(XmlRegistryTextTest, EveryByteOfANameOrTextSurvivesTheWriterAndTheReader) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) all += static_cast<char>(byte);
    Registry registry;
    Handle key = 0;
    std::string keyName = all;
    keyName.erase(keyName.find('\\'), 1);  // a key name has no separator
    ASSERT_EQ(registry.CreateKey(kCurrentUser, keyName.substr(0, kMaxKeyName).c_str(), all.c_str(), 0xF003F, &key,
                                 nullptr),
              kOk);
    std::string text = all + '\0';
    ASSERT_EQ(registry.SetValue(key, all.c_str(), kTypeString, reinterpret_cast<const uint8_t*>(text.data()),
                                static_cast<uint32_t>(text.size())),
              kOk);
    std::string list = all + '\0' + all + '\0' + '\0';
    ASSERT_EQ(registry.SetValue(key, "list", kTypeMultiString, reinterpret_cast<const uint8_t*>(list.data()),
                                static_cast<uint32_t>(list.size())),
              kOk);
    std::string written = WriteText(registry);
    // Written in the types' own forms: no byte needed the raw form.
    EXPECT_EQ(written.find("hex="), std::string::npos);
    ExpectRoundTrip(registry);
}

TEST(XmlRegistryTextTest, BytesThatATypesFormCannotCarryGoAsHex) {
    Registry registry;
    Handle key = 0;
    ASSERT_EQ(registry.CreateKey(kCurrentUser, "k", nullptr, 0xF003F, &key, nullptr), kOk);
    struct Case {
        const char* name;
        uint32_t type;
        std::string bytes;
    };
    const Case cases[] = {
        {"no terminator", kTypeString, "abc"},
        {"inner terminator", kTypeString, std::string("a\0b\0", 4)},
        {"empty text", kTypeExpandString, ""},
        {"short word", kTypeDword, "\x01\x02\x03"},
        {"long word", kTypeDword, "\x01\x02\x03\x04\x05"},
        {"empty string in list", kTypeMultiString, std::string("a\0\0b\0\0", 6)},
        {"list without end", kTypeMultiString, std::string("a\0", 2)},
        {"empty list", kTypeMultiString, ""},
        {"none", kTypeNone, "xyz"},
        {"qword", 11, std::string("\0\0\0\0\0\0\0\x80", 8)},
        {"largest type", 0xFFFFFFFFu, ""},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(registry.SetValue(key, c.name, c.type, reinterpret_cast<const uint8_t*>(c.bytes.data()),
                                    static_cast<uint32_t>(c.bytes.size())),
                  kOk);
    }
    std::string text = WriteText(registry);
    EXPECT_NE(text.find("<Value name=\"short word\" type=\"REG_DWORD\" hex=\"010203\"/>"), std::string::npos) << text;
    EXPECT_NE(text.find("<Value name=\"largest type\" type=\"4294967295\" hex=\"\"/>"), std::string::npos) << text;
    auto again = Parsed(text);
    for (const Case& c : cases) {
        Queried q = Query(*again, c.name);
        EXPECT_EQ(q.code, kOk) << c.name;
        EXPECT_EQ(q.type, c.type) << c.name;
        EXPECT_EQ(q.bytes, c.bytes) << c.name;
    }
    ExpectRoundTrip(registry);
}

TEST(XmlRegistryTextTest, TheWriterIndentsOneElementPerLine) {
    auto registry = Parsed(
        "<Registry><Key name=\"hkey_users\"><Key name=\".Default\" class=\"c\">"
        "<Value name=\"List\" type=\"REG_MULTI_SZ\"><String>a&lt;</String></Value>"
        "<Value name=\"Count\" type=\"REG_DWORD\" data=\"0x10\"/><Key name=\"Empty\"/></Key></Key></Registry>");
    EXPECT_EQ(WriteText(*registry),
              "<Registry>\r\n"
              "  <Key name=\"HKEY_USERS\">\r\n"
              "    <Key name=\".Default\" class=\"c\">\r\n"
              "      <Value name=\"Count\" type=\"REG_DWORD\" data=\"16\"/>\r\n"
              "      <Value name=\"List\" type=\"REG_MULTI_SZ\">\r\n"
              "        <String>a&lt;</String>\r\n"
              "      </Value>\r\n"
              "      <Key name=\"Empty\"/>\r\n"
              "    </Key>\r\n"
              "  </Key>\r\n"
              "</Registry>\r\n");
    Registry empty;
    EXPECT_EQ(WriteText(empty), "<Registry/>\r\n");
    auto fromEmpty = Parsed("<Registry/>");
    EXPECT_TRUE(SameContent(*fromEmpty, empty));
}

TEST(XmlRegistryTextTest, ADeclarationCommentsAndWhiteSpaceAreAllowed) {
    auto registry = Parsed(
        "<?xml version=\"1.0\" encoding=\"windows-1252\"?>\r\n<!-- settings -->\n<Registry >\n"
        "  <!-- user -->\n  <Key  name = \"HKEY_CURRENT_USER\" >\n    <Key name=\"k\">"
        "<Value name=\"v\" type=\"REG_DWORD\" data=\"7\"></Value></Key>\n  </Key >\n</Registry>\n<!-- end -->\n");
    Queried q = Query(*registry, "v");
    EXPECT_EQ(q.code, kOk);
    EXPECT_EQ(q.bytes, std::string("\x07\0\0\0", 4));
}

TEST(XmlRegistryTextTest, AKeyNamedTwiceIsOneKeyAndTheLastValueOfANameWins) {
    auto registry = Parsed(
        "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"k\"><Value name=\"v\" type=\"REG_DWORD\" data=\"1\"/>"
        "</Key></Key><Key name=\"HKEY_CURRENT_USER\"><Key name=\"K\"><Value name=\"V\" type=\"REG_DWORD\" data=\"2\"/>"
        "<Value name=\"w\" type=\"REG_DWORD\" data=\"3\"/></Key></Key></Registry>");
    EXPECT_EQ(registry->Root(0).subkeys.size(), 1u);
    EXPECT_EQ(Query(*registry, "v").bytes, std::string("\x02\0\0\0", 4));
    EXPECT_EQ(Query(*registry, "w").code, kOk);
}

TEST(XmlRegistryTextTest, TextOutsideTheGrammarFailsWithInvalidData) {
    const std::string bad[] = {
        "",
        "   ",
        "<Registry>",
        "<Registry></Key>",
        "<Registry/><Registry/>",
        "<Registry/>trailing",
        "\xef\xbb\xbf<Registry/>",
        "<Registry version=\"1\"/>",
        "<registry/>",
        "<Settings/>",
        "<Registry><Key name=\"HKEY_CLASSES_ROOT\"/></Registry>",
        "<Registry><Key name=\"Software\"/></Registry>",
        "<Registry><Key name=\"HKEY_CURRENT_USER\" class=\"c\"/></Registry>",
        "<Registry><Value name=\"v\" type=\"REG_SZ\" data=\"x\"/></Registry>",
        "<Registry>text</Registry>",
        "<Registry><Key/></Registry>",
        Wrapped("<Key/>"),
        Wrapped("<Key name=\"\"/>"),
        Wrapped("<Key name=\"a\\b\"/>"),
        Wrapped("<Key name=\"" + std::string(kMaxKeyName + 1, 'n') + "\"/>"),
        Wrapped("<Key name=\"a\" extra=\"1\"/>"),
        Wrapped("<Key name=\"a\" name=\"b\"/>"),
        Wrapped("<Key name=a/>"),
        Wrapped("<Key name=\"a\"class=\"b\"/>"),
        Wrapped("<Key name=\"a/>"),
        Wrapped("<Key name=\"a<\"/>"),
        Wrapped("text"),
        Wrapped("<Value type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"v\" data=\"x\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_QWORD\" hex=\"00\"/>"),
        Wrapped("<Value name=\"v\" type=\"-1\" hex=\"00\"/>"),
        Wrapped("<Value name=\"v\" type=\"4294967296\" hex=\"00\"/>"),
        Wrapped("<Value name=\"v\" type=\"11\" data=\"00\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_SZ\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_SZ\" data=\"x\" hex=\"00\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_DWORD\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_DWORD\" data=\"abc\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_DWORD\" data=\"-1\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_DWORD\" data=\"4294967296\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_DWORD\" data=\"0x100000000\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_DWORD\" data=\" 1\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_BINARY\" data=\"0\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_BINARY\" data=\"0 1\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_BINARY\" data=\"zz\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_BINARY\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_MULTI_SZ\" data=\"a\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_SZ\" data=\"x\"><String>a</String></Value>"),
        Wrapped("<Value name=\"v\" type=\"REG_MULTI_SZ\" hex=\"00\"><String>a</String></Value>"),
        Wrapped("<Value name=\"v\" type=\"REG_MULTI_SZ\"><String a=\"1\">a</String></Value>"),
        Wrapped("<Value name=\"v\" type=\"REG_MULTI_SZ\"><String>a<b/></String></Value>"),
        Wrapped("<Value name=\"v\" type=\"REG_MULTI_SZ\"><String>a</Value>"),
        Wrapped("<Value name=\"v\" type=\"REG_MULTI_SZ\">text</Value>"),
        Wrapped("<Value name=\"v\" type=\"REG_MULTI_SZ\"><Key name=\"x\"/></Value>"),
        Wrapped("<String>a</String>"),
        Wrapped("<Value name=\"&#0;\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"&#256;\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"&#x100;\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"&#99999999999999999999;\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"&#;\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"&#x41\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"&#12a;\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"&nbsp;\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"a & b\" type=\"REG_SZ\" data=\"x\"/>"),
        Wrapped("<Value name=\"v\" type=\"REG_SZ\" data=\"x\" a=\"1\" b=\"2\" c=\"3\"/>"),
        Wrapped("<!-- unclosed"),
        "<?xml version=\"1.0\"<Registry/>",
        "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]><Registry/>",
        Wrapped("<![CDATA[x]]>"),
    };
    for (const std::string& text : bad) {
        Registry registry;
        EXPECT_EQ(Read(text, registry), kBadText) << text;
    }
    Registry registry;
    EXPECT_EQ(ReadText(nullptr, 0, registry), kBadText);
}

TEST(XmlRegistryTextTest, NestingStopsAtTheRegistrysDepthWithoutDeepRecursion) {
    auto nested = [](size_t depth) {
        std::string text = "<Registry><Key name=\"HKEY_CURRENT_USER\">";
        for (size_t i = 0; i < depth; ++i) text += "<Key name=\"k\">";
        for (size_t i = 0; i < depth; ++i) text += "</Key>";
        return text + "</Key></Registry>";
    };
    auto deepest = Parsed(nested(kMaxDepth));
    ExpectRoundTrip(*deepest);
    Registry tooDeep;
    EXPECT_EQ(Read(nested(kMaxDepth + 1), tooDeep), kBadText);
    // Far deeper than any stack would take, and never closed.
    std::string hostile = "<Registry><Key name=\"HKEY_CURRENT_USER\">";
    for (int i = 0; i < 200000; ++i) hostile += "<Key name=\"k\">";
    Registry bomb;
    EXPECT_EQ(Read(hostile, bomb), kBadText);
}

TEST(XmlRegistryTextTest, HugeTextsReadInProportion) {
    std::string data(10 * 1024 * 1024, 'x');
    auto registry = Parsed(Wrapped("<Value name=\"big\" type=\"REG_SZ\" data=\"" + data + "\"/>"));
    Queried q = Query(*registry, "big");
    EXPECT_EQ(q.bytes.size(), data.size() + 1);
    // Many small values, each read once.
    std::string many;
    for (int i = 0; i < 20000; ++i) many += "<Value name=\"v" + std::to_string(i) + "\" type=\"REG_DWORD\" data=\"1\"/>";
    auto wide = Parsed(Wrapped(many));
    EXPECT_EQ(wide->Root(0).SubkeyAt(0)->values.size(), 20000u);
    ExpectRoundTrip(*wide);
}

}  // namespace
