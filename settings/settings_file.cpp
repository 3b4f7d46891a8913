#include "settings_file.h"

#include <share.h>

#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "settings_text.h"
#include "suite_library.h"

CPXMSettings* SettingsDocument = nullptr;

namespace {

// The path the suite library puts into the zeroed buffer, and its answer, not 0 on success.
DWORD SettingsFilePath(char (&path)[kSuitePathSize]) {
    CPXMMSI suite(nullptr, nullptr);
    DWORD answer = suite.getGlobalSettingsFile(path, kSuitePathSize);
    path[kSuitePathSize - 1] = '\0';
    return answer;
}

// The settings file as read: where it stood, how long it was and when it was last written.
struct FileStamp {
    std::string path;
    uint64_t size = 0;
    uint64_t written = 0;
    bool operator==(const FileStamp& other) const {
        return path == other.path && size == other.size && written == other.written;
    }
};

// The stamp of the file the document `document` was parsed from; both threads of the families read
// and write it, so it is looked at and changed only under its lock.
std::mutex g_stampLock;
FileStamp g_stamp;
const CPXMSettings* g_stampedDocument = nullptr;
// Counts the stamped parses; the one of g_stampedDocument.
uint64_t g_stampSerial = 0;

// The stamp of the open `file` at `path`; false when the system cannot tell.
bool StampOf(FILE* file, const char* path, FileStamp& stamp) {
    char full[kSuitePathSize] = {};
    DWORD length = GetFullPathNameA(path, kSuitePathSize, full, nullptr);
    if (length == 0 || length >= kSuitePathSize) return false;
    intptr_t handle = _get_osfhandle(_fileno(file));
    // Size and time alone: a query that also names the volume asks Wine's mount manager each time,
    // some hundreds of microseconds.
    LARGE_INTEGER size = {};
    FILETIME written = {};
    if (handle == -1 || !GetFileSizeEx(reinterpret_cast<HANDLE>(handle), &size) ||
        !GetFileTime(reinterpret_cast<HANDLE>(handle), nullptr, nullptr, &written)) {
        return false;
    }
    stamp.path = full;
    stamp.size = static_cast<uint64_t>(size.QuadPart);
    stamp.written = (static_cast<uint64_t>(written.dwHighDateTime) << 32) | written.dwLowDateTime;
    return true;
}

// The rest of the open file's bytes.
void ReadAll(FILE* file, std::string& bytes) {
    char block[65536];
    size_t count;
    while ((count = std::fread(block, 1, sizeof block, file)) > 0) bytes.append(block, count);
}

// The file's bytes; false when it cannot be opened.
bool ReadSettingsBytes(std::string& bytes) {
    bytes.clear();
    char path[kSuitePathSize] = {};
    if (SettingsFilePath(path) == 0) return false;
    // Any other opener may read and write meanwhile: a partial text then counts as corrupt.
    FILE* file = _fsopen(path, "rb", _SH_DENYNO);
    if (file == nullptr) return false;
    ReadAll(file, bytes);
    std::fclose(file);
    return true;
}

}  // namespace

CPXMSettings::CPXMSettings(const char* text, HRESULT* result) : CXML(text, result) {
    HRESULT outcome = result != nullptr ? *result : S_OK;
    if (FAILED(outcome) || (text != nullptr && text[0] != '\0')) return;
    outcome = CreateRoot(L"Settings", L"version", kSettingsVersion);
    if (result != nullptr) *result = outcome;
}

HRESULT CPXMSettings::GetXml(std::wstring& result, IXMLDOMNode* node) {
    result.clear();
    if (node == nullptr) node = XmlRoot;
    if (node == nullptr) return kXmlNotFound;
    BSTR xml = nullptr;
    HRESULT outcome = node->get_xml(&xml);
    if (SUCCEEDED(outcome) && xml != nullptr) result.assign(xml, SysStringLen(xml));
    SysFreeString(xml);
    return outcome;
}

std::string CPXMSettings::GetVersion() {
    IXMLDOMNode* settings = nullptr;
    std::string version;
    if (SelectSingleNode(XmlRoot, L"//Settings", &settings) == S_OK && settings != nullptr) {
        char* text = GetNamedItemText(settings, L"version", nullptr);
        if (text != nullptr) version = text;
        std::free(text);
    }
    if (settings != nullptr) settings->Release();
    return version;
}

CPXMSettings* CreateSettings(const char* text) {
    HRESULT result = kXmlBadArgument;
    if (text != nullptr && text[0] == '\0') text = nullptr;
    auto* settings = new (std::nothrow) CPXMSettings(text, &result);
    if (settings == nullptr) return nullptr;
    if (SUCCEEDED(result)) return settings;
    delete settings;
    return nullptr;
}

int WriteSettingsFile(const std::wstring& text) {
    std::string bytes = SettingsFileBytes(kSettingsFileHead + text);
    char path[kSuitePathSize] = {};
    // The answer is not looked at: without a path the open fails.
    SettingsFilePath(path);
    // Kept: the file is cut in place as it opens, with no temporary to fall back on; a failure from
    // here on loses what it held. The folder is not made here.
    FILE* file = _fsopen(path, "wb", _SH_DENYNO);
    if (file == nullptr) return 0;
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::fclose(file);
    // The file was opened: whether all of it went out is not told.
    return 1;
}

bool ReadSettingsText(std::wstring& result) {
    std::string bytes;
    result.clear();
    if (!ReadSettingsBytes(bytes)) return false;
    result = SettingsFileText(bytes);
    return true;
}

int ReadSettingsDocument() {
    char path[kSuitePathSize] = {};
    if (SettingsFilePath(path) == 0) return 0;
    FILE* file = _fsopen(path, "rb", _SH_DENYNO);
    if (file == nullptr) return 0;
    // Taken before the bytes: a write that lands meanwhile gives the next read a new stamp.
    FileStamp stamp;
    bool stamped = StampOf(file, path, stamp);
    if (stamped && stamp.size != 0) {
        std::lock_guard<std::mutex> hold(g_stampLock);
        if (g_stampedDocument != nullptr && g_stampedDocument == SettingsDocument && stamp == g_stamp) {
            std::fclose(file);
            return 1;
        }
    }
    std::string text;
    ReadAll(file, text);
    std::fclose(file);
    if (text.empty()) return 0;
    // Kept: the former document is never released, here or at detach; it lives to the end of the
    // process.
    CPXMSettings* document = CreateSettings(text.c_str());
    SettingsDocument = document;
    {
        std::lock_guard<std::mutex> hold(g_stampLock);
        g_stamp = stamp;
        g_stampedDocument = stamped ? document : nullptr;
        ++g_stampSerial;
    }
    return document != nullptr ? 1 : 0;
}

uint64_t UnchangedDocumentSerial(const CPXMSettings* document) {
    std::lock_guard<std::mutex> hold(g_stampLock);
    return document != nullptr && document == g_stampedDocument ? g_stampSerial : 0;
}

void ForgetSettingsStamp(const CPXMSettings* document) {
    std::lock_guard<std::mutex> hold(g_stampLock);
    if (document == g_stampedDocument) g_stampedDocument = nullptr;
}
