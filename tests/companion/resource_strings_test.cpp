// DXSOCKS_0409.DLL: every string that DXSOCKS.DLL loads is there, fits the buffer it is loaded into,
// and every report format takes exactly the arguments that the library passes; the configuration
// dialogs' templates hold the controls the library drives, laid out as its views need them.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "companion_support.h"

namespace {

using Conversions = std::vector<std::string>;

// The conversions of a printf format, each as its length modifier and letter ("s", "d", "ld"); a '*'
// width or precision counts as a conversion "*" of its own, and "%%" as "%".
Conversions ConversionsOf(const std::string& format) {
    Conversions found;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') continue;
        size_t j = i + 1;
        while (j < format.size() && std::strchr("-+ #0", format[j]) != nullptr) ++j;
        auto widthOrPrecision = [&]() {
            if (j < format.size() && format[j] == '*') {
                found.push_back("*");
                ++j;
            }
            while (j < format.size() && std::isdigit(static_cast<unsigned char>(format[j]))) ++j;
        };
        widthOrPrecision();
        if (j < format.size() && format[j] == '.') {
            ++j;
            widthOrPrecision();
        }
        std::string conversion;
        while (j < format.size() && std::strchr("hlLqjztI0123456789", format[j]) != nullptr) conversion += format[j++];
        if (j < format.size()) conversion += format[j];
        found.push_back(conversion);
        i = j;
    }
    return found;
}

TEST(ConversionsOfTest, ReadsFormatsAsPrintfDoes) {
    EXPECT_EQ(ConversionsOf("a %s b %d c %-5d %ld %%"), (Conversions{"s", "d", "d", "ld", "%"}));
    EXPECT_EQ(ConversionsOf("%*d %.*s"), (Conversions{"*", "d", "*", "s"}));
    EXPECT_EQ(ConversionsOf("no conversion"), Conversions{});
}

class ResourceStringsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { module = ctest::LoadBeside("DXSOCKS_0409.DLL"); }
    void SetUp() override { ASSERT_NE(module, nullptr) << "DXSOCKS_0409.DLL not beside the test program"; }

    // The string, or "<missing>" when it is not in the table.
    static std::string String(UINT id) {
        char text[1024] = {};
        int length = LoadStringA(module, id, text, sizeof text);
        return length > 0 ? std::string(text, static_cast<size_t>(length)) : "<missing>";
    }
    static bool Has(UINT id) {
        char text[8];
        return LoadStringA(module, id, text, sizeof text) > 0;
    }
    static int PortCount() { return std::atoi(String(100).c_str()); }

    static HMODULE module;
};

HMODULE ResourceStringsTest::module = nullptr;

// Each string with the size of the buffer the library reads it into (its text must be shorter).
const struct {
    UINT id;
    size_t buffer;
} kStrings[] = {
    {1, 64},    {2, 64},    {3, 64},    {4, 256},   {5, 256},   {100, 32},  {300, 64},  {301, 32},
    {302, 64},  {304, 256}, {500, 256}, {501, 256}, {502, 256}, {503, 256}, {504, 256}, {505, 256},
    {551, 64},  {552, 64},  {1001, 256}, {1002, 256}, {1003, 256}, {1005, 256}, {1006, 256}, {2000, 256},
    {2001, 256}, {2002, 256}, {2003, 256}, {2004, 256}, {2005, 256}, {2006, 256},
};

TEST_F(ResourceStringsTest, EveryStringLoadsAndFitsItsBuffer) {
    for (const auto& s : kStrings) {
        std::string text = String(s.id);
        EXPECT_NE(text, "<missing>") << s.id;
        EXPECT_FALSE(text.empty()) << s.id;
        EXPECT_LT(text.size(), s.buffer) << s.id << ": " << text;
    }
}

TEST_F(ResourceStringsTest, ColumnTitlesAndVersionEntries) {
    EXPECT_EQ(String(1), "Destination");
    EXPECT_EQ(String(2), "Proxy");
    EXPECT_EQ(String(3), "User");
    // The version combo box lists 551 for version 4 and 552 for version 5, in that order.
    EXPECT_NE(String(551).find('4'), std::string::npos) << String(551);
    EXPECT_NE(String(552).find('5'), std::string::npos) << String(552);
    EXPECT_NE(String(4), String(5));
}

// The library passes exactly these arguments, in this order, to each numbered report.
const struct {
    UINT id;
    Conversions conversions;
} kReports[] = {
    {1001, {"s"}},           {1002, {"s", "d", "d"}}, {1003, {"s", "d", "d"}}, {1005, {"s", "s"}},
    {1006, {"s", "s"}},      {2000, {"s", "d", "d"}}, {2001, {"s", "d", "d"}}, {2002, {"d"}},
    {2003, {"d"}},           {2004, {"d"}},           {2005, {"d"}},           {2006, {"d", "d"}},
};

TEST_F(ResourceStringsTest, EachReportTakesExactlyItsArguments) {
    for (const auto& report : kReports) {
        EXPECT_EQ(ConversionsOf(String(report.id)), report.conversions) << report.id << ": " << String(report.id);
    }
}

// A report formatted with arguments of the types its conversions ask for.
std::string Formatted(const std::string& format, const Conversions& conversions) {
    char out[512] = {};
    const char* host = "203.0.113.7";
    const char* path = "C:\\host.exe";
    if (conversions == Conversions{"s"}) std::snprintf(out, sizeof out, format.c_str(), host);
    if (conversions == Conversions{"s", "s"}) std::snprintf(out, sizeof out, format.c_str(), path, path);
    if (conversions == Conversions{"s", "d", "d"}) std::snprintf(out, sizeof out, format.c_str(), host, 1080, 352);
    if (conversions == Conversions{"d"}) std::snprintf(out, sizeof out, format.c_str(), 352);
    if (conversions == Conversions{"d", "d"}) std::snprintf(out, sizeof out, format.c_str(), 94, 352);
    return out;
}

// The log formats a report a second time with no arguments: its formatted text must hold no '%'.
TEST_F(ResourceStringsTest, AFormattedReportHoldsNoPercentSign) {
    for (const auto& report : kReports) {
        std::string format = String(report.id);
        ASSERT_EQ(ConversionsOf(format), report.conversions) << report.id;
        std::string text = Formatted(format, report.conversions);
        EXPECT_FALSE(text.empty()) << report.id;
        EXPECT_EQ(text.find('%'), std::string::npos) << report.id << ": " << text;
    }
}

TEST_F(ResourceStringsTest, HostAndPortFormatTakesTwoTexts) {
    EXPECT_EQ(ConversionsOf(String(302)), (Conversions{"s", "s"}));
    char out[64] = {};
    std::snprintf(out, sizeof out, String(302).c_str(), "proxy.example", "1080");
    std::string joined = out;
    EXPECT_LT(joined.find("proxy.example"), joined.find("1080")) << joined;
}

TEST_F(ResourceStringsTest, AnyHostFitsItsThirtyTwoBytes) {
    EXPECT_LE(String(301).size(), 31u);
    EXPECT_EQ(String(301).find('*'), std::string::npos);  // a leading '*' would read as the wildcard itself
}

TEST_F(ResourceStringsTest, PortEntriesMatchTheirCount) {
    int count = PortCount();
    ASSERT_GE(count, 2) << String(100);
    EXPECT_EQ(String(100), std::to_string(count));
    for (int i = 0; i < count; ++i) {
        UINT id = 101 + static_cast<UINT>(i);
        std::string entry = String(id);
        ASSERT_NE(entry, "<missing>") << id;
        bool digit = entry.find_first_of("0123456789") != std::string::npos;
        if (i == 0) {
            EXPECT_FALSE(digit) << "the word for any port holds a digit: " << entry;
        } else {
            EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(entry[0]))) << id << ": " << entry;
        }
    }
    EXPECT_FALSE(Has(101 + static_cast<UINT>(count))) << "an entry beyond the count";
}

TEST_F(ResourceStringsTest, NoStringOutsideTheKnownIds) {
    // Spot checks between the ranges: an id the library never asks for is not there.
    for (UINT id : {0u, 6u, 99u, 303u, 506u, 550u, 553u, 1000u, 1004u, 1007u, 2007u}) {
        EXPECT_FALSE(Has(id)) << id;
    }
}

// One control of a dialog template: class (a name, or "#<atom>" for a predefined one), style and box
// in dialog units.
struct TemplateControl {
    std::string className;
    DWORD style;
    int x, y, cx, cy;
    int Bottom() const { return y + cy; }
};

struct DialogTemplate {
    bool found = false;
    DWORD style = 0;
    int cy = 0;
    std::map<int, TemplateControl> controls;  // by id; the unnamed labels (-1) are not kept
};

// Reads an extended dialog template (DLGTEMPLATEEX) word by word, within its resource's size.
class TemplateReader {
public:
    TemplateReader(const BYTE* data, size_t size) : data(data), size(size) {}
    bool ok() const { return good; }
    WORD Word() {
        WORD value = 0;
        if (offset + 2 > size) {
            good = false;
            return 0;
        }
        std::memcpy(&value, data + offset, 2);
        offset += 2;
        return value;
    }
    DWORD Dword() {
        DWORD low = Word();
        return low | (static_cast<DWORD>(Word()) << 16);
    }
    // A name or an ordinal: none, 0xFFFF and a number ("#n"), or a terminated wide text.
    std::string NameOrOrdinal() {
        WORD first = Word();
        if (first == 0) return "";
        if (first == 0xFFFF) return "#" + std::to_string(Word());
        std::string text(1, static_cast<char>(first));
        for (WORD c = Word(); good && c != 0; c = Word()) text += static_cast<char>(c);
        return text;
    }
    void AlignDword() { offset = (offset + 3) & ~static_cast<size_t>(3); }
    void Skip(size_t bytes) { offset += bytes; }

private:
    const BYTE* data;
    size_t size;
    size_t offset = 0;
    bool good = true;
};

DialogTemplate ReadTemplate(HMODULE module, int id) {
    DialogTemplate result;
    HRSRC resource = FindResourceA(module, MAKEINTRESOURCEA(id), MAKEINTRESOURCEA(5));
    if (resource == nullptr) return result;
    const auto* data = static_cast<const BYTE*>(LockResource(LoadResource(module, resource)));
    TemplateReader reader(data, SizeofResource(module, resource));
    if (reader.Word() != 1 || reader.Word() != 0xFFFF) return result;
    reader.Dword();  // help id
    reader.Dword();  // extended style
    result.style = reader.Dword();
    const WORD count = reader.Word();
    reader.Word();
    reader.Word();
    reader.Word();
    result.cy = static_cast<short>(reader.Word());
    reader.NameOrOrdinal();  // menu
    reader.NameOrOrdinal();  // class
    reader.NameOrOrdinal();  // title
    if (result.style & DS_SETFONT) {
        reader.Word();
        reader.Word();
        reader.Word();
        reader.NameOrOrdinal();
    }
    for (WORD i = 0; i < count && reader.ok(); ++i) {
        reader.AlignDword();
        reader.Dword();  // help id
        reader.Dword();  // extended style
        TemplateControl control = {};
        control.style = reader.Dword();
        control.x = static_cast<short>(reader.Word());
        control.y = static_cast<short>(reader.Word());
        control.cx = static_cast<short>(reader.Word());
        control.cy = static_cast<short>(reader.Word());
        const int controlId = static_cast<int>(reader.Dword());
        control.className = reader.NameOrOrdinal();
        reader.NameOrOrdinal();  // text
        reader.Skip(reader.Word());
        if (controlId != -1 && controlId != 0xFFFF) result.controls[controlId] = control;
    }
    result.found = reader.ok();
    return result;
}

constexpr char kButtonAtom[] = "#128";
constexpr char kEditAtom[] = "#129";
constexpr char kComboAtom[] = "#133";

struct TemplateCase {
    int id;
    bool main;
    bool socks;
};
const TemplateCase kTemplates[] = {{102, true, true}, {103, false, true}, {104, true, false}, {105, false, false}};

TEST_F(ResourceStringsTest, EachDialogTemplateHoldsItsFamilysControls) {
    for (const TemplateCase& t : kTemplates) {
        SCOPED_TRACE(t.id);
        DialogTemplate dialog = ReadTemplate(module, t.id);
        ASSERT_TRUE(dialog.found);
        EXPECT_NE(dialog.style & DS_CONTEXTHELP, 0u);
        std::vector<int> ids = {IDOK, IDCANCEL, 1028, 1029};
        if (t.main) {
            for (int id : {1012, 1013, 1014, 1016, 1026, 1027, 1033, 1034, 1038}) ids.push_back(id);
        } else {
            for (int id : {1004, 1005, 1008, 1021, 1022, 1031, 1033, 1035, 1036}) ids.push_back(id);
        }
        if (t.socks) {
            for (int id : {1041, 1043}) ids.push_back(id);
            if (t.main) {
                for (int id : {1037, 1039, 1040}) ids.push_back(id);
            }
        } else {
            for (int id : {1021, 1022, 1035, 1036, 1049}) ids.push_back(id);
            if (t.main) {
                for (int id : {1045, 1046, 1047}) ids.push_back(id);
            }
        }
        for (int id : ids) EXPECT_EQ(dialog.controls.count(id), 1u) << id;
        if (!t.socks) {
            EXPECT_EQ(dialog.controls.count(1043), 0u);
            EXPECT_EQ(dialog.controls.count(1041), 0u);
        }
        EXPECT_EQ(dialog.controls[1028].className, kButtonAtom);
        EXPECT_EQ(dialog.controls[1029].className, kEditAtom);
        if (dialog.controls.count(1043) != 0) {
            EXPECT_EQ(dialog.controls[1043].className, kComboAtom);
            EXPECT_EQ(dialog.controls[1043].style & 0xF, static_cast<DWORD>(CBS_DROPDOWNLIST));
        }
        if (dialog.controls.count(1021) != 0) {
            EXPECT_EQ(dialog.controls[1021].style & ES_NUMBER, 0u);
        }
        if (!t.main) {
            EXPECT_EQ(dialog.controls[1005].className, kComboAtom);
            EXPECT_EQ(dialog.controls[1005].style & 0xF, static_cast<DWORD>(CBS_DROPDOWN));
        }
    }
}

TEST_F(ResourceStringsTest, TheMainTemplatesCutBelowTheSwitchAndEndAtTheLine) {
    for (int id : {102, 104}) {
        SCOPED_TRACE(id);
        DialogTemplate dialog = ReadTemplate(module, id);
        ASSERT_TRUE(dialog.found);
        const int cut = dialog.controls[1028].Bottom();
        // The simple view's fields, OK and Cancel above the cut; the list and its buttons below.
        for (int above : {IDOK, IDCANCEL, 1029, 1033, 1034}) EXPECT_LE(dialog.controls[above].Bottom(), cut) << above;
        for (int below : {1012, 1013, 1014, 1016, 1026, 1027}) EXPECT_GT(dialog.controls[below].y, cut) << below;
        // The line is the lowest control and stands near the lower edge.
        const TemplateControl& line = dialog.controls[1038];
        for (const auto& control : dialog.controls) EXPECT_LE(control.second.Bottom(), line.Bottom()) << control.first;
        EXPECT_LE(line.Bottom(), dialog.cy);
        EXPECT_LE(line.cy, 2);
    }
}

TEST_F(ResourceStringsTest, TheArrowButtonsAreImageButtonsThatKeepTheFocus) {
    for (int id : {102, 104}) {
        SCOPED_TRACE(id);
        DialogTemplate dialog = ReadTemplate(module, id);
        ASSERT_TRUE(dialog.found);
        const TemplateControl& up = dialog.controls[1026];
        const TemplateControl& down = dialog.controls[1027];
        // Window class names compare without regard to case; the resource compiler writes them in capitals.
        EXPECT_EQ(lstrcmpiA(up.className.c_str(), "SocksImageButtonClass"), 0) << up.className;
        EXPECT_EQ(lstrcmpiA(down.className.c_str(), "SocksImageButtonClass"), 0) << down.className;
        EXPECT_NE(up.style & 0x2, 0u);
        EXPECT_EQ(down.style & 0x2, 0u);
        EXPECT_EQ(up.style & 0x20, 0u);
        EXPECT_EQ(down.style & 0x20, 0u);
        EXPECT_NE(up.style & WS_TABSTOP, 0u);
        EXPECT_NE(down.style & WS_TABSTOP, 0u);
        EXPECT_EQ(lstrcmpiA(dialog.controls[1016].className.c_str(), "SysListView32"), 0);
    }
}

}  // namespace
