#include "settings_file.h"

#include <share.h>

#include <cstdio>
#include <cstdlib>
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

// The file's bytes; false when it cannot be opened.
bool ReadSettingsBytes(std::string& bytes) {
    bytes.clear();
    char path[kSuitePathSize] = {};
    if (SettingsFilePath(path) == 0) return false;
    // Any other opener may read and write meanwhile: a partial text then counts as corrupt.
    FILE* file = _fsopen(path, "rb", _SH_DENYNO);
    if (file == nullptr) return false;
    char block[65536];
    size_t count;
    while ((count = std::fread(block, 1, sizeof block, file)) > 0) bytes.append(block, count);
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
    std::string text;
    if (!ReadSettingsBytes(text) || text.empty()) return 0;
    // Kept: the former document is never released, here or at detach; it lives to the end of the
    // process.
    SettingsDocument = CreateSettings(text.c_str());
    return SettingsDocument != nullptr ? 1 : 0;
}
