// CXML on the platform's XML service: parsing, queries, attributes, elements, and the error line.
#include "xml_document.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"

namespace {

// The document's fields, which only the class and its derived classes see.
class InspectedXml : public CXML {
public:
    using CXML::CXML;
    HRESULT State() const { return ComState; }
    IXMLDOMDocument2* Document() const { return XmlDocument; }
};

std::wstring Take(wchar_t* text) {
    std::wstring copy = text != nullptr ? text : L"(null)";
    std::free(text);
    return copy;
}

std::string Take(char* text) {
    std::string copy = text != nullptr ? text : "(null)";
    std::free(text);
    return copy;
}

std::vector<std::wstring> g_traced;
void Trace(const wchar_t* line) { g_traced.emplace_back(line); }

class CXMLTraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_traced.clear();
        SetXmlTraceHook(Trace);
    }
    void TearDown() override { SetXmlTraceHook(nullptr); }
};

IXMLDOMNode* Select(CXML& xml, const wchar_t* path) {
    IXMLDOMNode* node = nullptr;
    EXPECT_EQ(xml.SelectSingleNode(xml.GetRootNode(), path, &node), S_OK) << path;
    return node;
}

TEST(CXMLTest, ParsedTextGivesTheRootElement) {
    HRESULT result = 1;
    CXML xml("<Settings version=\"9\"><Maps count=\"2\"/></Settings>", &result);
    EXPECT_EQ(result, S_OK);
    ASSERT_NE(xml.GetRootNode(), nullptr);
    IXMLDOMNode* maps = Select(xml, L"/Settings/Maps");
    ASSERT_NE(maps, nullptr);
    EXPECT_EQ(Take(xml.GetNamedItem(maps, L"count")), L"2");
    maps->Release();
}

TEST(CXMLTest, TextThatIsNotWellFormedFailsWithBadArgument) {
    HRESULT result = S_OK;
    CXML xml("<Settings><Maps></Settings>", &result);
    EXPECT_EQ(result, kXmlBadArgument);
    EXPECT_EQ(xml.GetRootNode(), nullptr);
    // The object stands and can parse again.
    EXPECT_EQ(xml.LoadXml("<a"), kXmlBadArgument);
    EXPECT_EQ(xml.LoadXml("<a/>"), S_OK);
}

TEST(CXMLTest, EmptyOrNullTextLeavesAnEmptyDocument) {
    for (const char* text : {static_cast<const char*>(nullptr), ""}) {
        HRESULT result = 1;
        InspectedXml xml(text, &result);
        EXPECT_EQ(result, S_OK);
        EXPECT_NE(xml.Document(), nullptr);
        EXPECT_EQ(xml.GetRootNode(), nullptr);
    }
}

TEST(CXMLTest, NoMatchIsNotFoundWithANullNode) {
    CXML xml("<Settings><Maps/></Settings>", nullptr);
    IXMLDOMNode* node = reinterpret_cast<IXMLDOMNode*>(1);
    EXPECT_EQ(xml.SelectSingleNode(xml.GetRootNode(), L"/Settings/Nothing", &node), kXmlNotFound);
    EXPECT_EQ(node, nullptr);
}

TEST(CXMLTest, NullArgumentsOfASelectionAreBadArguments) {
    CXML xml("<Settings/>", nullptr);
    IXMLDOMNode* node = nullptr;
    EXPECT_EQ(xml.SelectSingleNode(nullptr, L"/Settings", &node), kXmlBadArgument);
    EXPECT_EQ(xml.SelectSingleNode(xml.GetRootNode(), nullptr, &node), kXmlBadArgument);
    EXPECT_EQ(xml.SelectSingleNode(xml.GetRootNode(), L"/Settings", nullptr), kXmlBadArgument);
}

TEST(CXMLTest, EmptyAttributeGivesEmptyTextAndAMissingOneNull) {
    CXML xml("<Settings a=\"\"/>", nullptr);
    IXMLDOMNode* root = xml.GetRootNode();
    wchar_t* empty = xml.GetNamedItem(root, L"a");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty[0], L'\0');
    std::free(empty);
    char* emptyAnsi = xml.GetNamedItemText(root, L"a", nullptr);
    ASSERT_NE(emptyAnsi, nullptr);
    EXPECT_STREQ(emptyAnsi, "");
    std::free(emptyAnsi);
    EXPECT_EQ(xml.GetNamedItem(root, L"b"), nullptr);
    EXPECT_EQ(xml.GetNamedItemText(root, L"b", nullptr), nullptr);
    EXPECT_EQ(Take(xml.GetNamedItemText(root, L"b", L"fallback")), "fallback");
    EXPECT_EQ(xml.GetNamedItem(nullptr, L"a"), nullptr);
    EXPECT_EQ(xml.GetNamedItem(root, nullptr), nullptr);
}

TEST(CXMLTest, AttributeOutsideTheCodePageGetsItsBestFit) {
    ASSERT_EQ(GetACP(), 1252u);
    CXML xml("<Settings/>", nullptr);
    IXMLDOMElement* root = xml.GetRootNode();
    ASSERT_EQ(xml.SetNodeAttribute(root, L"user", L"\u0141ukasz"), S_OK);
    EXPECT_EQ(Take(xml.GetNamedItemText(root, L"user", nullptr)), "Lukasz");
    EXPECT_EQ(Take(xml.GetNamedItem(root, L"user")), L"\u0141ukasz");
}

TEST(CXMLTest, TextIsReadThroughTheCodePageWhateverItDeclares) {
    // 0xE9 is one character of code page 1252; as UTF-8 it would not even parse.
    CXML xml("<?xml version=\"1.0\" encoding=\"UTF-8\"?><Settings user=\"Gu\xe9st\"/>", nullptr);
    ASSERT_NE(xml.GetRootNode(), nullptr);
    EXPECT_EQ(Take(xml.GetNamedItem(xml.GetRootNode(), L"user")), L"Gu\u00e9st");
    EXPECT_EQ(Take(xml.GetNamedItemText(xml.GetRootNode(), L"user", nullptr)), "Gu\xe9st");
}

TEST(CXMLTest, ElementGetsItsAttributeOnlyWithANameAndAValue) {
    CXML xml("<Settings/>", nullptr);
    IXMLDOMElement* bare = xml.CreateElement(L"Map", L"id", nullptr);
    ASSERT_NE(bare, nullptr);
    IXMLDOMNamedNodeMap* attributes = nullptr;
    ASSERT_EQ(bare->get_attributes(&attributes), S_OK);
    long count = -1;
    attributes->get_length(&count);
    EXPECT_EQ(count, 0);
    attributes->Release();
    bare->Release();

    IXMLDOMElement* named = xml.CreateElement(L"Map", L"id", L"1");
    ASSERT_NE(named, nullptr);
    EXPECT_EQ(Take(xml.GetNamedItem(named, L"id")), L"1");
    // Not attached to anything.
    IXMLDOMNode* parent = reinterpret_cast<IXMLDOMNode*>(1);
    named->get_parentNode(&parent);
    EXPECT_EQ(parent, nullptr);
    named->Release();
}

TEST(CXMLTest, CreateRootMakesTheDocumentElement) {
    CXML xml(nullptr, nullptr);
    EXPECT_EQ(xml.CreateRoot(L"Settings", L"version", L"1"), S_OK);
    ASSERT_NE(xml.GetRootNode(), nullptr);
    IXMLDOMNode* settings = Select(xml, L"//Settings");
    ASSERT_NE(settings, nullptr);
    EXPECT_EQ(Take(xml.GetNamedItemText(settings, L"version", nullptr)), "1");
    settings->Release();
}

TEST(CXMLTest, SetNodeAttributeNeedsAllThree) {
    CXML xml("<Settings/>", nullptr);
    IXMLDOMElement* root = xml.GetRootNode();
    EXPECT_EQ(xml.SetNodeAttribute(nullptr, L"a", L"b"), kXmlNotFound);
    EXPECT_EQ(xml.SetNodeAttribute(root, nullptr, L"b"), kXmlNotFound);
    EXPECT_EQ(xml.SetNodeAttribute(root, L"a", nullptr), kXmlNotFound);
    EXPECT_EQ(xml.SetNodeAttribute(root, L"a", L"b"), S_OK);
    EXPECT_EQ(Take(xml.GetNamedItem(root, L"a")), L"b");
}

TEST(CXMLTest, NodeTextIsReadAndSet) {
    CXML xml("<Settings>old</Settings>", nullptr);
    IXMLDOMElement* root = xml.GetRootNode();
    EXPECT_EQ(Take(xml.GetNodeText(root)), L"old");
    EXPECT_EQ(xml.SetNodeText(root, "n\xe9w"), 1);
    EXPECT_EQ(Take(xml.GetNodeText(root)), L"n\u00e9w");
    EXPECT_EQ(Take(xml.GetNodeTextAnsi(root)), "n\xe9w");
}

TEST(CXMLTest, NodeTextFailuresLogTheirLinesWithTheirLineEnds) {
    CXML xml("<Settings/>", nullptr);
    dxtest::LogCapture capture;
    EXPECT_EQ(xml.GetNodeText(nullptr), nullptr);
    EXPECT_EQ(xml.GetNodeTextAnsi(nullptr), nullptr);
    EXPECT_EQ(xml.SetNodeText(nullptr, "x"), 0);
    EXPECT_EQ(capture.Lines(), (std::vector<std::string>{"Failed to read xml node value\n",
                                                         "Failed to read xml node value\n",
                                                         "Failed to set xml node value\n"}));
}

TEST(CXMLTest, ConversionsKeepTheirSizes) {
    char* padded = CXML::WideToAnsi(L"ab", 10);
    ASSERT_NE(padded, nullptr);
    EXPECT_STREQ(padded, "ab");
    std::free(padded);
    char* blank = CXML::WideToAnsi(nullptr, 4);
    ASSERT_NE(blank, nullptr);
    EXPECT_STREQ(blank, "");
    std::free(blank);
    EXPECT_EQ(CXML::WideToAnsi(nullptr, 0), nullptr);
    EXPECT_EQ(CXML::DupWide(nullptr), nullptr);
    EXPECT_EQ(Take(CXML::DupWide(L"")), L"");
    EXPECT_EQ(Take(CXML::DupWide(L"x\u20acy")), L"x\u20acy");
}

TEST(CXMLTest, HostileTextsFailToParseWithoutHarm) {
    const std::string bomb =
        "<?xml version=\"1.0\"?><!DOCTYPE b [<!ENTITY a \"aaaaaaaaaa\">"
        "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
        "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\">"
        "<!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\"><!ENTITY g \"&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;\">"
        "<!ENTITY h \"&g;&g;&g;&g;&g;&g;&g;&g;&g;&g;\"><!ENTITY i \"&h;&h;&h;&h;&h;&h;&h;&h;&h;&h;\">]>"
        "<Settings>&i;</Settings>";
    const std::string huge = "<Settings v=\"" + std::string(10 * 1024 * 1024, 'x') + "\"/>";
    std::string nested;
    for (int i = 0; i < 100000; ++i) nested += "<a>";
    for (const std::string* text : {&bomb, &huge, static_cast<const std::string*>(&nested)}) {
        HRESULT result = S_OK;
        CXML xml(text->c_str(), &result);
        EXPECT_EQ(result, kXmlBadArgument) << text->substr(0, 40);
        EXPECT_EQ(xml.GetRootNode(), nullptr);
    }
}

TEST_F(CXMLTraceTest, FailedConstructionFormsItsLineForTheTraceOnly) {
    dxtest::LogCapture capture;
    HRESULT result = S_OK;
    CXML xml("<unclosed", &result);
    ASSERT_EQ(result, kXmlBadArgument);
    ASSERT_EQ(g_traced.size(), 1u);
    EXPECT_EQ(g_traced[0].rfind(L"CXML() failed. (0x80070057", 0), 0u);
    EXPECT_EQ(g_traced[0].back(), L')');
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(CXMLTraceTest, FailedSelectionReportsAndReturnsTheServiceCode) {
    CXML xml("<Settings/>", nullptr);
    IXMLDOMNode* node = nullptr;
    HRESULT result = xml.SelectSingleNode(xml.GetRootNode(), L"/Settings[", &node);
    EXPECT_TRUE(FAILED(result));
    EXPECT_NE(result, kXmlBadArgument);
    EXPECT_EQ(node, nullptr);
    ASSERT_EQ(g_traced.size(), 1u);
    EXPECT_EQ(g_traced[0].rfind(L"CXML::SelectSingleNode() Failed. (0x", 0), 0u);
}

TEST_F(CXMLTraceTest, NothingIsTracedWithoutAHook) {
    SetXmlTraceHook(nullptr);
    CXML xml("<unclosed", nullptr);
    EXPECT_TRUE(g_traced.empty());
}

// CoInitialize's result decides: the object leaves the apartment only when it entered it first.
TEST(CXMLTest, LeavesTheApartmentOnlyWhenItEnteredIt) {
    HRESULT fresh = E_FAIL;
    HRESULT afterOwn = E_FAIL;
    HRESULT stateOwn = E_FAIL;
    std::thread own([&] {
        {
            InspectedXml xml("<a/>", nullptr);
            stateOwn = xml.State();
        }
        afterOwn = CoInitialize(nullptr);  // S_OK: the object left the apartment it entered
        CoUninitialize();
    });
    own.join();
    EXPECT_EQ(stateOwn, S_OK);
    EXPECT_EQ(afterOwn, S_OK);

    HRESULT stateShared = E_FAIL;
    HRESULT afterShared = E_FAIL;
    std::thread shared([&] {
        fresh = CoInitialize(nullptr);
        {
            InspectedXml xml("<a/>", nullptr);
            stateShared = xml.State();
        }
        CoUninitialize();
        // Still inside: the object did not leave the apartment it found entered.
        afterShared = CoInitialize(nullptr);
        CoUninitialize();
        CoUninitialize();
    });
    shared.join();
    EXPECT_EQ(fresh, S_OK);
    EXPECT_EQ(stateShared, S_FALSE);
    EXPECT_EQ(afterShared, S_FALSE);
}

}  // namespace
