// The in-memory registry of the suite library: keys named without regard to case, values of any
// type with their bytes, and the registry calls on it with the registry's own answers. Handles are
// numbers that the registry hands out; the three hive handles stand for its roots. Free of the
// Windows API: the library wraps it in IXmlRegistry, and the native tests and the fuzzer drive it
// directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace xmlreg {

// The registry's answers, as the platform numbers them.
constexpr int32_t kOk = 0;
constexpr int32_t kNotFound = 2;          // ERROR_FILE_NOT_FOUND
constexpr int32_t kAccessDenied = 5;      // ERROR_ACCESS_DENIED: handle without the right, key with subkeys
constexpr int32_t kBadHandle = 6;         // ERROR_INVALID_HANDLE
constexpr int32_t kBadText = 13;          // ERROR_INVALID_DATA: text outside the grammar
constexpr int32_t kOutOfMemory = 14;      // ERROR_OUTOFMEMORY
constexpr int32_t kBadParameter = 87;     // ERROR_INVALID_PARAMETER
constexpr int32_t kBadPath = 161;         // ERROR_BAD_PATHNAME
constexpr int32_t kMoreData = 234;        // ERROR_MORE_DATA
constexpr int32_t kNoMoreItems = 259;     // ERROR_NO_MORE_ITEMS
constexpr int32_t kNoAccess = 998;        // ERROR_NOACCESS: data missing for a size above 0
constexpr int32_t kKeyDeleted = 1018;     // ERROR_KEY_DELETED: the handle's key was deleted

// Value types that the text names; any other 32-bit type is kept as a number.
constexpr uint32_t kTypeNone = 0;
constexpr uint32_t kTypeString = 1;       // REG_SZ
constexpr uint32_t kTypeExpandString = 2; // REG_EXPAND_SZ
constexpr uint32_t kTypeBinary = 3;       // REG_BINARY
constexpr uint32_t kTypeDword = 4;        // REG_DWORD
constexpr uint32_t kTypeMultiString = 7;  // REG_MULTI_SZ

// Access rights a handle is opened with.
constexpr uint32_t kQueryValue = 0x1;
constexpr uint32_t kSetValue = 0x2;
constexpr uint32_t kCreateSubKey = 0x4;
constexpr uint32_t kEnumerateSubKeys = 0x8;

using Handle = uintptr_t;

// The hive handles as a 64-bit process sees them: sign-extended 32-bit values.
constexpr Handle kHiveHandleBase = static_cast<Handle>(static_cast<intptr_t>(INT32_MIN));
constexpr Handle kCurrentUser = kHiveHandleBase + 1;
constexpr Handle kLocalMachine = kHiveHandleBase + 2;
constexpr Handle kUsers = kHiveHandleBase + 3;

constexpr size_t kRootCount = 3;
// Root names in the order of kCurrentUser, kLocalMachine, kUsers.
extern const char* const kRootNames[kRootCount];

// Deepest key below a root, as the registry allows; also what keeps the text's nesting bounded.
constexpr size_t kMaxDepth = 512;
// Longest key name in bytes.
constexpr size_t kMaxKeyName = 255;

// The form in which names are compared and sorted: equal for names that differ only in case. The
// library folds in the ANSI code page; AsciiFold folds A to Z alone.
using NameFold = std::string (*)(const std::string& name);
std::string AsciiFold(const std::string& name);

struct Value {
    std::string name;
    uint32_t type = kTypeNone;
    std::vector<uint8_t> data;
};

// Items by folded name, in that order, as the platform keeps a key's subkeys and values; also by
// position, which costs little for positions asked in a row, as enumerations ask them.
template <typename Item>
class Ordered {
public:
    using Map = std::map<std::string, Item>;

    Item* Find(const std::string& folded) {
        auto it = items_.find(folded);
        return it != items_.end() ? &it->second : nullptr;
    }
    const Item* Find(const std::string& folded) const {
        auto it = items_.find(folded);
        return it != items_.end() ? &it->second : nullptr;
    }
    const Item* At(size_t index) const {
        if (index >= items_.size()) return nullptr;
        if (cursorIndex_ > index) {
            cursor_ = items_.begin();
            cursorIndex_ = 0;
        }
        for (; cursorIndex_ < index; ++cursorIndex_) ++cursor_;
        return &cursor_->second;
    }
    // The item of `folded`, made from `make()` if there is none.
    template <typename Make>
    Item& Get(const std::string& folded, Make make) {
        auto it = items_.find(folded);
        if (it != items_.end()) return it->second;
        Forget();
        return items_.emplace(folded, make()).first->second;
    }
    bool Erase(const std::string& folded) {
        Forget();
        return items_.erase(folded) == 1;
    }
    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    typename Map::const_iterator begin() const { return items_.begin(); }
    typename Map::const_iterator end() const { return items_.end(); }

private:
    void Forget() { cursorIndex_ = SIZE_MAX; }

    Map items_;
    mutable typename Map::const_iterator cursor_;
    mutable size_t cursorIndex_ = SIZE_MAX;
};

struct Key {
    std::string name;
    std::string folded;
    std::string keyClass;
    uint64_t lastWrite = 0;  // FILETIME units
    size_t depth = 0;        // 0 for a root
    Key* parent = nullptr;
    Ordered<std::unique_ptr<Key>> subkeys;
    Ordered<Value> values;

    Key* FindSubkey(const std::string& f) const {
        const std::unique_ptr<Key>* found = subkeys.Find(f);
        return found != nullptr ? found->get() : nullptr;
    }
    // The subkey at `index` in name order, or null.
    const Key* SubkeyAt(size_t index) const {
        const std::unique_ptr<Key>* found = subkeys.At(index);
        return found != nullptr ? found->get() : nullptr;
    }
};

// What QueryInfo gives besides the class.
struct KeyInfo {
    uint32_t subKeys = 0;
    uint32_t maxSubKeyLength = 0;  // characters, without terminator
    uint32_t maxClassLength = 0;
    uint32_t values = 0;
    uint32_t maxValueNameLength = 0;
    uint32_t maxValueLength = 0;  // bytes
    uint64_t lastWrite = 0;
};

// One registry: three roots and the handles opened on it. Not synchronised: the caller serialises.
class Registry {
public:
    explicit Registry(NameFold fold = AsciiFold);
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // The registry calls. Sizes are in and out as the platform's are; a null pointer where the
    // platform allows one is allowed here.
    int32_t OpenKey(Handle key, const char* subKey, uint32_t access, Handle* result);
    int32_t CreateKey(Handle key, const char* subKey, const char* keyClass, uint32_t access, Handle* result,
                      uint32_t* disposition);
    int32_t CloseKey(Handle key);
    int32_t QueryValue(Handle key, const char* name, bool reserved, uint32_t* type, uint8_t* data,
                       uint32_t* size) const;
    int32_t EnumValue(Handle key, uint32_t index, char* name, uint32_t* nameSize, bool reserved, uint32_t* type,
                      uint8_t* data, uint32_t* dataSize) const;
    int32_t EnumKey(Handle key, uint32_t index, char* name, uint32_t* nameSize, bool reserved, char* keyClass,
                    uint32_t* classSize, uint64_t* lastWrite) const;
    int32_t DeleteKey(Handle key, const char* subKey);
    int32_t DeleteValue(Handle key, const char* name);
    int32_t SetValue(Handle key, const char* name, uint32_t type, const uint8_t* data, uint32_t size);
    int32_t QueryInfo(Handle key, char* keyClass, uint32_t* classSize, KeyInfo* info) const;

    // The content, for the text's reader and writer.
    Key& Root(size_t index) { return *roots_[index]; }
    const Key& Root(size_t index) const { return *roots_[index]; }
    // The subkey `name` of `parent`, made if missing; null if the name is not a key name or the key
    // would lie too deep.
    Key* AddSubkey(Key& parent, const std::string& name);
    // Sets a value of `key`, replacing one of that name.
    void PutValue(Key& key, const std::string& name, uint32_t type, std::vector<uint8_t> data);
    std::string Fold(const std::string& name) const { return fold_(name); }
    size_t OpenHandles() const { return handles_.size(); }

private:
    struct Opened {
        Key* key;  // null once the key is deleted
        uint32_t access;
    };
    // The key and rights of a handle; kBadHandle, or kKeyDeleted for a handle whose key is gone.
    int32_t Resolve(Handle handle, Key** key, uint32_t* access) const;
    // The key of a handle that has `right`; kAccessDenied if it lacks it.
    int32_t Reach(Handle handle, uint32_t right, Key** key) const;
    // Walks `subKey` below `from`; kNotFound, or kBadPath for a malformed path.
    int32_t Walk(Key* from, const char* subKey, Key** found) const;
    Handle Issue(Key* key, uint32_t access);

    NameFold fold_;
    std::unique_ptr<Key> roots_[kRootCount];
    std::map<Handle, Opened> handles_;
    Handle nextHandle_;
};

// Whether two keys hold the same names, classes, subkeys and values (type and bytes), names compared
// byte for byte; times are not compared.
bool SameContent(const Key& a, const Key& b);
bool SameContent(const Registry& a, const Registry& b);

}  // namespace xmlreg
