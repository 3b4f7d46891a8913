#include "xml_document.h"

#include <comdef.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "log.h"
#include "settings_text.h"

namespace {

// MinGW's msxml2.h maps CLSID_DOMDocument to the version-2 class: the identities are spelt out here.
const CLSID kDomDocumentClass = {0xF6D90F11, 0x9C73, 0x11D3, {0xB3, 0x2E, 0x00, 0xC0, 0x4F, 0x99, 0x0B, 0xB4}};
const IID kDomDocument2Interface = {0x2933BF95, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

XmlTraceHook g_traceHook = nullptr;

// A string of the XML service, freed at the end of the scope. Out of memory raises _com_error.
class Bstr {
public:
    Bstr() = default;
    explicit Bstr(const wchar_t* text) : value(SysAllocString(text != nullptr ? text : L"")) {
        if (value == nullptr) _com_issue_error(E_OUTOFMEMORY);
    }
    ~Bstr() { SysFreeString(value); }
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;

    BSTR Get() const { return value; }
    BSTR* Out() {
        SysFreeString(value);
        value = nullptr;
        return &value;
    }
    // The service's null string reads as empty.
    const wchar_t* Text() const { return value != nullptr ? value : L""; }

private:
    BSTR value = nullptr;
};

// A string variant, cleared at the end of the scope.
class StringVariant {
public:
    explicit StringVariant(const wchar_t* text) {
        VariantInit(&value);
        value.vt = VT_BSTR;
        value.bstrVal = SysAllocString(text != nullptr ? text : L"");
        if (value.bstrVal == nullptr) _com_issue_error(E_OUTOFMEMORY);
    }
    ~StringVariant() { VariantClear(&value); }
    StringVariant(const StringVariant&) = delete;
    StringVariant& operator=(const StringVariant&) = delete;
    const VARIANT& Get() const { return value; }

private:
    VARIANT value;
};

template <typename Interface>
void Release(Interface*& object) {
    if (object != nullptr) object->Release();
    object = nullptr;
}

}  // namespace

void SetXmlTraceHook(XmlTraceHook hook) { g_traceHook = hook; }

CXML::CXML(const char* text, HRESULT* result) : ComState(1), XmlRoot(nullptr), XmlDocument(nullptr) {
    HRESULT outcome;
    ComState = CoInitialize(nullptr);
    outcome = CoCreateInstance(kDomDocumentClass, nullptr, CLSCTX_INPROC_SERVER, kDomDocument2Interface,
                               reinterpret_cast<void**>(&XmlDocument));
    if (SUCCEEDED(outcome)) {
        // Each setting overwrites the result of the one before: the last alone decides.
        outcome = XmlDocument->put_resolveExternals(VARIANT_TRUE);
        outcome = XmlDocument->put_async(VARIANT_FALSE);
        outcome = XmlDocument->put_preserveWhiteSpace(VARIANT_TRUE);
        outcome = XmlDocument->put_validateOnParse(VARIANT_FALSE);
        Bstr name(L"SelectionLanguage");
        StringVariant language(L"XPath");
        outcome = XmlDocument->setProperty(name.Get(), language.Get());
    }
    if (SUCCEEDED(outcome) && text != nullptr && text[0] != '\0') {
        outcome = LoadXml(text);
        if (SUCCEEDED(outcome)) outcome = XmlDocument->get_documentElement(&XmlRoot);
    }
    if (FAILED(outcome)) ReportError(outcome, L"CXML() failed.");
    if (result != nullptr) *result = outcome;
}

CXML::~CXML() {
    Release(XmlRoot);
    Release(XmlDocument);
    // An apartment that stood before this object (1) or could not be entered is not this object's to leave.
    if (ComState == 0) CoUninitialize();
}

HRESULT CXML::LoadXml(const char* text) {
    if (XmlDocument == nullptr) return kXmlNoDocument;
    if (text == nullptr) return kXmlBadArgument;
    size_t length = std::strlen(text);
    if (length > static_cast<size_t>(INT_MAX)) return kXmlBadArgument;
    Bstr wide;
    int count = 0;
    if (length > 0) {
        count = MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(length), nullptr, 0);
        if (count == 0) _com_issue_error(HRESULT_FROM_WIN32(GetLastError()));
    }
    *wide.Out() = SysAllocStringLen(nullptr, static_cast<UINT>(count));
    if (wide.Get() == nullptr) _com_issue_error(E_OUTOFMEMORY);
    if (count > 0 && MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(length), wide.Get(), count) == 0) {
        _com_issue_error(HRESULT_FROM_WIN32(GetLastError()));
    }
    VARIANT_BOOL loaded = VARIANT_FALSE;
    HRESULT outcome = XmlDocument->loadXML(wide.Get(), &loaded);
    if (outcome == S_OK && loaded != VARIANT_FALSE) return S_OK;
    ReportParseError();
    return kXmlBadArgument;
}

void CXML::ReportParseError() {
    IXMLDOMParseError* error = nullptr;
    if (XmlDocument == nullptr || FAILED(XmlDocument->get_parseError(&error)) || error == nullptr) return;
    Bstr reason;
    if (SUCCEEDED(error->get_reason(reason.Out())) && reason.Get() != nullptr) {
        long line = 0;
        error->get_line(&line);
    }
    // The position of a parse failure reaches no user and no log.
    error->Release();
}

void CXML::ReportError(HRESULT code, const wchar_t* format, ...) {
    wchar_t* message = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                   nullptr, static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                   reinterpret_cast<wchar_t*>(&message), 0, nullptr);
    wchar_t line[kErrorLineSize];
    // Kept: the format is set down as a plain text; its own arguments are never expanded into the line.
    FormatErrorLine(format, static_cast<uint32_t>(code), message, line);
    if (message != nullptr) LocalFree(message);
    // The line goes nowhere but to a trace.
    if (g_traceHook != nullptr) g_traceHook(line);
}

HRESULT CXML::SelectSingleNode(IXMLDOMNode* node, const wchar_t* xpath, IXMLDOMNode** result) {
    if (node == nullptr || xpath == nullptr || result == nullptr) return kXmlBadArgument;
    *result = nullptr;
    Bstr query(xpath);
    HRESULT outcome = node->selectSingleNode(query.Get(), result);
    if (FAILED(outcome)) {
        ReportError(outcome, L"CXML::SelectSingleNode() Failed.");
        return outcome;
    }
    // Nothing found is a failure to a caller that tests the sign.
    if (outcome == S_FALSE) return kXmlNotFound;
    return outcome;
}

wchar_t* CXML::GetNamedItem(IXMLDOMNode* node, const wchar_t* name) {
    if (node == nullptr || name == nullptr) return nullptr;
    IXMLDOMNamedNodeMap* attributes = nullptr;
    HRESULT outcome = node->get_attributes(&attributes);
    if (FAILED(outcome) || attributes == nullptr) {
        if (FAILED(outcome)) ReportError(outcome, L"CXML::GetNamedItem(): Error finding named item '%s'.", name);
        return nullptr;
    }
    wchar_t* copy = nullptr;
    IXMLDOMNode* attribute = nullptr;
    Bstr attributeName(name);
    outcome = attributes->getNamedItem(attributeName.Get(), &attribute);
    if (outcome == S_OK && attribute != nullptr) {
        Bstr text;
        if (SUCCEEDED(attribute->get_text(text.Out()))) copy = DupWide(text.Text());
        attribute->Release();
    }
    attributes->Release();
    if (FAILED(outcome)) ReportError(outcome, L"CXML::GetNamedItem(): Error finding named item '%s'.", name);
    return copy;
}

char* CXML::GetNamedItemText(IXMLDOMNode* node, const wchar_t* name, const wchar_t* fallback) {
    wchar_t* text = GetNamedItem(node, name);
    if (text == nullptr) return fallback != nullptr ? WideToAnsi(fallback, 0) : nullptr;
    char* ansi = WideToAnsi(text, 0);
    std::free(text);
    return ansi;
}

IXMLDOMElement* CXML::CreateElement(const wchar_t* name, const wchar_t* attributeName,
                                    const wchar_t* attributeValue) {
    if (XmlDocument == nullptr || name == nullptr) return nullptr;
    IXMLDOMElement* element = nullptr;
    Bstr tag(name);
    if (FAILED(XmlDocument->createElement(tag.Get(), &element))) return nullptr;
    if (element != nullptr && attributeName != nullptr && attributeValue != nullptr) {
        SetNodeAttribute(element, attributeName, attributeValue);
    }
    return element;
}

HRESULT CXML::CreateRoot(const wchar_t* name, const wchar_t* attributeName, const wchar_t* attributeValue) {
    if (XmlDocument == nullptr) return kXmlNoDocument;
    IXMLDOMElement* element = CreateElement(name, attributeName, attributeValue);
    if (element == nullptr) return kXmlNotFound;
    // Whether the element took its place shows in the root read back.
    XmlDocument->putref_documentElement(element);
    element->Release();
    Release(XmlRoot);
    return XmlDocument->get_documentElement(&XmlRoot);
}

HRESULT CXML::SetNodeAttribute(IXMLDOMElement* element, const wchar_t* name, const wchar_t* value) {
    if (element == nullptr || name == nullptr || value == nullptr) return kXmlNotFound;
    Bstr attributeName(name);
    StringVariant attributeValue(value);
    return element->setAttribute(attributeName.Get(), attributeValue.Get());
}

wchar_t* CXML::GetNodeText(IXMLDOMNode* node) {
    Bstr text;
    if (node == nullptr || FAILED(node->get_text(text.Out()))) {
        LogMessage(0, "Failed to read xml node value\n");
        return nullptr;
    }
    return DupWide(text.Text());
}

char* CXML::GetNodeTextAnsi(IXMLDOMNode* node) {
    wchar_t* text = GetNodeText(node);
    if (text == nullptr) return nullptr;
    char* ansi = WideToAnsi(text, 0);
    std::free(text);
    return ansi;
}

int CXML::SetNodeText(IXMLDOMNode* node, const char* text) {
    int length = 0;
    if (text != nullptr) length = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    Bstr wide;
    if (length > 0) {
        *wide.Out() = SysAllocStringLen(nullptr, static_cast<UINT>(length - 1));
        if (wide.Get() == nullptr) _com_issue_error(E_OUTOFMEMORY);
        MultiByteToWideChar(CP_ACP, 0, text, -1, wide.Get(), length);
    }
    if (node == nullptr || text == nullptr || FAILED(node->put_text(wide.Get()))) {
        LogMessage(0, "Failed to set xml node value\n");
        return 0;
    }
    return 1;
}

char* CXML::WideToAnsi(const wchar_t* text, int minimumSize) {
    if (text == nullptr) {
        if (minimumSize <= 0) return nullptr;
        return static_cast<char*>(std::calloc(static_cast<size_t>(minimumSize) + 1, 1));
    }
    UINT codePage = GetACP();
    int needed = WideCharToMultiByte(codePage, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) needed = 1;
    int size = needed > minimumSize ? needed : minimumSize;
    auto* ansi = static_cast<char*>(std::calloc(static_cast<size_t>(size) + 1, 1));
    if (ansi == nullptr) return nullptr;
    WideCharToMultiByte(codePage, 0, text, -1, ansi, size, nullptr, nullptr);
    return ansi;
}

wchar_t* CXML::DupWide(const wchar_t* text) {
    if (text == nullptr) return nullptr;
    size_t length = std::wcslen(text);
    auto* copy = static_cast<wchar_t*>(std::malloc((length + 1) * sizeof(wchar_t)));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, text, (length + 1) * sizeof(wchar_t));
    return copy;
}
