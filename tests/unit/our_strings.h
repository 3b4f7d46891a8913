// Our English strings as DXSOCKS_0409.DLL holds them, for the tests whose CTest registration sets
// DXTEST_OUR_STRINGS (module_environment.cpp); and a fixture that fails unless they are loaded.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "dxsocks_ids.h"
#include "suite_library.h"

namespace dxtest {

constexpr char kAnyHostWord[] = "Any host";         // IDS_ANY_HOST
constexpr char kAnyPortWord[] = "Any";              // IDS_PORT_FIRST
constexpr char kDirectWord[] = "Direct (no proxy)";  // IDS_DIRECT
// IDS_HOST_PORT is "%s:%s".
inline std::string HostPort(const std::string& host, const std::string& port) { return host + ":" + port; }
// IDR_PROXY_UNRESOLVED, with its argument.
inline std::string UnresolvedReport(const std::string& host) {
    return "Cannot resolve the host name " + host + " of a proxy map.";
}

class OurStringsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char word[32] = {};
        g_resourceLibrary.LoadResourceString(IDS_ANY_HOST, word, sizeof word);
        ASSERT_STREQ(word, kAnyHostWord) << "run through CTest, whose registration sets DXTEST_OUR_STRINGS";
    }
};

}  // namespace dxtest
