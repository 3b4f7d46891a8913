// The suite library's registry text: any text either fails with 13 or reads into a registry whose
// written text reads back into the same registry and is written the same again.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "xml_registry_model.h"
#include "xml_registry_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    xmlreg::Registry first;
    int32_t code = xmlreg::ReadText(reinterpret_cast<const char*>(data), size, first);
    if (code != xmlreg::kOk) {
        if (code != xmlreg::kBadText) std::abort();
        return 0;
    }
    std::string text = xmlreg::WriteText(first);
    xmlreg::Registry second;
    if (xmlreg::ReadText(text.data(), text.size(), second) != xmlreg::kOk) std::abort();
    if (!xmlreg::SameContent(first, second)) std::abort();
    if (xmlreg::WriteText(second) != text) std::abort();
    return 0;
}
