/*
 * The proxy configuration of DXSOCKS.DLL as XML text, for a caller outside the library. Compiles as C
 * and as C++.
 */
#ifndef DXSOCKS_CONFIG_API_H
#define DXSOCKS_CONFIG_API_H

#include <wtypes.h>

#include "dxsocks_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Both families' proxy maps, HTTP first, as the settings file's root element <Settings> (without the
 * file's XML declaration): read from the settings file, else from the registry, as at load. The text
 * goes to *text, which the caller frees with SysFreeString; the result is its length in characters.
 * Without HKEY_CURRENT_USER\Software\Verdane: *text null and 0xFFFFFFFF, even when a settings file
 * exists; other failures give 0xFFFFFFFF and leave *text as it was. No file is written. A number in the
 * settings file that is none raises std::invalid_argument or std::out_of_range to the caller.
 */
DXSOCKS_API unsigned int GetRegConfig(BSTR* text);

#ifdef __cplusplus
}
#endif

#endif
