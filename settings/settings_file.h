// The settings file: CPXMSettings, the document of that file in memory, and SettingsDocument, the
// process's one document. The suite library names the file; its text is the root element under a
// fixed frame (settings_text.h).
#pragma once

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
// becomes null); 1 when SettingsDocument holds the file's document.
int ReadSettingsDocument();
