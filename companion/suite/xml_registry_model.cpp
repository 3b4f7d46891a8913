#include "xml_registry_model.h"

#include <algorithm>
#include <chrono>

#include "bounded_text.h"

namespace xmlreg {

const char* const kRootNames[kRootCount] = {"HKEY_CURRENT_USER", "HKEY_LOCAL_MACHINE", "HKEY_USERS"};

namespace {

// Handles of opened keys: far from the hive handles and from small kernel handle values, so that a
// handle of the platform's registry given by mistake is refused rather than taken for one of ours.
constexpr Handle kFirstHandle = 0x58520000;
constexpr Handle kHandleStep = 4;

constexpr uint32_t kAllRights = kQueryValue | kSetValue | kCreateSubKey | kEnumerateSubKeys | 0x30;
constexpr uint32_t kGenericRead = 0x80000000u;
constexpr uint32_t kGenericWrite = 0x40000000u;
constexpr uint32_t kGenericExecute = 0x20000000u;
constexpr uint32_t kGenericAll = 0x10000000u;
constexpr uint32_t kMaximumAllowed = 0x02000000u;
constexpr uint32_t kNotify = 0x10;

// The rights a requested access gives, generic ones spelt out as the registry maps them.
uint32_t Rights(uint32_t access) {
    uint32_t rights = access & kAllRights;
    if ((access & (kGenericRead | kGenericExecute)) != 0) rights |= kQueryValue | kEnumerateSubKeys | kNotify;
    if ((access & kGenericWrite) != 0) rights |= kSetValue | kCreateSubKey;
    if ((access & (kGenericAll | kMaximumAllowed)) != 0) rights |= kAllRights;
    return rights;
}

// Now in FILETIME units (100 ns since 1601).
uint64_t Now() {
    constexpr uint64_t kUnixEpochIn1601 = 116444736000000000ull;
    auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    return kUnixEpochIn1601 + static_cast<uint64_t>(since.count() / 100);
}

bool IsString(uint32_t type) {
    return type == kTypeString || type == kTypeExpandString || type == kTypeMultiString;
}

uint32_t Size32(size_t size) { return size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size); }

// Bytes into a caller's buffer of `room` bytes, which the caller has checked.
void PutBytes(uint8_t* destination, uint32_t room, const std::vector<uint8_t>& bytes) {
    ByteWriter writer(destination, room);
    if (!bytes.empty()) writer.Put(bytes.data(), bytes.size());
}

}  // namespace

std::string AsciiFold(const std::string& name) {
    std::string folded = name;
    for (char& c : folded) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return folded;
}

Registry::Registry(NameFold fold) : fold_(fold != nullptr ? fold : AsciiFold), nextHandle_(kFirstHandle) {
    uint64_t now = Now();
    for (size_t i = 0; i < kRootCount; ++i) {
        roots_[i] = std::make_unique<Key>();
        roots_[i]->name = kRootNames[i];
        roots_[i]->folded = fold_(roots_[i]->name);
        roots_[i]->lastWrite = now;
    }
}

int32_t Registry::Resolve(Handle handle, Key** key, uint32_t* access) const {
    if (handle >= kCurrentUser && handle < kCurrentUser + kRootCount) {
        *key = roots_[handle - kCurrentUser].get();
        *access = kAllRights;
        return kOk;
    }
    auto it = handles_.find(handle);
    if (it == handles_.end()) return kBadHandle;
    if (it->second.key == nullptr) return kKeyDeleted;
    *key = it->second.key;
    *access = it->second.access;
    return kOk;
}

int32_t Registry::Reach(Handle handle, uint32_t right, Key** key) const {
    uint32_t rights = 0;
    int32_t code = Resolve(handle, key, &rights);
    if (code != kOk) return code;
    return (rights & right) == right ? kOk : kAccessDenied;
}

int32_t Registry::Walk(Key* from, const char* subKey, Key** found) const {
    *found = from;
    if (subKey == nullptr) return kOk;
    // A path is relative to its key; the platform refuses one that starts at a separator.
    if (*subKey == '\\') return kBadPath;
    const char* p = subKey;
    while (*p != '\0') {
        const char* end = p;
        while (*end != '\0' && *end != '\\') ++end;
        if (end != p) {
            Key* next = (*found)->FindSubkey(fold_(std::string(p, end)));
            if (next == nullptr) return kNotFound;
            *found = next;
        }
        p = *end == '\\' ? end + 1 : end;
    }
    return kOk;
}

Handle Registry::Issue(Key* key, uint32_t access) {
    Handle handle = nextHandle_;
    nextHandle_ += kHandleStep;
    handles_[handle] = Opened{key, access};
    return handle;
}

int32_t Registry::OpenKey(Handle key, const char* subKey, uint32_t access, Handle* result) {
    if (result == nullptr) return kBadParameter;
    *result = 0;
    Key* from = nullptr;
    int32_t code = Reach(key, 0, &from);
    if (code != kOk) return code;
    Key* found = nullptr;
    code = Walk(from, subKey, &found);
    if (code != kOk) return code;
    *result = Issue(found, Rights(access));
    return kOk;
}

int32_t Registry::CreateKey(Handle key, const char* subKey, const char* keyClass, uint32_t access, Handle* result,
                            uint32_t* disposition) {
    if (result == nullptr) return kBadParameter;
    *result = 0;
    Key* at = nullptr;
    uint32_t rights = 0;
    int32_t code = Resolve(key, &at, &rights);
    if (code != kOk) return code;
    if (subKey != nullptr && *subKey == '\\') return kBadPath;

    // The names still missing below the deepest key that exists.
    std::vector<std::string> missing;
    const char* p = subKey != nullptr ? subKey : "";
    while (*p != '\0') {
        const char* end = p;
        while (*end != '\0' && *end != '\\') ++end;
        if (end != p) {
            std::string name(p, end);
            Key* next = missing.empty() ? at->FindSubkey(fold_(name)) : nullptr;
            if (next != nullptr) {
                at = next;
            } else {
                if (name.size() > kMaxKeyName) return kBadParameter;
                missing.push_back(std::move(name));
            }
        }
        p = *end == '\\' ? end + 1 : end;
    }
    if (!missing.empty()) {
        if ((rights & kCreateSubKey) == 0) return kAccessDenied;
        if (at->depth + missing.size() > kMaxDepth) return kBadParameter;
        for (const std::string& name : missing) at = AddSubkey(*at, name);
        if (keyClass != nullptr) at->keyClass = keyClass;
    }
    if (disposition != nullptr) *disposition = missing.empty() ? 2u : 1u;  // opened an existing key : made it
    *result = Issue(at, Rights(access));
    return kOk;
}

int32_t Registry::CloseKey(Handle key) {
    if (key >= kCurrentUser && key < kCurrentUser + kRootCount) return kOk;
    return handles_.erase(key) == 1 ? kOk : kBadHandle;
}

int32_t Registry::QueryValue(Handle key, const char* name, bool reserved, uint32_t* type, uint8_t* data,
                             uint32_t* size) const {
    if (reserved || (data != nullptr && size == nullptr)) return kBadParameter;
    Key* at = nullptr;
    int32_t code = Reach(key, kQueryValue, &at);
    if (code != kOk) return code;
    const Value* value = at->values.Find(fold_(name != nullptr ? name : ""));
    if (value == nullptr) {
        if (type != nullptr) *type = kTypeNone;  // as the platform leaves it
        return kNotFound;
    }
    if (type != nullptr) *type = value->type;
    uint32_t needed = Size32(value->data.size());
    if (data != nullptr) {
        if (*size < needed) {
            *size = needed;
            return kMoreData;  // the buffer stays untouched
        }
        PutBytes(data, *size, value->data);
        // A text without its terminator gains one where the buffer has room, uncounted, as the
        // platform's narrow call does.
        if (IsString(value->type) && needed > 0 && value->data.back() != 0 && *size > needed) data[needed] = 0;
    }
    if (size != nullptr) *size = needed;
    return kOk;
}

int32_t Registry::EnumValue(Handle key, uint32_t index, char* name, uint32_t* nameSize, bool reserved,
                            uint32_t* type, uint8_t* data, uint32_t* dataSize) const {
    if (name == nullptr || nameSize == nullptr || reserved || (data != nullptr && dataSize == nullptr)) {
        return kBadParameter;
    }
    Key* at = nullptr;
    int32_t code = Reach(key, kQueryValue, &at);
    if (code != kOk) return code;
    const Value* found = at->values.At(index);
    if (found == nullptr) return kNoMoreItems;
    const Value& value = *found;
    if (value.name.size() + 1 > *nameSize) return kMoreData;
    *nameSize = Size32(CopyText(name, *nameSize, value.name.c_str()));
    if (type != nullptr) *type = value.type;
    uint32_t needed = Size32(value.data.size());
    if (data != nullptr && *dataSize < needed) {
        *dataSize = needed;
        return kMoreData;
    }
    if (data != nullptr) PutBytes(data, *dataSize, value.data);
    if (dataSize != nullptr) *dataSize = needed;
    return kOk;
}

int32_t Registry::EnumKey(Handle key, uint32_t index, char* name, uint32_t* nameSize, bool reserved,
                          char* keyClass, uint32_t* classSize, uint64_t* lastWrite) const {
    if (name == nullptr || nameSize == nullptr || reserved || (keyClass != nullptr && classSize == nullptr)) {
        return kBadParameter;
    }
    Key* at = nullptr;
    int32_t code = Reach(key, kEnumerateSubKeys, &at);
    if (code != kOk) return code;
    const Key* found = at->SubkeyAt(index);
    if (found == nullptr) return kNoMoreItems;
    const Key& sub = *found;
    if (sub.name.size() + 1 > *nameSize) return kMoreData;
    if (keyClass != nullptr && sub.keyClass.size() + 1 > *classSize) return kMoreData;
    *nameSize = Size32(CopyText(name, *nameSize, sub.name.c_str()));
    if (keyClass != nullptr) *classSize = Size32(CopyText(keyClass, *classSize, sub.keyClass.c_str()));
    if (lastWrite != nullptr) *lastWrite = sub.lastWrite;
    return kOk;
}

int32_t Registry::DeleteKey(Handle key, const char* subKey) {
    if (subKey == nullptr) return kBadParameter;
    // The platform opens the doomed key itself; the handle's rights do not count.
    Key* at = nullptr;
    int32_t code = Reach(key, 0, &at);
    if (code != kOk) return code;
    Key* doomed = nullptr;
    code = Walk(at, subKey, &doomed);
    if (code != kOk) return code;
    if (doomed->parent == nullptr || !doomed->subkeys.empty()) return kAccessDenied;
    for (auto& entry : handles_) {
        if (entry.second.key == doomed) entry.second.key = nullptr;
    }
    Key* parent = doomed->parent;
    parent->subkeys.Erase(std::string(doomed->folded));
    parent->lastWrite = Now();
    return kOk;
}

int32_t Registry::DeleteValue(Handle key, const char* name) {
    Key* at = nullptr;
    int32_t code = Reach(key, kSetValue, &at);
    if (code != kOk) return code;
    if (!at->values.Erase(fold_(name != nullptr ? name : ""))) return kNotFound;
    at->lastWrite = Now();
    return kOk;
}

int32_t Registry::SetValue(Handle key, const char* name, uint32_t type, const uint8_t* data, uint32_t size) {
    if (data == nullptr && size > 0) return kNoAccess;
    Key* at = nullptr;
    int32_t code = Reach(key, kSetValue, &at);
    if (code != kOk) return code;
    std::vector<uint8_t> bytes;
    if (size > 0) bytes.assign(data, data + size);
    PutValue(*at, name != nullptr ? name : "", type, std::move(bytes));
    at->lastWrite = Now();
    return kOk;
}

int32_t Registry::QueryInfo(Handle key, char* keyClass, uint32_t* classSize, KeyInfo* info) const {
    // The reserved argument is ignored here, as the platform ignores it.
    if (keyClass != nullptr && classSize == nullptr) return kBadParameter;
    Key* at = nullptr;
    int32_t code = Reach(key, kQueryValue, &at);
    if (code != kOk) return code;
    if (info != nullptr) {
        KeyInfo counted;
        counted.subKeys = Size32(at->subkeys.size());
        for (const auto& entry : at->subkeys) {
            const Key& sub = *entry.second;
            counted.maxSubKeyLength = std::max(counted.maxSubKeyLength, Size32(sub.name.size()));
            counted.maxClassLength = std::max(counted.maxClassLength, Size32(sub.keyClass.size()));
        }
        counted.values = Size32(at->values.size());
        for (const auto& entry : at->values) {
            const Value& value = entry.second;
            counted.maxValueNameLength = std::max(counted.maxValueNameLength, Size32(value.name.size()));
            counted.maxValueLength = std::max(counted.maxValueLength, Size32(value.data.size()));
        }
        counted.lastWrite = at->lastWrite;
        *info = counted;
    }
    if (classSize != nullptr) {
        if (keyClass != nullptr) {
            if (at->keyClass.size() + 1 > *classSize) {
                code = kMoreData;
            } else {
                CopyText(keyClass, *classSize, at->keyClass.c_str());
            }
        }
        *classSize = Size32(at->keyClass.size());
    }
    return code;
}

Key* Registry::AddSubkey(Key& parent, const std::string& name) {
    if (name.empty() || name.size() > kMaxKeyName || name.find('\\') != std::string::npos ||
        name.find('\0') != std::string::npos || parent.depth + 1 > kMaxDepth) {
        return nullptr;
    }
    std::string folded = fold_(name);
    bool made = false;
    std::unique_ptr<Key>& key = parent.subkeys.Get(folded, [&] {
        made = true;
        auto fresh = std::make_unique<Key>();
        fresh->name = name;
        fresh->folded = folded;
        fresh->depth = parent.depth + 1;
        fresh->parent = &parent;
        fresh->lastWrite = Now();
        return fresh;
    });
    if (made) parent.lastWrite = key->lastWrite;
    return key.get();
}

void Registry::PutValue(Key& key, const std::string& name, uint32_t type, std::vector<uint8_t> data) {
    // A name already there keeps the case it was first given, as in the registry.
    Value& value = key.values.Get(fold_(name), [&] {
        Value fresh;
        fresh.name = name;
        return fresh;
    });
    value.type = type;
    value.data = std::move(data);
}

bool SameContent(const Key& a, const Key& b) {
    if (a.name != b.name || a.keyClass != b.keyClass || a.values.size() != b.values.size() ||
        a.subkeys.size() != b.subkeys.size()) {
        return false;
    }
    for (auto x = a.values.begin(), y = b.values.begin(); x != a.values.end(); ++x, ++y) {
        if (x->second.name != y->second.name || x->second.type != y->second.type || x->second.data != y->second.data) {
            return false;
        }
    }
    for (auto x = a.subkeys.begin(), y = b.subkeys.begin(); x != a.subkeys.end(); ++x, ++y) {
        if (!SameContent(*x->second, *y->second)) return false;
    }
    return true;
}

bool SameContent(const Registry& a, const Registry& b) {
    for (size_t i = 0; i < kRootCount; ++i) {
        if (!SameContent(a.Root(i), b.Root(i))) return false;
    }
    return true;
}

}  // namespace xmlreg
