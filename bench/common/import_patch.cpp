#include "import_patch.h"

#include <cstring>

namespace dxbench {
namespace {

template <typename T>
T* At(HMODULE module, ULONG_PTR offset) {
    return reinterpret_cast<T*>(reinterpret_cast<BYTE*>(module) + offset);
}

}  // namespace

void* PatchImport(HMODULE module, const char* dll, const char* name, void* replacement) {
    if (module == nullptr) return nullptr;
    auto* dos = At<IMAGE_DOS_HEADER>(module, 0);
    auto* nt = At<IMAGE_NT_HEADERS>(module, static_cast<ULONG_PTR>(dos->e_lfanew));
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (imports.VirtualAddress == 0) return nullptr;
    for (auto* descriptor = At<IMAGE_IMPORT_DESCRIPTOR>(module, imports.VirtualAddress); descriptor->Name != 0;
         ++descriptor) {
        if (_stricmp(At<char>(module, descriptor->Name), dll) != 0) continue;
        auto* names = At<IMAGE_THUNK_DATA>(module, descriptor->OriginalFirstThunk);
        auto* slots = At<IMAGE_THUNK_DATA>(module, descriptor->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            auto* byName = At<IMAGE_IMPORT_BY_NAME>(module, names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(byName->Name), name) != 0) continue;
            DWORD old = 0;
            if (!VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, PAGE_READWRITE, &old)) return nullptr;
            void* original = reinterpret_cast<void*>(slots->u1.Function);
            slots->u1.Function = reinterpret_cast<ULONG_PTR>(replacement);
            VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, old, &old);
            return original;
        }
    }
    return nullptr;
}

}  // namespace dxbench
