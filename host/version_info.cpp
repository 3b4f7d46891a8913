#include "version_info.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "bounded_text.h"
#include "log.h"

OsVersionCache g_osVersion = {0, 0, 0};
const char* g_versionSourceFile = nullptr;

namespace {

constexpr DWORD kVersionRecordSize = sizeof(VersionRecord);
static_assert(sizeof(DXSOCKS_VERSION_RECORD) == kVersionRecordSize, "the public record is the same 74 bytes");

// Reads the product version text of the system file into the cache.
void FillVersionCache() {
    char path[261] = {};
    if (g_versionSourceFile != nullptr) {
        CopyText(path, g_versionSourceFile);
    } else {
        UINT length = GetSystemDirectoryA(path, sizeof path);
        if (length > 0 && length < sizeof path - sizeof "\\KERNEL32.DLL") {
            BoundedWriter joined(path + length, sizeof path - length);
            joined.Put("\\KERNEL32.DLL");
        } else {
            CopyText(path, "KERNEL32.DLL");
        }
    }
    DWORD handle = 0;
    DWORD size = GetFileVersionInfoSizeA(path, &handle);
    if (size == 0) return;
    std::unique_ptr<char[]> block(new (std::nothrow) char[size + 1]);
    if (!block || !GetFileVersionInfoA(path, 0, size, block.get())) return;

    void* translation = nullptr;
    UINT translationLength = 0;
    if (!VerQueryValueA(block.get(), "\\VarFileInfo\\Translation", &translation, &translationLength) ||
        translation == nullptr || translationLength < 4 || *static_cast<const char*>(translation) == 0) {
        return;
    }
    const WORD* words = static_cast<const WORD*>(translation);
    char query[64];
    std::snprintf(query, sizeof query, "\\StringFileInfo\\%04x%04x\\ProductVersion", words[0], words[1]);
    void* text = nullptr;
    UINT textLength = 0;
    if (!VerQueryValueA(block.get(), query, &text, &textLength) || text == nullptr || textLength == 0) return;
    const char* version = static_cast<const char*>(text);
    if (version[0] == '\0') return;
    // The block ends the text; copy it so that a text without a terminator stays inside the block.
    char copy[128] = {};
    size_t length = strnlen(version, textLength);
    if (length >= sizeof copy) length = sizeof copy - 1;
    std::memcpy(copy, version, length);
    ParseProductVersion(copy, g_osVersion);
}

}  // namespace

int CopyVersionRecord(const char* name, void* out, int size) {
    ExportLog log(name);
    if (out == nullptr) {
        log.End();
        return 0;
    }
    // Widened with its sign and compared without it: a negative size copies the whole record.
    unsigned long long wanted = static_cast<unsigned long long>(static_cast<long long>(size));
    size_t count = wanted < kVersionRecordSize ? static_cast<size_t>(wanted) : kVersionRecordSize;
    std::memcpy(out, &g_versionRecord, count);
    // Kept: the success path logs no end line.
    return 1;
}

DWORD ReadSystemFileVersion(OSVERSIONINFOA* info) {
    if (g_osVersion.osMajor == 0) FillVersionCache();
    if (g_osVersion.osMajor == 0) return GetVersion();
    if (info != nullptr) {
        info->dwMajorVersion = g_osVersion.osMajor;
        info->dwMinorVersion = g_osVersion.osMinor;
        info->dwBuildNumber = g_osVersion.osBuild;
    }
    return PackVersion(g_osVersion);
}

DWORD GetTrueVersion() {
    DWORD version = GetVersion();
    BYTE major = LOBYTE(LOWORD(version));
    BYTE minor = HIBYTE(LOWORD(version));
    if (major < 6 || (major == 6 && minor < 2)) return version;
    return ReadSystemFileVersion(nullptr);
}

BOOL GetTrueVersionEx(OSVERSIONINFOEXA* info) {
    std::memset(info, 0, sizeof *info);
    info->dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXA);
    BOOL result = GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(info));
    if (!result) {
        info->dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
        result = GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(info));
        if (!result) return result;
    }
    if (info->dwMajorVersion > 6 || (info->dwMajorVersion == 6 && info->dwMinorVersion >= 2)) {
        ReadSystemFileVersion(reinterpret_cast<OSVERSIONINFOA*>(info));
    }
    return result;
}

void GetNativeInfo(SYSTEM_INFO* info) {
    std::memset(info, 0, sizeof *info);
    using NativeInfoEntry = void(WINAPI*)(SYSTEM_INFO*);
    HMODULE kernel = GetModuleHandleA("kernel32.dll");
    auto entry = reinterpret_cast<NativeInfoEntry>(
        reinterpret_cast<void*>(kernel != nullptr ? GetProcAddress(kernel, "GetNativeSystemInfo") : nullptr));
    if (entry != nullptr) {
        entry(info);
    } else {
        GetSystemInfo(info);
    }
}
