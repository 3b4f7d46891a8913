// The proxy maps in the settings file: the count of a family's maps read as a number, and what both
// families' readers and writers share. The sets' own operations stand in socks_config.h and
// http_config.h, the document's in settings_maps.h.
#pragma once

#include <cstdint>

#include "settings_maps.h"

// The family's `count`: -1 when Maps or the attribute is missing, else the number of its text
// (config_number.h), which raises when the text holds none.
int GetMapCount(CMapStore& store);

// The decimal text of a map's number, as its id.
void FormatMapId(wchar_t (&id)[16], int32_t number);
