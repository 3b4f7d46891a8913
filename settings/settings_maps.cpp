#include "settings_maps.h"

#include <comdef.h>

#include <cstdlib>
#include <cwchar>
#include <vector>

#include "bounded_text.h"
#include "xml_strings.h"

using xmlcom::Bstr;
using xmlcom::Release;

namespace {

// ANSI text of the process's code page, widened.
std::wstring Widen(const char* text) {
    if (text == nullptr || text[0] == '\0') return std::wstring();
    int count = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (count <= 1) return std::wstring();
    std::wstring wide(static_cast<size_t>(count), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, &wide[0], count);
    wide.resize(static_cast<size_t>(count - 1));
    return wide;
}

// Sets the `value` attribute that `element` already has; one without it is left as it is.
void PutValue(IXMLDOMNode* element, const char* value) {
    IXMLDOMNamedNodeMap* attributes = nullptr;
    if (FAILED(element->get_attributes(&attributes)) || attributes == nullptr) return;
    IXMLDOMNode* attribute = nullptr;
    Bstr name(L"value");
    if (attributes->getNamedItem(name.Get(), &attribute) == S_OK && attribute != nullptr) {
        Bstr text(Widen(value).c_str());
        attribute->put_text(text.Get());
    }
    Release(attribute);
    attributes->Release();
}

}  // namespace

CMapStore::CMapStore(CPXMSettings* document, const wchar_t* type) : document_(document), type_(type != nullptr ? type : L"") {}

IXMLDOMNode* CMapStore::Root() const { return document_ != nullptr ? document_->XmlRoot : nullptr; }

void CMapStore::FormatPath(wchar_t (&path)[kMapPathSize], const wchar_t* id, const wchar_t* name) const {
    WideBoundedWriter writer(path, kMapPathSize);
    writer.Put(L"//Settings/Proxies/Proxy[@type='");
    writer.Put(type_.c_str());
    writer.Put(L"']/Maps");
    if (id == nullptr) return;
    writer.Put(L"/Map[@id='");
    writer.Put(id);
    writer.Put(L"']");
    if (name == nullptr) return;
    writer.Put(L'/');
    writer.Put(name);
}

HRESULT CMapStore::GetCountText(std::string& text) {
    text.clear();
    IXMLDOMNode* maps = nullptr;
    HRESULT outcome = FindMaps(&maps);
    if (FAILED(outcome) || maps == nullptr) return FAILED(outcome) ? outcome : kXmlNotFound;
    char* count = document_->GetNamedItemText(maps, L"count", nullptr);
    maps->Release();
    if (count == nullptr) return kXmlNotFound;
    text = count;
    std::free(count);
    return S_OK;
}

HRESULT CMapStore::SetCount(int32_t count) {
    // The document no longer is the file's text.
    ForgetSettingsStamp(document_);
    if (document_ == nullptr || document_->XmlDocument == nullptr) return kXmlNoDocument;
    IXMLDOMAttribute* attribute = nullptr;
    Bstr name(L"count");
    HRESULT outcome = document_->XmlDocument->createAttribute(name.Get(), &attribute);
    if (FAILED(outcome) || attribute == nullptr) return FAILED(outcome) ? outcome : kXmlNotFound;
    const std::wstring digits = std::to_wstring(count);
    VARIANT value;
    VariantInit(&value);
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(digits.c_str());
    if (value.bstrVal == nullptr) {
        attribute->Release();
        _com_issue_error(E_OUTOFMEMORY);
    }
    outcome = attribute->put_nodeValue(value);
    VariantClear(&value);
    IXMLDOMNode* maps = nullptr;
    IXMLDOMNamedNodeMap* attributes = nullptr;
    if (SUCCEEDED(outcome)) outcome = FindMaps(&maps);
    if (SUCCEEDED(outcome)) outcome = maps->get_attributes(&attributes);
    if (SUCCEEDED(outcome) && attributes != nullptr) {
        IXMLDOMNode* replaced = nullptr;
        outcome = attributes->setNamedItem(attribute, &replaced);
        Release(replaced);
    }
    Release(attributes);
    Release(maps);
    attribute->Release();
    return outcome;
}

HRESULT CMapStore::GetValue(const wchar_t* id, const wchar_t* name, std::string& result) {
    if (id == nullptr || name == nullptr) return kXmlBadArgument;
    IXMLDOMNode* map = nullptr;
    HRESULT outcome = FindMap(id, &map);
    if (FAILED(outcome)) return outcome;
    IXMLDOMNode* element = nullptr;
    outcome = FindChild(map, id, name, &element);
    map->Release();
    if (FAILED(outcome)) return outcome;
    char* value = document_->GetNamedItemText(element, L"value", nullptr);
    element->Release();
    // Kept: an element without `value` is found all the same, and the result keeps what it held.
    if (value != nullptr) result = value;
    std::free(value);
    return outcome;
}

HRESULT CMapStore::SetValue(const wchar_t* id, const wchar_t* name, const char* value) {
    ForgetSettingsStamp(document_);
    if (document_ == nullptr || id == nullptr || name == nullptr) return kXmlBadArgument;
    IXMLDOMNode* element = nullptr;
    if (SUCCEEDED(FindValue(id, name, &element)) && element != nullptr) {
        PutValue(element, value);
        element->Release();
        return S_OK;
    }
    // The chain is built from the leaf up, until a level exists to take it: made[0] the value element,
    // then the map, Maps, Proxy and Proxies.
    IXMLDOMNode* made[5] = {};
    IXMLDOMNode* inHand = nullptr;
    int level = 0;
    auto addParent = [&](const wchar_t* tag, const wchar_t* attributeName, const wchar_t* attributeValue) {
        IXMLDOMElement* parent = document_->CreateElement(tag, attributeName, attributeValue);
        if (parent == nullptr) return false;
        if (inHand != nullptr) {
            IXMLDOMNode* appended = nullptr;
            parent->appendChild(inHand, &appended);
            Release(appended);
            Release(inHand);
        }
        parent->QueryInterface(IID_IXMLDOMNode, reinterpret_cast<void**>(&inHand));
        parent->Release();
        if (inHand == nullptr) return false;
        inHand->AddRef();
        made[level++] = inHand;
        return true;
    };
    // Appends the chain to the node a Find gave, when it gave one.
    auto attach = [&](HRESULT found, IXMLDOMNode* parent) {
        if (FAILED(found) || parent == nullptr) return false;
        IXMLDOMNode* appended = nullptr;
        HRESULT outcome = parent->appendChild(inHand, &appended);
        Release(appended);
        parent->Release();
        if (SUCCEEDED(outcome)) Added(id, name, made);
        return true;
    };
    auto appendTo = [&](HRESULT (CMapStore::*find)(IXMLDOMNode**)) {
        IXMLDOMNode* parent = nullptr;
        HRESULT found = (this->*find)(&parent);
        return attach(found, parent);
    };
    auto appendToMap = [&]() {
        IXMLDOMNode* parent = nullptr;
        HRESULT found = FindMap(id, &parent);
        return attach(found, parent);
    };
    std::wstring text = Widen(value);
    bool done = false;
    if (addParent(name, L"value", text.c_str())) {
        done = appendToMap();
        if (!done && addParent(L"Map", L"id", id)) {
            done = appendTo(&CMapStore::FindMaps);
            if (!done && addParent(L"Maps", nullptr, nullptr)) {
                done = appendTo(&CMapStore::FindProxy);
                if (!done && addParent(L"Proxy", L"type", type_.c_str())) {
                    done = appendTo(&CMapStore::FindProxies);
                    if (!done && addParent(L"Proxies", nullptr, nullptr)) done = appendTo(&CMapStore::FindSettings);
                }
            }
        }
    }
    // Without even a Settings the chain goes with these references, and nothing is written.
    Release(inHand);
    for (IXMLDOMNode*& node : made) Release(node);
    return S_OK;
}

HRESULT CLiteralMapStore::Select(const wchar_t* path, IXMLDOMNode** node) {
    *node = nullptr;
    if (document_ == nullptr) return kXmlNoDocument;
    return document_->SelectSingleNode(Root(), path, node);
}

HRESULT CLiteralMapStore::FindSettings(IXMLDOMNode** node) { return Select(L"//Settings", node); }

HRESULT CLiteralMapStore::FindProxies(IXMLDOMNode** node) { return Select(L"//Settings/Proxies", node); }

HRESULT CLiteralMapStore::FindProxy(IXMLDOMNode** node) {
    wchar_t path[kMapPathSize];
    WideBoundedWriter writer(path, kMapPathSize);
    writer.Put(L"//Settings/Proxies/Proxy[@type='");
    writer.Put(type_.c_str());
    writer.Put(L"']");
    return Select(path, node);
}

HRESULT CLiteralMapStore::FindMaps(IXMLDOMNode** node) {
    wchar_t path[kMapPathSize];
    FormatPath(path, nullptr, nullptr);
    return Select(path, node);
}

HRESULT CLiteralMapStore::FindMap(const wchar_t* id, IXMLDOMNode** node) {
    wchar_t path[kMapPathSize];
    FormatPath(path, id, nullptr);
    return Select(path, node);
}

HRESULT CLiteralMapStore::FindValue(const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) {
    wchar_t path[kMapPathSize];
    FormatPath(path, id, name);
    return Select(path, node);
}

HRESULT CLiteralMapStore::FindChild(IXMLDOMNode* map, const wchar_t*, const wchar_t* name, IXMLDOMNode** node) {
    *node = nullptr;
    return document_->SelectSingleNode(map, name, node);
}

CMapIndex::CMapIndex(CPXMSettings* document, const wchar_t* type) : CMapStore(document, type) { Build(); }

CMapIndex::~CMapIndex() {
    Release(settings_);
    Release(proxies_);
    Release(proxy_);
    Release(maps_);
    for (auto& entry : map_) Release(entry.second);
    for (auto& entry : anyValue_) Release(entry.second);
    for (auto& entry : firstMapValue_) Release(entry.second);
}

void CMapIndex::Keep(IXMLDOMNode*& slot, IXMLDOMNode* node) {
    if (slot != nullptr || node == nullptr) return;
    node->AddRef();
    slot = node;
}

HRESULT CMapIndex::Give(IXMLDOMNode* kept, IXMLDOMNode** node) {
    *node = kept;
    if (kept == nullptr) return kXmlNotFound;
    kept->AddRef();
    return S_OK;
}

namespace {

enum class Role { None, Settings, Proxies, Proxy, Maps, Map };

struct Level {
    IXMLDOMNode* node;
    Role role;
    std::wstring id;  // of a map
    bool firstOfId;   // the first map of its id
};

// The element's name when it has no namespace, as a name test of a path matches; else empty.
std::wstring PlainName(IXMLDOMNode* node) {
    Bstr name;
    if (FAILED(node->get_nodeName(name.Out()))) return std::wstring();
    std::wstring text = name.Text();
    if (text.empty() || text.find(L':') != std::wstring::npos) return std::wstring();
    Bstr space;
    if (SUCCEEDED(node->get_namespaceURI(space.Out())) && space.Text()[0] != L'\0') return std::wstring();
    return text;
}

}  // namespace

void CMapIndex::Build() {
    IXMLDOMNode* node = Root();
    if (node == nullptr) return;
    node->AddRef();
    // Depth first, in document order: the first node met on each path is the one its selection gives.
    std::vector<Level> parents;
    while (node != nullptr) {
        Role role = Role::None;
        std::wstring id;
        bool firstOfId = false;
        DOMNodeType kind = NODE_INVALID;
        node->get_nodeType(&kind);
        if (kind == NODE_ELEMENT) {
            const Level* parent = parents.empty() ? nullptr : &parents.back();
            Role parentRole = parent != nullptr ? parent->role : Role::None;
            std::wstring name = PlainName(node);
            if (parentRole == Role::Map && !name.empty()) {
                ValueKey key(parent->id, name);
                if (anyValue_.find(key) == anyValue_.end()) Keep(anyValue_[key], node);
                if (parent->firstOfId && firstMapValue_.find(key) == firstMapValue_.end()) Keep(firstMapValue_[key], node);
            }
            if (name == L"Settings") {
                role = Role::Settings;
                Keep(settings_, node);
            } else if (name == L"Proxies" && parentRole == Role::Settings) {
                role = Role::Proxies;
                Keep(proxies_, node);
            } else if (name == L"Proxy" && parentRole == Role::Proxies) {
                wchar_t* type = document_->GetNamedItem(node, L"type");
                if (type != nullptr && type_ == type) {
                    role = Role::Proxy;
                    Keep(proxy_, node);
                }
                std::free(type);
            } else if (name == L"Maps" && parentRole == Role::Proxy) {
                role = Role::Maps;
                Keep(maps_, node);
            } else if (name == L"Map" && parentRole == Role::Maps) {
                wchar_t* text = document_->GetNamedItem(node, L"id");
                if (text != nullptr) {
                    role = Role::Map;
                    id = text;
                    auto found = map_.find(id);
                    firstOfId = found == map_.end();
                    if (firstOfId) Keep(map_[id], node);
                }
                std::free(text);
            }
        }
        IXMLDOMNode* child = nullptr;
        if (kind == NODE_ELEMENT && SUCCEEDED(node->get_firstChild(&child)) && child != nullptr) {
            parents.push_back(Level{node, role, id, firstOfId});
            node = child;
            continue;
        }
        // No child: the next sibling, else that of the nearest parent that has one.
        for (;;) {
            IXMLDOMNode* next = nullptr;
            HRESULT outcome = node->get_nextSibling(&next);
            node->Release();
            node = nullptr;
            if (SUCCEEDED(outcome) && next != nullptr) {
                node = next;
                break;
            }
            if (parents.empty()) break;
            node = parents.back().node;
            parents.pop_back();
            // The root's siblings are not the document's elements.
            if (parents.empty()) {
                node->Release();
                node = nullptr;
                break;
            }
        }
    }
    for (Level& level : parents) level.node->Release();
}

HRESULT CMapIndex::FindSettings(IXMLDOMNode** node) { return Give(settings_, node); }
HRESULT CMapIndex::FindProxies(IXMLDOMNode** node) { return Give(proxies_, node); }
HRESULT CMapIndex::FindProxy(IXMLDOMNode** node) { return Give(proxy_, node); }
HRESULT CMapIndex::FindMaps(IXMLDOMNode** node) { return Give(maps_, node); }

HRESULT CMapIndex::FindMap(const wchar_t* id, IXMLDOMNode** node) {
    auto found = map_.find(id);
    return Give(found != map_.end() ? found->second : nullptr, node);
}

HRESULT CMapIndex::FindValue(const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) {
    auto found = anyValue_.find(ValueKey(id, name));
    return Give(found != anyValue_.end() ? found->second : nullptr, node);
}

HRESULT CMapIndex::FindChild(IXMLDOMNode*, const wchar_t* id, const wchar_t* name, IXMLDOMNode** node) {
    auto found = firstMapValue_.find(ValueKey(id, name));
    return Give(found != firstMapValue_.end() ? found->second : nullptr, node);
}

void CMapIndex::Added(const wchar_t* id, const wchar_t* name, IXMLDOMNode* const (&made)[5]) {
    // Each was missing everywhere before, so what was made is now the first of its path.
    ValueKey key(id, name);
    Keep(anyValue_[key], made[0]);
    if (made[1] != nullptr) Keep(map_[id], made[1]);
    auto map = map_.find(id);
    if (map != map_.end() && (made[1] != nullptr || firstMapValue_.find(key) == firstMapValue_.end())) {
        Keep(firstMapValue_[key], made[0]);
    }
    Keep(maps_, made[2]);
    Keep(proxy_, made[3]);
    Keep(proxies_, made[4]);
}

CMapSnapshot::CMapSnapshot(CMapIndex& index) : CMapStore(index.Document(), index.type_.c_str()) {
    countOutcome_ = index.GetCountText(countText_);
    for (const auto& map : index.map_) maps_[map.first];
    for (const auto& value : index.firstMapValue_) {
        auto map = maps_.find(value.first.first);
        if (map == maps_.end() || value.second == nullptr) continue;
        char* text = document_->GetNamedItemText(value.second, L"value", nullptr);
        map->second.push_back(Element{value.first.second, text != nullptr, text != nullptr ? text : ""});
        std::free(text);
    }
}

HRESULT CMapSnapshot::GetCountText(std::string& text) {
    text = countOutcome_ == S_OK ? countText_ : std::string();
    return countOutcome_;
}

HRESULT CMapSnapshot::GetValue(const wchar_t* id, const wchar_t* name, std::string& result) {
    if (id == nullptr || name == nullptr) return kXmlBadArgument;
    auto map = maps_.find(id);
    if (map == maps_.end()) return kXmlNotFound;
    for (const Element& element : map->second) {
        if (element.name != name) continue;
        // As the document answers: an element without `value` leaves the result as it was.
        if (element.hasValue) result = element.value;
        return S_OK;
    }
    return kXmlNotFound;
}

HRESULT CMapSnapshot::FindSettings(IXMLDOMNode** node) { return CMapIndex::Give(nullptr, node); }
HRESULT CMapSnapshot::FindProxies(IXMLDOMNode** node) { return CMapIndex::Give(nullptr, node); }
HRESULT CMapSnapshot::FindProxy(IXMLDOMNode** node) { return CMapIndex::Give(nullptr, node); }
HRESULT CMapSnapshot::FindMaps(IXMLDOMNode** node) { return CMapIndex::Give(nullptr, node); }
HRESULT CMapSnapshot::FindMap(const wchar_t*, IXMLDOMNode** node) { return CMapIndex::Give(nullptr, node); }
HRESULT CMapSnapshot::FindValue(const wchar_t*, const wchar_t*, IXMLDOMNode** node) {
    return CMapIndex::Give(nullptr, node);
}
HRESULT CMapSnapshot::FindChild(IXMLDOMNode*, const wchar_t*, const wchar_t*, IXMLDOMNode** node) {
    return CMapIndex::Give(nullptr, node);
}

HRESULT CPXMSettings::GetMapCountText(const wchar_t* type, std::string& text) {
    return CLiteralMapStore(this, type).GetCountText(text);
}

HRESULT CPXMSettings::SetMapCount(const wchar_t* type, int32_t count) {
    return CLiteralMapStore(this, type).SetCount(count);
}

HRESULT CPXMSettings::GetMapValue(const wchar_t* type, const wchar_t* id, const wchar_t* name, std::string& result) {
    return CLiteralMapStore(this, type).GetValue(id, name, result);
}

HRESULT CPXMSettings::SetMapValue(const wchar_t* type, const wchar_t* id, const wchar_t* name, const char* value) {
    return CLiteralMapStore(this, type).SetValue(id, name, value);
}
