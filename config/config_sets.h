// The process's two sets of proxy maps, made at attach and freed at detach by the entry routine.
#pragma once

#include "http_config.h"
#include "socks_config.h"

extern CSocksConfig* g_pSocksConfig;
extern CHttpConfig* g_pHttpConfig;

// Makes the SOCKS set, then the HTTP set, each only where its pointer is null. What a constructor
// raises leaves here, and the HTTP set unmade when the SOCKS one raised; the entry routine catches it.
void CreateConfigSets();

// Clears and deletes each set that exists and nulls its pointer.
void DeleteConfigSets();
