// The text form of the in-memory registry, read and written by hand for exactly this grammar (the
// public header dxsocks_types.h documents it for hosts, under "XML registry text"):
//
//   <Registry>
//     <Key name="HKEY_CURRENT_USER">
//       <Key name="Software" class="optional class">
//         <Value name="Count" type="REG_DWORD" data="2"/>
//         <Value name="List" type="REG_MULTI_SZ"><String>a</String><String>b</String></Value>
//         <Value name="Odd" type="9" hex="0a0b"/>
//       </Key>
//     </Key>
//   </Registry>
//
// Free of the Windows API. Neither side recurses deeper than the registry's depth, and no reference
// expands to more than one byte, so memory stays in proportion to the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "xml_registry_model.h"

namespace xmlreg {

// Reads `length` bytes of `text` into `registry`, which should be fresh; kOk, or kBadText for text
// outside the grammar (the registry then holds part of it and is to be dropped).
int32_t ReadText(const char* text, size_t length, Registry& registry);

// The registry's content in the grammar; read back it gives the same content.
std::string WriteText(const Registry& registry);

}  // namespace xmlreg
