// The companion libraries as files: each carries the version of the build, and names itself.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "companion_support.h"

namespace {

struct Version {
    bool found = false;
    DWORD fileMS = 0;
    DWORD fileLS = 0;
    std::string fileVersion;
    std::string originalName;
};

std::string StringValue(std::vector<char>& block, const char* name) {
    char* value = nullptr;
    UINT length = 0;
    std::string key = std::string("\\StringFileInfo\\040904E4\\") + name;
    if (!VerQueryValueA(block.data(), key.c_str(), reinterpret_cast<void**>(&value), &length) || value == nullptr) {
        return "";
    }
    return value;
}

Version ReadVersion(const std::string& path) {
    Version version;
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
    if (size == 0) return version;
    std::vector<char> block(size);
    if (!GetFileVersionInfoA(path.c_str(), 0, size, block.data())) return version;
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    if (!VerQueryValueA(block.data(), "\\", reinterpret_cast<void**>(&fixed), &length) || fixed == nullptr) {
        return version;
    }
    version.found = true;
    version.fileMS = fixed->dwFileVersionMS;
    version.fileLS = fixed->dwFileVersionLS;
    version.fileVersion = StringValue(block, "FileVersion");
    version.originalName = StringValue(block, "OriginalFilename");
    return version;
}

TEST(CompanionFilesTest, EachLibraryCarriesTheBuildsVersion) {
    unsigned major = 0, minor = 0, build = 0, revision = 0;
    ASSERT_EQ(std::sscanf(DX_PROJECT_VERSION, "%u.%u.%u.%u", &major, &minor, &build, &revision), 4);
    for (const char* name : {"KVTSOCK2.DLL", "DXSOCKS_0409.DLL", "pxmSetUI.dll"}) {
        Version version = ReadVersion(ctest::ProgramFolder() + "\\" + name);
        ASSERT_TRUE(version.found) << name;
        EXPECT_EQ(version.fileMS, MAKELONG(minor, major)) << name;
        EXPECT_EQ(version.fileLS, MAKELONG(revision, build)) << name;
        EXPECT_EQ(version.fileVersion, DX_PROJECT_VERSION) << name;
        EXPECT_EQ(version.originalName, name);
    }
}

TEST(CompanionFilesTest, TheHelpPagesLieInTheHelpFolder) {
    for (const char* page : {"index.html", "socks.html", "http.html"}) {
        EXPECT_TRUE(ctest::Exists(ctest::ProgramFolder() + "\\help\\" + page)) << page;
    }
}

}  // namespace
