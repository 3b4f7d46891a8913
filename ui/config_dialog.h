// The configuration dialogs of both families: a main dialog with a simple and a full view over the
// family's global set of proxy maps, edited in place, and a map dialog for one map. One set of flows
// serves both families; what differs between them is a table of the family (config_dialog.cpp).
#pragma once

#include <windows.h>

#include "proxy_map.h"

enum class ConfigFamily { kSocks, kHttp };

// The whole editing cycle on the family's global set: read afresh, run the main dialog over `owner`
// (unowned when IsWindow refuses it), write the settings file on OK, read afresh on anything else.
// 1 exactly when the user pressed OK, also when the save failed.
int RunSocksConfiguration(HWND owner);
int RunHttpConfiguration(HWND owner);

// 1 when the simple view cannot show `record` whole. SOCKS: a direct map with a proxy address, a
// destination, a proxy port other than "1080" or a user other than "Guest" (invariant locale, case
// ignored); HTTP: the first three only, compared by lstrcmpiA. A null record is not customised.
int MapIsCustomised(ConfigFamily family, const CProxyMap* record);

// SOCKS_ConfigurationDialog and HTTP_ConfigurationDialog in their log frame under `exportName`:
// the single-instance guard of the family's global atom around the editing cycle.
int ConfigurationDialogExport(const char* exportName, ConfigFamily family, HWND owner);
// SOCKS_ShowXMLConfigDlg and HTTP_ShowXMLConfigDlg: the same guard around an empty in-memory registry
// of the family, the editing cycle, and that registry's text when the user pressed OK; else null.
const char* ShowXmlConfigDialogExport(const char* exportName, ConfigFamily family, HWND owner);
