#include "xml_registry_text.h"

#include <cstring>
#include <initializer_list>
#include <vector>

namespace xmlreg {

namespace {

struct TypeName {
    uint32_t type;
    const char* name;
};
constexpr TypeName kTypeNames[] = {
    {kTypeString, "REG_SZ"},       {kTypeExpandString, "REG_EXPAND_SZ"}, {kTypeMultiString, "REG_MULTI_SZ"},
    {kTypeDword, "REG_DWORD"},     {kTypeBinary, "REG_BINARY"},
};

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool IsNameChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == ':' ||
           c == '.' || c == '-';
}
int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool ParseType(const std::string& text, uint32_t* type) {
    for (const TypeName& known : kTypeNames) {
        if (text == known.name) {
            *type = known.type;
            return true;
        }
    }
    if (text.empty() || text.size() > 10) return false;
    uint64_t number = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        number = number * 10 + static_cast<uint64_t>(c - '0');
    }
    if (number > UINT32_MAX) return false;
    *type = static_cast<uint32_t>(number);
    return true;
}

// Pairs of hex digits, with white space allowed between pairs.
bool ParseHex(const std::string& text, std::vector<uint8_t>* bytes) {
    bytes->clear();
    size_t i = 0;
    while (i < text.size()) {
        if (IsSpace(text[i])) {
            ++i;
            continue;
        }
        if (i + 1 >= text.size()) return false;
        int high = HexDigit(text[i]);
        int low = HexDigit(text[i + 1]);
        if (high < 0 || low < 0) return false;
        bytes->push_back(static_cast<uint8_t>(high * 16 + low));
        i += 2;
    }
    return true;
}

// Decimal, or 0x and up to eight hex digits.
bool ParseDword(const std::string& text, uint32_t* value) {
    uint64_t number = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        if (text.size() > 10) return false;
        for (size_t i = 2; i < text.size(); ++i) {
            int digit = HexDigit(text[i]);
            if (digit < 0) return false;
            number = number * 16 + static_cast<uint64_t>(digit);
        }
    } else {
        if (text.empty() || text.size() > 10) return false;
        for (char c : text) {
            if (c < '0' || c > '9') return false;
            number = number * 10 + static_cast<uint64_t>(c - '0');
        }
        if (number > UINT32_MAX) return false;
    }
    *value = static_cast<uint32_t>(number);
    return true;
}

// The attributes of one element; each name at most once.
struct Attributes {
    std::vector<std::pair<std::string, std::string>> items;
    const std::string* Find(const char* name) const {
        for (const auto& item : items) {
            if (item.first == name) return &item.second;
        }
        return nullptr;
    }
    // Whether every attribute is one of `allowed`.
    bool OnlyOf(std::initializer_list<const char*> allowed) const {
        for (const auto& item : items) {
            bool known = false;
            for (const char* name : allowed) known = known || item.first == name;
            if (!known) return false;
        }
        return true;
    }
};

// A value whose element is open: its attributes, and the strings of a REG_MULTI_SZ.
struct OpenValue {
    Key* key = nullptr;
    std::string name;
    uint32_t type = kTypeNone;
    const std::string* data = nullptr;
    const std::string* hex = nullptr;
    Attributes attributes;
    std::vector<std::string> strings;
};

class Reader {
public:
    Reader(const char* text, size_t length, Registry& registry)
        : p_(text), end_(text + length), registry_(registry) {}

    bool Run() {
        SkipSpace();
        if (Starts("<?xml")) {
            const char* close = Find("?>");
            if (close == nullptr) return false;
            p_ = close + 2;
        }
        if (!SkipMisc()) return false;
        std::string name;
        Attributes attributes;
        bool empty = false;
        if (!Take('<') || !Tag(&name, &attributes, &empty)) return false;
        if (name != "Registry" || !attributes.items.empty()) return false;
        if (!empty && !RegistryContent()) return false;
        if (!SkipMisc()) return false;
        return p_ == end_;
    }

private:
    enum class Kind { kRegistry, kKey, kValue };
    struct Frame {
        Kind kind;
        Key* key;
    };

    bool Starts(const char* literal) const {
        size_t n = std::strlen(literal);
        return static_cast<size_t>(end_ - p_) >= n && std::memcmp(p_, literal, n) == 0;
    }
    const char* Find(const char* literal) const {
        size_t n = std::strlen(literal);
        for (const char* q = p_; static_cast<size_t>(end_ - q) >= n; ++q) {
            if (std::memcmp(q, literal, n) == 0) return q;
        }
        return nullptr;
    }
    bool Take(char c) {
        if (p_ == end_ || *p_ != c) return false;
        ++p_;
        return true;
    }
    bool SkipSpace() {
        const char* start = p_;
        while (p_ != end_ && IsSpace(*p_)) ++p_;
        return p_ != start;
    }
    // White space and comments.
    bool SkipMisc() {
        for (;;) {
            SkipSpace();
            if (!Starts("<!--")) return true;
            p_ += 4;
            const char* close = Find("-->");
            if (close == nullptr) return false;
            p_ = close + 3;
        }
    }
    bool Name(std::string* name) {
        const char* start = p_;
        while (p_ != end_ && IsNameChar(*p_)) ++p_;
        name->assign(start, p_);
        return p_ != start;
    }
    // Text up to `stop`, references decoded: the five named ones, and &#N; or &#xN; for one byte 1 to 255.
    bool Text(char stop, std::string* out) {
        out->clear();
        while (p_ != end_ && *p_ != stop) {
            char c = *p_;
            // The factory's text ends at its first zero byte; a reader given one stops.
            if (c == '<' || c == '\0') return false;
            if (c != '&') {
                out->push_back(c);
                ++p_;
                continue;
            }
            ++p_;
            if (NamedReference(out)) continue;
            if (!Take('#')) return false;
            int base = Take('x') ? 16 : 10;
            unsigned value = 0;
            size_t digits = 0;
            while (p_ != end_ && *p_ != ';') {
                int digit = HexDigit(*p_);
                if (digit < 0 || digit >= base) return false;
                value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
                if (value > 255) return false;
                ++digits;
                ++p_;
            }
            if (digits == 0 || value == 0 || !Take(';')) return false;
            out->push_back(static_cast<char>(value));
        }
        return p_ != end_;
    }
    // After '&': one of the five named references, taken with its ';'.
    bool NamedReference(std::string* out) {
        static constexpr struct {
            const char* name;
            char byte;
        } kNamed[] = {{"amp;", '&'}, {"lt;", '<'}, {"gt;", '>'}, {"quot;", '"'}, {"apos;", '\''}};
        for (const auto& named : kNamed) {
            if (Starts(named.name)) {
                out->push_back(named.byte);
                p_ += std::strlen(named.name);
                return true;
            }
        }
        return false;
    }
    // After '<': the element's name and attributes, up to and including '>' or "/>".
    bool Tag(std::string* name, Attributes* attributes, bool* empty) {
        if (!Name(name)) return false;
        attributes->items.clear();
        for (;;) {
            bool spaced = SkipSpace();
            if (Starts("/>")) {
                p_ += 2;
                *empty = true;
                return true;
            }
            if (Take('>')) {
                *empty = false;
                return true;
            }
            std::string attribute;
            // No element of the grammar takes more than four attributes.
            if (!spaced || attributes->items.size() >= 4 || !Name(&attribute) ||
                attributes->Find(attribute.c_str()) != nullptr) {
                return false;
            }
            SkipSpace();
            if (!Take('=')) return false;
            SkipSpace();
            if (p_ == end_ || (*p_ != '"' && *p_ != '\'')) return false;
            char quote = *p_++;
            std::string value;
            if (!Text(quote, &value)) return false;
            ++p_;
            attributes->items.emplace_back(std::move(attribute), std::move(value));
        }
    }
    // After "</": the name, which must be `expected`, and '>'.
    bool CloseTag(const char* expected) {
        std::string name;
        if (!Name(&name) || name != expected) return false;
        SkipSpace();
        return Take('>');
    }

    Key* RootKey(const Attributes& attributes) {
        const std::string* name = attributes.Find("name");
        if (name == nullptr || !attributes.OnlyOf({"name"})) return nullptr;
        std::string folded = AsciiFold(*name);
        for (size_t i = 0; i < kRootCount; ++i) {
            if (folded == kRootNames[i]) return &registry_.Root(i);
        }
        return nullptr;
    }
    Key* SubKey(Key& parent, const Attributes& attributes) {
        const std::string* name = attributes.Find("name");
        if (name == nullptr || !attributes.OnlyOf({"name", "class"})) return nullptr;
        Key* key = registry_.AddSubkey(parent, *name);
        const std::string* keyClass = attributes.Find("class");
        if (key != nullptr && keyClass != nullptr) key->keyClass = *keyClass;
        return key;
    }
    bool StartValue(Key& key, Attributes attributes) {
        value_ = OpenValue();
        value_.key = &key;
        value_.attributes = std::move(attributes);
        const std::string* name = value_.attributes.Find("name");
        const std::string* type = value_.attributes.Find("type");
        if (name == nullptr || type == nullptr || !value_.attributes.OnlyOf({"name", "type", "data", "hex"}) ||
            !ParseType(*type, &value_.type)) {
            return false;
        }
        value_.name = *name;
        value_.data = value_.attributes.Find("data");
        value_.hex = value_.attributes.Find("hex");
        return true;
    }
    bool AcceptsStrings() const {
        return value_.type == kTypeMultiString && value_.data == nullptr && value_.hex == nullptr;
    }
    bool FinishValue() {
        std::vector<uint8_t> bytes;
        if (value_.hex != nullptr) {
            if (value_.data != nullptr || !value_.strings.empty() || !ParseHex(*value_.hex, &bytes)) return false;
        } else if (value_.type == kTypeString || value_.type == kTypeExpandString) {
            if (value_.data == nullptr) return false;
            bytes.assign(value_.data->begin(), value_.data->end());
            bytes.push_back(0);
        } else if (value_.type == kTypeMultiString) {
            if (value_.data != nullptr) return false;
            for (const std::string& s : value_.strings) {
                bytes.insert(bytes.end(), s.begin(), s.end());
                bytes.push_back(0);
            }
            bytes.push_back(0);
        } else if (value_.type == kTypeDword) {
            uint32_t number = 0;
            if (value_.data == nullptr || !ParseDword(*value_.data, &number)) return false;
            for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(number >> (8 * i)));
        } else if (value_.type == kTypeBinary) {
            if (value_.data == nullptr || !ParseHex(*value_.data, &bytes)) return false;
        } else {
            return false;  // a type by number comes with its bytes in hex
        }
        registry_.PutValue(*value_.key, value_.name, value_.type, std::move(bytes));
        return true;
    }
    // <String>text</String> or <String/>, after its name and attributes.
    bool StringElement(const Attributes& attributes, bool empty) {
        if (!attributes.items.empty() || !AcceptsStrings()) return false;
        std::string text;
        if (!empty) {
            if (!Text('<', &text) || !Starts("</")) return false;
            p_ += 2;
            if (!CloseTag("String")) return false;
        }
        value_.strings.push_back(std::move(text));
        return true;
    }

    // The children of <Registry>, with an explicit stack so that nesting costs no native stack.
    bool RegistryContent() {
        std::vector<Frame> stack;
        stack.push_back({Kind::kRegistry, nullptr});
        while (!stack.empty()) {
            if (!SkipMisc() || p_ == end_) return false;
            Frame top = stack.back();
            if (Starts("</")) {
                p_ += 2;
                const char* expected = top.kind == Kind::kRegistry ? "Registry" : top.kind == Kind::kKey ? "Key" : "Value";
                if (!CloseTag(expected)) return false;
                if (top.kind == Kind::kValue && !FinishValue()) return false;
                stack.pop_back();
                continue;
            }
            if (!Take('<')) return false;  // text outside a <String>
            std::string name;
            Attributes attributes;
            bool empty = false;
            if (!Tag(&name, &attributes, &empty)) return false;
            if (top.kind == Kind::kValue) {
                if (name != "String" || !StringElement(attributes, empty)) return false;
            } else if (name == "Key") {
                Key* key = top.kind == Kind::kRegistry ? RootKey(attributes) : SubKey(*top.key, attributes);
                if (key == nullptr) return false;
                if (!empty) stack.push_back({Kind::kKey, key});
            } else if (name == "Value" && top.kind == Kind::kKey) {
                if (!StartValue(*top.key, std::move(attributes))) return false;
                if (empty) {
                    if (!FinishValue()) return false;
                } else {
                    stack.push_back({Kind::kValue, top.key});
                }
            } else {
                return false;
            }
        }
        return true;
    }

    const char* p_;
    const char* end_;
    Registry& registry_;
    OpenValue value_;
};

// Text for an attribute (quotes escaped) or for element content; control bytes as references.
void Escape(std::string& out, const std::string& text, bool attribute) {
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (c == '&') {
            out += "&amp;";
        } else if (c == '<') {
            out += "&lt;";
        } else if (c == '>') {
            out += "&gt;";
        } else if (attribute && c == '"') {
            out += "&quot;";
        } else if (attribute && c == '\'') {
            out += "&apos;";
        } else if (byte < 0x20 || byte == 0x7f) {
            out += "&#";
            out += std::to_string(byte);
            out += ';';
        } else {
            out += c;
        }
    }
}

void Indent(std::string& out, size_t depth) { out.append(depth * 2, ' '); }

void PutHex(std::string& out, const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    for (uint8_t byte : bytes) {
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
}

const char* KnownTypeName(uint32_t type) {
    for (const TypeName& known : kTypeNames) {
        if (known.type == type) return known.name;
    }
    return nullptr;
}

// The strings of a REG_MULTI_SZ whose bytes have the list's own form: each string non-empty and
// terminated, and one more terminator.
bool SplitMulti(const std::vector<uint8_t>& bytes, std::vector<std::string>* strings) {
    strings->clear();
    if (bytes.empty() || bytes.back() != 0) return false;
    size_t end = bytes.size() - 1;  // the list's own terminator
    size_t start = 0;
    while (start < end) {
        size_t stop = start;
        while (stop < end && bytes[stop] != 0) ++stop;
        if (stop == start || stop == end) return false;  // an empty string, or one without its terminator
        strings->emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(start),
                              bytes.begin() + static_cast<std::ptrdiff_t>(stop));
        start = stop + 1;
    }
    return true;
}

void WriteValue(std::string& out, const Value& value, size_t depth) {
    Indent(out, depth);
    out += "<Value name=\"";
    Escape(out, value.name, true);
    out += "\" type=\"";
    const char* typeName = KnownTypeName(value.type);
    out += typeName != nullptr ? typeName : std::to_string(value.type);
    out += '"';
    const std::vector<uint8_t>& data = value.data;
    std::vector<std::string> strings;
    if ((value.type == kTypeString || value.type == kTypeExpandString) && !data.empty() && data.back() == 0 &&
        std::memchr(data.data(), 0, data.size() - 1) == nullptr) {
        out += " data=\"";
        Escape(out, std::string(data.begin(), data.end() - 1), true);
        out += "\"/>\r\n";
    } else if (value.type == kTypeDword && data.size() == 4) {
        uint32_t number = static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8 |
                          static_cast<uint32_t>(data[2]) << 16 | static_cast<uint32_t>(data[3]) << 24;
        out += " data=\"" + std::to_string(number) + "\"/>\r\n";
    } else if (value.type == kTypeBinary) {
        out += " data=\"";
        PutHex(out, data);
        out += "\"/>\r\n";
    } else if (value.type == kTypeMultiString && SplitMulti(data, &strings)) {
        if (strings.empty()) {
            out += "/>\r\n";
            return;
        }
        out += ">\r\n";
        for (const std::string& s : strings) {
            Indent(out, depth + 1);
            out += "<String>";
            Escape(out, s, false);
            out += "</String>\r\n";
        }
        Indent(out, depth);
        out += "</Value>\r\n";
    } else {
        // Bytes that the type's own form cannot carry, and types by number.
        out += " hex=\"";
        PutHex(out, data);
        out += "\"/>\r\n";
    }
}

void WriteKey(std::string& out, const Key& key, size_t depth) {
    Indent(out, depth);
    out += "<Key name=\"";
    Escape(out, key.name, true);
    out += '"';
    if (!key.keyClass.empty()) {
        out += " class=\"";
        Escape(out, key.keyClass, true);
        out += '"';
    }
    if (key.values.empty() && key.subkeys.empty()) {
        out += "/>\r\n";
        return;
    }
    out += ">\r\n";
    for (const auto& value : key.values) WriteValue(out, value.second, depth + 1);
    for (const auto& sub : key.subkeys) WriteKey(out, *sub.second, depth + 1);
    Indent(out, depth);
    out += "</Key>\r\n";
}

}  // namespace

int32_t ReadText(const char* text, size_t length, Registry& registry) {
    if (text == nullptr) return kBadText;
    Reader reader(text, length, registry);
    return reader.Run() ? kOk : kBadText;
}

std::string WriteText(const Registry& registry) {
    std::string out;
    bool any = false;
    for (size_t i = 0; i < kRootCount; ++i) {
        const Key& root = registry.Root(i);
        if (root.values.empty() && root.subkeys.empty()) continue;
        if (!any) out += "<Registry>\r\n";
        any = true;
        WriteKey(out, root, 1);
    }
    out += any ? "</Registry>\r\n" : "<Registry/>\r\n";
    return out;
}

}  // namespace xmlreg
