// CXML: the one document through which the library touches XML, on the COM XML service. It holds a
// document and its root element; every query starts at the root, and the text given back for saving
// is the root's, so whatever stands outside the root element is never seen again.
#pragma once

#include <windows.h>
#include <msxml2.h>

// Results of the class besides the XML service's own.
constexpr HRESULT kXmlBadArgument = static_cast<HRESULT>(0x80070057);  // E_INVALIDARG, also a parse failure
constexpr HRESULT kXmlNotFound = static_cast<HRESULT>(0x80004005);     // E_FAIL
constexpr HRESULT kXmlNoDocument = static_cast<HRESULT>(0x80070006);   // E_HANDLE

// Sees each error line the class forms, which otherwise goes nowhere; null by default.
using XmlTraceHook = void (*)(const wchar_t* line);
void SetXmlTraceHook(XmlTraceHook hook);

class CXML {
public:
    // Builds the document and, when `text` is neither null nor empty, parses it. The object stands
    // whatever happened; `result` receives the outcome, in which the last step alone decides.
    CXML(const char* text, HRESULT* result);
    ~CXML();
    CXML(const CXML&) = delete;
    CXML& operator=(const CXML&) = delete;

    // Parses narrow text of the process's code page, whatever encoding it declares.
    HRESULT LoadXml(const char* text);
    IXMLDOMElement* GetRootNode() const { return XmlRoot; }
    // 0 and the node, kXmlNotFound and null when nothing matches, kXmlBadArgument for a null argument.
    HRESULT SelectSingleNode(IXMLDOMNode* node, const wchar_t* xpath, IXMLDOMNode** result);
    // A copy (free it with free) of the attribute's text, or null.
    wchar_t* GetNamedItem(IXMLDOMNode* node, const wchar_t* name);
    // The same as ANSI text; a missing attribute gives a copy of `fallback` when there is one.
    char* GetNamedItemText(IXMLDOMNode* node, const wchar_t* name, const wchar_t* fallback);
    // A new element, not attached, owned by the caller; the attribute only with a name and a value.
    IXMLDOMElement* CreateElement(const wchar_t* name, const wchar_t* attributeName, const wchar_t* attributeValue);
    HRESULT CreateRoot(const wchar_t* name, const wchar_t* attributeName, const wchar_t* attributeValue);
    HRESULT SetNodeAttribute(IXMLDOMElement* element, const wchar_t* name, const wchar_t* value);
    wchar_t* GetNodeText(IXMLDOMNode* node);
    char* GetNodeTextAnsi(IXMLDOMNode* node);
    int SetNodeText(IXMLDOMNode* node, const char* text);

    // ANSI copy of `text` of at least `minimumSize` + 1 bytes; a null text gives an empty one of
    // that size when it is positive, else null.
    static char* WideToAnsi(const wchar_t* text, int minimumSize);
    static wchar_t* DupWide(const wchar_t* text);

protected:
    HRESULT ComState;
    IXMLDOMElement* XmlRoot;
    IXMLDOMDocument2* XmlDocument;

private:
    void ReportParseError();
    static void ReportError(HRESULT code, const wchar_t* format, ...);
};
