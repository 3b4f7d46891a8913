// The settings file that our suite library names, read and written through SettingsDocument.
#include "settings_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "log_capture.h"
#include "test_helpers.h"

namespace {

const std::string kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE Settings>\r\n";

std::string FileBytes() {
    std::ifstream file(dxtest::SettingsFilePath(), std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void WriteFileBytes(const std::string& bytes) {
    std::ofstream file(dxtest::SettingsFilePath(), std::ios::binary | std::ios::trunc);
    file << bytes;
}

bool FileExists() { return GetFileAttributesA(dxtest::SettingsFilePath().c_str()) != INVALID_FILE_ATTRIBUTES; }

std::string Attribute(CXML& xml, const wchar_t* path, const wchar_t* name) {
    IXMLDOMNode* node = nullptr;
    if (xml.SelectSingleNode(xml.GetRootNode(), path, &node) != S_OK) return "(no node)";
    char* text = xml.GetNamedItemText(node, name, nullptr);
    node->Release();
    std::string copy = text != nullptr ? text : "(null)";
    std::free(text);
    return copy;
}

class SettingsFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        dxtest::ClearSettingsStore();
        SettingsDocument = nullptr;
    }
    void TearDown() override {
        dxtest::ClearSettingsStore();
        SettingsDocument = nullptr;
    }

    // The document's root text written to the file.
    static int Save(CPXMSettings& document) {
        std::wstring text;
        EXPECT_EQ(document.GetXml(text), S_OK);
        return WriteSettingsFile(text);
    }
};

TEST_F(SettingsFileTest, NewDocumentIsWrittenUnderTheFrame) {
    CPXMSettings* document = CreateSettings(nullptr);
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->GetVersion(), "25..2..0");
    ASSERT_EQ(Save(*document), 1);
    const std::string bytes = FileBytes();
    const std::string start = kHead + "<Settings version=\"25..2..0\"";
    EXPECT_EQ(bytes.substr(0, start.size()), start);
    // The rest by structure: one root, nothing else.
    ASSERT_EQ(ReadSettingsDocument(), 1);
    ASSERT_NE(SettingsDocument, nullptr);
    EXPECT_EQ(SettingsDocument->GetVersion(), "25..2..0");
    std::wstring again;
    SettingsDocument->GetXml(again);
    std::wstring first;
    document->GetXml(first);
    EXPECT_EQ(again, first);
    delete document;
}

TEST_F(SettingsFileTest, EmptyTextStartsANewDocumentAndBadTextNone) {
    CPXMSettings* fromEmpty = CreateSettings("");
    ASSERT_NE(fromEmpty, nullptr);
    EXPECT_EQ(fromEmpty->GetVersion(), "25..2..0");
    delete fromEmpty;
    EXPECT_EQ(CreateSettings("<Settings>"), nullptr);
    EXPECT_EQ(CreateSettings("plain words"), nullptr);
}

TEST_F(SettingsFileTest, AnotherVersionIsKeptThroughAReadAndAWrite) {
    WriteFileBytes(kHead + "<Settings version=\"1..0\"><SOCKS/></Settings>");
    ASSERT_EQ(ReadSettingsDocument(), 1);
    ASSERT_EQ(Save(*SettingsDocument), 1);
    SettingsDocument = nullptr;
    ASSERT_EQ(ReadSettingsDocument(), 1);
    EXPECT_EQ(SettingsDocument->GetVersion(), "1..0");
    EXPECT_EQ(FileBytes().substr(0, kHead.size() + 25), kHead + "<Settings version=\"1..0\">");
}

TEST_F(SettingsFileTest, WhatStandsAheadOfTheRootIsGoneAfterAWrite) {
    WriteFileBytes("<?xml version=\"1.0\"?><?keep me?><!-- a comment --><Settings version=\"x\"/>");
    ASSERT_EQ(ReadSettingsDocument(), 1);
    ASSERT_EQ(Save(*SettingsDocument), 1);
    const std::string bytes = FileBytes();
    EXPECT_EQ(bytes.find("comment"), std::string::npos);
    EXPECT_EQ(bytes.find("keep me"), std::string::npos);
    EXPECT_EQ(bytes.substr(0, kHead.size() + 9), kHead + "<Settings");
}

TEST_F(SettingsFileTest, ACharacterBeyond255EndsTheFileAndTheNextReadFails) {
    WriteFileBytes("former content");
    EXPECT_EQ(WriteSettingsFile(L"<Settings version=\"25..2..0\" proxy=\"a\u20acb\"/>"), 1);
    const std::string bytes = FileBytes();
    EXPECT_EQ(bytes, kHead + "<Settings version=\"25..2..0\" proxy=\"a");
    SettingsDocument = CreateSettings(nullptr);
    EXPECT_EQ(ReadSettingsDocument(), 0);
    EXPECT_EQ(SettingsDocument, nullptr);
}

// Wine's serialisation writes every character above 127 as a character reference, so a document
// never hands the file such a character; a text that holds one is written byte for byte.
TEST_F(SettingsFileTest, CharactersBelow256SurviveAWriteAndARead) {
    CPXMSettings* document = CreateSettings(nullptr);
    ASSERT_NE(document, nullptr);
    ASSERT_EQ(document->SetNodeAttribute(document->GetRootNode(), L"user", L"Gu\u00e9st"), S_OK);
    ASSERT_EQ(document->SetNodeAttribute(document->GetRootNode(), L"proxy", L"\u20ac"), S_OK);
    ASSERT_EQ(Save(*document), 1);
    ASSERT_EQ(ReadSettingsDocument(), 1);
    EXPECT_EQ(Attribute(*SettingsDocument, L"/Settings", L"user"), "Gu\xe9st");
    EXPECT_EQ(Attribute(*SettingsDocument, L"/Settings", L"proxy"), "\x80");  // the euro sign of code page 1252
    delete document;

    ASSERT_EQ(WriteSettingsFile(L"<Settings user=\"Gu\u00e9st\"/>"), 1);
    EXPECT_EQ(FileBytes(), kHead + "<Settings user=\"Gu\xe9st\"/>");
    ASSERT_EQ(ReadSettingsDocument(), 1);
    EXPECT_EQ(Attribute(*SettingsDocument, L"/Settings", L"user"), "Gu\xe9st");
    std::wstring wide;
    ASSERT_TRUE(ReadSettingsText(wide));
    EXPECT_NE(wide.find(L"Gu\u00e9st"), std::wstring::npos);
}

TEST_F(SettingsFileTest, NoFileOrAnEmptyOneLeavesTheDocumentAsItWas) {
    CPXMSettings* before = CreateSettings(nullptr);
    SettingsDocument = before;
    ASSERT_FALSE(FileExists());
    EXPECT_EQ(ReadSettingsDocument(), 0);
    EXPECT_EQ(SettingsDocument, before);
    std::wstring text = L"untouched";
    EXPECT_FALSE(ReadSettingsText(text));
    EXPECT_TRUE(text.empty());
    WriteFileBytes("");
    EXPECT_EQ(ReadSettingsDocument(), 0);
    EXPECT_EQ(SettingsDocument, before);
    delete before;
}

TEST_F(SettingsFileTest, CorruptTextLeavesNoDocumentAndNoLogLine) {
    for (const std::string& bytes : {std::string("<Settings><Maps></Settings>"),
                                     std::string("\xef\xbb\xbf<Settings version=\"25..2..0\"/>"),
                                     "<Settings v=\"" + std::string(10 * 1024 * 1024, 'v') + "\"/>"}) {
        SettingsDocument = CreateSettings(nullptr);
        WriteFileBytes(bytes);
        dxtest::LogCapture capture;
        EXPECT_EQ(ReadSettingsDocument(), 0) << bytes.substr(0, 20);
        EXPECT_EQ(SettingsDocument, nullptr);
        EXPECT_TRUE(capture.Lines().empty());
    }
}

TEST_F(SettingsFileTest, ByteOrderMarkIsReadAsThreeCharactersOfTheCodePage) {
    WriteFileBytes("\xef\xbb\xbf<Settings/>");
    std::wstring text;
    ASSERT_TRUE(ReadSettingsText(text));
    EXPECT_EQ(text, L"\u00ef\u00bb\u00bf<Settings/>");
}

TEST_F(SettingsFileTest, AnotherRootParsesAndHasNoVersion) {
    WriteFileBytes("<Configuration version=\"3\"/>");
    ASSERT_EQ(ReadSettingsDocument(), 1);
    ASSERT_NE(SettingsDocument, nullptr);
    EXPECT_EQ(SettingsDocument->GetVersion(), "");
}

TEST_F(SettingsFileTest, FormerDocumentStaysUsableAfterAReread) {
    WriteFileBytes("<Settings version=\"first\"/>");
    ASSERT_EQ(ReadSettingsDocument(), 1);
    CPXMSettings* first = SettingsDocument;
    WriteFileBytes("<Settings version=\"second\"/>");
    ASSERT_EQ(ReadSettingsDocument(), 1);
    EXPECT_NE(SettingsDocument, first);
    EXPECT_EQ(SettingsDocument->GetVersion(), "second");
    EXPECT_EQ(first->GetVersion(), "first");
}

TEST_F(SettingsFileTest, FileIsWrittenWhileAnotherOpenerHoldsIt) {
    WriteFileBytes("<Settings version=\"held\"/>");
    HANDLE held = CreateFileA(dxtest::SettingsFilePath().c_str(), GENERIC_READ | GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_EQ(WriteSettingsFile(L"<Settings version=\"new\"/>"), 1);
    EXPECT_EQ(ReadSettingsDocument(), 1);
    CloseHandle(held);
    ASSERT_NE(SettingsDocument, nullptr);
    EXPECT_EQ(SettingsDocument->GetVersion(), "new");
}

}  // namespace
