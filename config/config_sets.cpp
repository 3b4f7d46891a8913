#include "config_sets.h"

CSocksConfig* g_pSocksConfig = nullptr;
CHttpConfig* g_pHttpConfig = nullptr;

void CreateConfigSets() {
    if (g_pSocksConfig == nullptr) g_pSocksConfig = new CSocksConfig();
    if (g_pHttpConfig == nullptr) g_pHttpConfig = new CHttpConfig();
}

void DeleteConfigSets() {
    if (g_pSocksConfig != nullptr) {
        g_pSocksConfig->Clear();
        delete g_pSocksConfig;
        g_pSocksConfig = nullptr;
    }
    if (g_pHttpConfig != nullptr) {
        g_pHttpConfig->Clear();
        delete g_pHttpConfig;
        g_pHttpConfig = nullptr;
    }
}
