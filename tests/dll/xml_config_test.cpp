// SOCKS_SetXMLConfig, SOCKS_GetXMLConfig and their HTTP twins as a host calls them. The library binds
// the suite library's factory for the life of the process and looks for it beside the host's
// executable, so each case runs in a copy of this program beside DXSOCKS.DLL and the suite library it
// needs (XmlConfigChild, run by XmlConfigTest).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "copied_program.h"
#include "http_api.h"
#include "log_capture.h"
#include "module_files.h"
#include "socks_api.h"
#include "test_helpers.h"

namespace {

using dxtest::BareFrame;
using dxtest::Joined;

// Runs one child case beside DXSOCKS.DLL and, unless `withSuite` is false, our suite library.
void RunChild(const std::string& name, bool withSuite = true) {
    std::vector<std::pair<std::string, std::string>> beside = {{dxtest::BesideProgram("DXSOCKS.DLL"), "DXSOCKS.DLL"}};
    if (withSuite) beside.emplace_back(dxtest::BesideProgram("KVTSOCK2.DLL"), "KVTSOCK2.DLL");
    // A host that ends with the registry still bound, without any clean-up, ends with 0.
    dxtest::ExpectCopiedCasePasses(beside, "XmlConfigChild.DISABLED_" + name);
}

TEST(XmlConfigTest, WithoutARegistryThereIsNoXml) { RunChild("NoRegistry"); }
TEST(XmlConfigTest, RegistryTextComesBackAndRebuildsTheSameRegistry) { RunChild("RoundTrip"); }
TEST(XmlConfigTest, BadTextReleasesTheFormerRegistry) { RunChild("BadText"); }
TEST(XmlConfigTest, EitherFamilyReplacesTheOthersRegistry) { RunChild("BothFamilies"); }
TEST(XmlConfigTest, WithoutTheSuiteLibraryNothingIsSet) { RunChild("NoSuite", false); }
TEST(XmlConfigTest, HostEndsWithoutCleanUpAfterSettingARegistry) { RunChild("ExitWithoutCleanUp"); }

const char kRegistry[] =
    "<Registry><Key name=\"HKEY_CURRENT_USER\"><Key name=\"Software\"><Key name=\"Verdane\">"
    "<Key name=\"Network Protocols\"><Key name=\"SOCKS\"><Value name=\"Count\" type=\"REG_DWORD\" data=\"1\"/>"
    "<Value name=\"Detect\" type=\"REG_SZ\" data=\"false\"/><Key name=\"1\">"
    "<Value name=\"Proxy Address\" type=\"REG_SZ\" data=\"Gu&#233;st.example\"/></Key></Key></Key></Key></Key>"
    "</Key></Registry>";

dxtest::Lines Framed(const char* name, int result) { return BareFrame(name, {" result = " + std::to_string(result)}); }

TEST(XmlConfigChild, DISABLED_NoRegistry) {
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_GetXMLConfig(), nullptr);
    EXPECT_EQ(HTTP_GetXMLConfig(), nullptr);
    EXPECT_EQ(capture.Lines(), Joined({Framed("SOCKS_GetXMLConfig", 0), Framed("HTTP_GetXMLConfig", 0)}));
}

TEST(XmlConfigChild, DISABLED_RoundTrip) {
    dxtest::LogCapture capture;
    ASSERT_EQ(SOCKS_SetXMLConfig(kRegistry), 1);
    const char* first = SOCKS_GetXMLConfig();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(capture.Lines(), Joined({Framed("SOCKS_SetXMLConfig", 1), Framed("SOCKS_GetXMLConfig", 1)}));
    const std::string text = first;
    EXPECT_NE(text.find("Count"), std::string::npos);
    EXPECT_NE(text.find("Gu"), std::string::npos);
    // Fed back, the text makes the same registry, which gives the same text.
    ASSERT_EQ(SOCKS_SetXMLConfig(text.c_str()), 1);
    const char* second = SOCKS_GetXMLConfig();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(std::string(second), text);
    // A null text is an empty registry.
    ASSERT_EQ(SOCKS_SetXMLConfig(nullptr), 1);
    const char* empty = SOCKS_GetXMLConfig();
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(std::string(empty).find("Count"), std::string::npos);
}

TEST(XmlConfigChild, DISABLED_BadText) {
    ASSERT_EQ(SOCKS_SetXMLConfig(kRegistry), 1);
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_SetXMLConfig("<Registry><Key name=\"HKEY_CURRENT_USER\">"), 0);
    EXPECT_EQ(SOCKS_GetXMLConfig(), nullptr);
    EXPECT_EQ(capture.Lines(), Joined({Framed("SOCKS_SetXMLConfig", 0), Framed("SOCKS_GetXMLConfig", 0)}));
    const std::string bomb =
        "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]>"
        "<Registry>&b;</Registry>";
    EXPECT_EQ(HTTP_SetXMLConfig(bomb.c_str()), 0);
    const std::string huge = "<Registry><Key name=\"HKEY_CURRENT_USER\"><Value name=\"v\" type=\"REG_SZ\" data=\"" +
                             std::string(10 * 1024 * 1024, 'x') + "\"/></Key></Registry>";
    // Ten megabytes of value are a registry like any other.
    ASSERT_EQ(SOCKS_SetXMLConfig(huge.c_str()), 1);
    ASSERT_NE(SOCKS_GetXMLConfig(), nullptr);
    EXPECT_GT(std::strlen(SOCKS_GetXMLConfig()), 10u * 1024 * 1024);
    EXPECT_EQ(SOCKS_SetXMLConfig("plain words"), 0);
    EXPECT_EQ(HTTP_GetXMLConfig(), nullptr);
}

TEST(XmlConfigChild, DISABLED_BothFamilies) {
    ASSERT_EQ(SOCKS_SetXMLConfig(kRegistry), 1);
    const std::string socks = SOCKS_GetXMLConfig();
    EXPECT_EQ(std::string(HTTP_GetXMLConfig()), socks);
    dxtest::LogCapture capture;
    ASSERT_EQ(HTTP_SetXMLConfig("<Registry/>"), 1);
    EXPECT_EQ(capture.Lines(), Framed("HTTP_SetXMLConfig", 1));
    const char* replaced = SOCKS_GetXMLConfig();
    ASSERT_NE(replaced, nullptr);
    EXPECT_EQ(std::string(replaced).find("Count"), std::string::npos);
}

TEST(XmlConfigChild, DISABLED_NoSuite) {
    ASSERT_FALSE(dxtest::FileExists(dxtest::ProgramDirectory() + "KVTSOCK2.DLL"));
    dxtest::LogCapture capture;
    EXPECT_EQ(SOCKS_SetXMLConfig(kRegistry), 0);
    EXPECT_EQ(HTTP_SetXMLConfig(kRegistry), 0);
    EXPECT_EQ(SOCKS_GetXMLConfig(), nullptr);
    EXPECT_EQ(capture.Lines(), Joined({Framed("SOCKS_SetXMLConfig", 0), Framed("HTTP_SetXMLConfig", 0),
                                       Framed("SOCKS_GetXMLConfig", 0)}));
}

TEST(XmlConfigChild, DISABLED_ExitWithoutCleanUp) {
    ASSERT_EQ(SOCKS_SetXMLConfig(kRegistry), 1);
    ASSERT_EQ(SOCKS_Startup(nullptr, 0), 1);
    // No SOCKS_Cleanup and no release: the process ends as it stands.
}

}  // namespace
