// The proxy maps of one family in the settings document: the count of numbered maps and the value
// elements of each map by its id, under //Settings/Proxies/Proxy[@type]/Maps/Map[@id].
//
// CMapStore answers each question as the selection of its path from the root would: the first node
// in document order. CLiteralMapStore asks the XML service that selection each time, which costs a
// walk of the document per value; CMapIndex walks the document once and keeps the first node of each
// path, so reading or writing n maps stays linear. Both give the same answers (tests hold them side by
// side on odd documents). CMapSnapshot keeps the answers of an index as plain text, for a document
// that no longer changes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "settings_file.h"

// The size of a path, in wide characters; an over-long id is cut there.
constexpr size_t kMapPathSize = 1024;

class CMapStore {
public:
    CMapStore(CPXMSettings* document, const wchar_t* type);
    virtual ~CMapStore() = default;
    CMapStore(const CMapStore&) = delete;
    CMapStore& operator=(const CMapStore&) = delete;

    CPXMSettings* Document() const { return document_; }

    // The `count` attribute of the family's Maps: 0 and its text, else kXmlNotFound (no Maps or no
    // count) or the service's failure.
    virtual HRESULT GetCountText(std::string& text);
    // A new `count` attribute in place of the old one; a failure code when there is no Maps.
    HRESULT SetCount(int32_t count);
    // kXmlBadArgument for a null id or name; a failure code when the map (the first of its id) or its
    // child `name` is missing. 0 when the element was found: `result` takes its `value`, or keeps what
    // it held when the element has none.
    virtual HRESULT GetValue(const wchar_t* id, const wchar_t* name, std::string& result);
    // `value` (ANSI) into the `value` attribute of the first such element of any map of the id; where
    // none exists, the missing chain of elements up to the first existing one is made and appended to
    // it. Nothing is written into a document whose root is not Settings.
    HRESULT SetValue(const wchar_t* id, const wchar_t* name, const char* value);

protected:
    // Each gives an added reference, or null with kXmlNotFound or the service's failure.
    virtual HRESULT FindSettings(IXMLDOMNode** node) = 0;
    virtual HRESULT FindProxies(IXMLDOMNode** node) = 0;
    virtual HRESULT FindProxy(IXMLDOMNode** node) = 0;
    virtual HRESULT FindMaps(IXMLDOMNode** node) = 0;
    virtual HRESULT FindMap(const wchar_t* id, IXMLDOMNode** node) = 0;
    // The element `name` of any map of the id, the first in document order.
    virtual HRESULT FindValue(const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) = 0;
    // The first child element `name` of `map`, the map FindMap gave for the id.
    virtual HRESULT FindChild(IXMLDOMNode* map, const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) = 0;
    // Elements SetValue made and appended: the value element always, the others where made (else
    // null), from the map up to Proxies.
    virtual void Added(const wchar_t* id, const wchar_t* name, IXMLDOMNode* const (&made)[5]) {}

    // The path of the family's Maps (id null) or of a map (name null) or of one of its values.
    void FormatPath(wchar_t (&path)[kMapPathSize], const wchar_t* id, const wchar_t* name) const;
    IXMLDOMNode* Root() const;

    CPXMSettings* document_;
    std::wstring type_;
};

// Each answer a selection of the XML service from the root.
class CLiteralMapStore : public CMapStore {
public:
    using CMapStore::CMapStore;

protected:
    HRESULT FindSettings(IXMLDOMNode** node) override;
    HRESULT FindProxies(IXMLDOMNode** node) override;
    HRESULT FindProxy(IXMLDOMNode** node) override;
    HRESULT FindMaps(IXMLDOMNode** node) override;
    HRESULT FindMap(const wchar_t* id, IXMLDOMNode** node) override;
    HRESULT FindValue(const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) override;
    HRESULT FindChild(IXMLDOMNode* map, const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) override;

private:
    HRESULT Select(const wchar_t* path, IXMLDOMNode** node);
};

// The answers from one walk of the document, made at construction and kept up to date by SetValue.
// Changes to the document made past the index are not seen.
class CMapIndex : public CMapStore {
public:
    CMapIndex(CPXMSettings* document, const wchar_t* type);
    ~CMapIndex() override;

protected:
    HRESULT FindSettings(IXMLDOMNode** node) override;
    HRESULT FindProxies(IXMLDOMNode** node) override;
    HRESULT FindProxy(IXMLDOMNode** node) override;
    HRESULT FindMaps(IXMLDOMNode** node) override;
    HRESULT FindMap(const wchar_t* id, IXMLDOMNode** node) override;
    HRESULT FindValue(const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) override;
    HRESULT FindChild(IXMLDOMNode* map, const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) override;
    void Added(const wchar_t* id, const wchar_t* name, IXMLDOMNode* const (&made)[5]) override;

private:
    friend class CMapSnapshot;
    using ValueKey = std::pair<std::wstring, std::wstring>;
    void Build();
    static void Keep(IXMLDOMNode*& slot, IXMLDOMNode* node);
    static HRESULT Give(IXMLDOMNode* kept, IXMLDOMNode** node);

    IXMLDOMNode* settings_ = nullptr;
    IXMLDOMNode* proxies_ = nullptr;
    IXMLDOMNode* proxy_ = nullptr;
    IXMLDOMNode* maps_ = nullptr;
    std::map<std::wstring, IXMLDOMNode*> map_;          // id: the first map of the id
    std::map<ValueKey, IXMLDOMNode*> anyValue_;         // id, name: the first such element of any map
    std::map<ValueKey, IXMLDOMNode*> firstMapValue_;    // id, name: the first such child of the first map
};

// Every answer of GetCountText and GetValue that `index` gives, read from it at construction and kept
// as text, so that reading the family's maps again costs no call of the XML service. Right only while
// the document stays as it was then; it answers reads only (its Find operations find nothing, so a
// write through it reaches no document).
class CMapSnapshot : public CMapStore {
public:
    explicit CMapSnapshot(CMapIndex& index);

    HRESULT GetCountText(std::string& text) override;
    HRESULT GetValue(const wchar_t* id, const wchar_t* name, std::string& result) override;

protected:
    HRESULT FindSettings(IXMLDOMNode** node) override;
    HRESULT FindProxies(IXMLDOMNode** node) override;
    HRESULT FindProxy(IXMLDOMNode** node) override;
    HRESULT FindMaps(IXMLDOMNode** node) override;
    HRESULT FindMap(const wchar_t* id, IXMLDOMNode** node) override;
    HRESULT FindValue(const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) override;
    HRESULT FindChild(IXMLDOMNode* map, const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) override;

private:
    // A child element of a map and its `value` attribute, when it has one.
    struct Element {
        std::wstring name;
        bool hasValue;
        std::string value;
    };
    HRESULT countOutcome_ = kXmlNotFound;
    std::string countText_;
    std::map<std::wstring, std::vector<Element>> maps_;  // id of a map: the first children of each name
};
