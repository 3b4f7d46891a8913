// The sets of proxy maps as the entry routine makes them at attach and frees them at detach. Once the
// stores' readers exist, making the sets reads the settings file and the Software\Verdane keys: the
// CTest registration holds the settings_store lock and each case starts from a cleared store.
#include <gtest/gtest.h>

#include "config_sets.h"
#include "test_helpers.h"

namespace {

class ConfigSetsTest : public ::testing::Test {
protected:
    void SetUp() override {
        dxtest::ClearSettingsStore();
        ASSERT_EQ(g_pSocksConfig, nullptr);
        ASSERT_EQ(g_pHttpConfig, nullptr);
    }
    void TearDown() override {
        DeleteConfigSets();
        dxtest::ClearSettingsStore();
    }
};

TEST_F(ConfigSetsTest, AttachMakesBothSetsEmptyAndDetachFreesThem) {
    CreateConfigSets();
    ASSERT_NE(g_pSocksConfig, nullptr);
    ASSERT_NE(g_pHttpConfig, nullptr);
    EXPECT_EQ(g_pSocksConfig->Count(), 0u);
    EXPECT_EQ(g_pHttpConfig->Count(), 0u);
    EXPECT_EQ(g_pSocksConfig->MigrationState, -1);
    EXPECT_EQ(g_pHttpConfig->MigrationState, -1);
    // Maps in the sets go with them.
    g_pSocksConfig->Append(CSocksConfig::NewMap());
    g_pHttpConfig->Append(CHttpConfig::NewMap());
    DeleteConfigSets();
    EXPECT_EQ(g_pSocksConfig, nullptr);
    EXPECT_EQ(g_pHttpConfig, nullptr);
    // A second detach finds nothing to free.
    DeleteConfigSets();
    EXPECT_EQ(g_pSocksConfig, nullptr);
}

TEST_F(ConfigSetsTest, AttachMakesOnlyTheSetsThatAreMissing) {
    auto* socks = new CSocksConfig();
    socks->MigrationState = 0;
    g_pSocksConfig = socks;
    CreateConfigSets();
    EXPECT_EQ(g_pSocksConfig, socks);
    EXPECT_EQ(g_pSocksConfig->MigrationState, 0);
    ASSERT_NE(g_pHttpConfig, nullptr);
    CHttpConfig* http = g_pHttpConfig;
    CreateConfigSets();
    EXPECT_EQ(g_pSocksConfig, socks);
    EXPECT_EQ(g_pHttpConfig, http);
}

}  // namespace
