// The settings file: CPXMSettings, the document of that file in memory, and SettingsDocument, the
// process's one document. The suite library names the file; its text is the root element under a
// fixed frame (settings_text.h).
#pragma once

#include <cstdint>
#include <string>

#include "xml_document.h"

// The stamp a new document's root carries; a parsed document keeps the one it came with.
constexpr wchar_t kSettingsVersion[] = L"25..2..0";

class CPXMSettings : public CXML {
public:
    // Parses `text`, or with a null or empty one starts a new document whose root is
    // <Settings version="25..2..0">.
    CPXMSettings(const char* text, HRESULT* result);
    virtual ~CPXMSettings() = default;

    // The XML text of `node` (null: the root element); empty when it cannot be read.
    HRESULT GetXml(std::wstring& result, IXMLDOMNode* node = nullptr);
    // The version attribute of the root as ANSI text, empty when there is none.
    std::string GetVersion();

    // The proxy maps of the family `type` ("SOCKS", "HTTP"), each by its selection from the root
    // (settings_maps.h has the same on an index of the document, and what each does).
    HRESULT GetMapCountText(const wchar_t* type, std::string& text);
    HRESULT SetMapCount(const wchar_t* type, int32_t count);
    HRESULT GetMapValue(const wchar_t* type, const wchar_t* id, const wchar_t* name, std::string& result);
    HRESULT SetMapValue(const wchar_t* type, const wchar_t* id, const wchar_t* name, const char* value);

private:
    friend class CMapStore;
};

// The process's document, or null: no file parsed and no new document started. Not null means that
// the configuration lives in XML.
extern CPXMSettings* SettingsDocument;

// A new document of `text` (null or empty: a new one), or null when it does not parse.
CPXMSettings* CreateSettings(const char* text);

// Writes the frame and `text` over the settings file, cutting it first. 1 once the file is open, even
// when not all of the text could be written; 0 when it cannot be opened (no path, no folder).
int WriteSettingsFile(const std::wstring& text);

// The settings file's whole text; false, and an empty text, when it cannot be read.
bool ReadSettingsText(std::wstring& result);

// Reads and parses the settings file into SettingsDocument. 0 when there is no path, no file or an
// empty one (SettingsDocument stays as it was), and when the text does not parse (SettingsDocument
// becomes null); 1 when SettingsDocument holds the file's document. A file of the same full path,
// size and last-write time as the one parsed into the document held now is not parsed again: that
// document stays, and the answer is 1. (Former documents are never released, so a host that
// determines all day would otherwise grow with every read.)
int ReadSettingsDocument();

// Not 0 while `document` is the one parsed last from the file and has not changed since: a number of
// that parse, which no other parse shares, so that what was read from the document then still holds.
uint64_t UnchangedDocumentSerial(const CPXMSettings* document);

// Any change to `document` in memory: when it is the one parsed last, the next read parses the file
// again, whether or not the change reached the file.
void ForgetSettingsStamp(const CPXMSettings* document);
