// KVTSOCK2.DLL's in-memory registry: IXmlRegistry over the portable model, and its factory.
// DXSOCKS.DLL releases the object from its static destruction, which runs after this library's own
// detach at process exit: nothing here may rely on a static with a destructor.
#include <windows.h>

#include <cstring>
#include <new>
#include <string>
#include <type_traits>

#include "suite_entries.h"
#include "xml_registry_model.h"
#include "xml_registry_text.h"

namespace {

static_assert(xmlreg::kCurrentUser == static_cast<ULONG_PTR>(static_cast<LONG>(0x80000001)), "HKEY_CURRENT_USER");
static_assert(xmlreg::kLocalMachine == static_cast<ULONG_PTR>(static_cast<LONG>(0x80000002)), "HKEY_LOCAL_MACHINE");
static_assert(xmlreg::kUsers == static_cast<ULONG_PTR>(static_cast<LONG>(0x80000003)), "HKEY_USERS");
static_assert(xmlreg::kNotFound == ERROR_FILE_NOT_FOUND && xmlreg::kAccessDenied == ERROR_ACCESS_DENIED &&
                  xmlreg::kBadHandle == ERROR_INVALID_HANDLE && xmlreg::kBadText == ERROR_INVALID_DATA &&
                  xmlreg::kOutOfMemory == ERROR_OUTOFMEMORY && xmlreg::kBadParameter == ERROR_INVALID_PARAMETER &&
                  xmlreg::kBadPath == ERROR_BAD_PATHNAME && xmlreg::kMoreData == ERROR_MORE_DATA &&
                  xmlreg::kNoMoreItems == ERROR_NO_MORE_ITEMS && xmlreg::kNoAccess == ERROR_NOACCESS &&
                  xmlreg::kKeyDeleted == ERROR_KEY_DELETED,
              "registry codes");
static_assert(xmlreg::kQueryValue == KEY_QUERY_VALUE && xmlreg::kSetValue == KEY_SET_VALUE &&
                  xmlreg::kCreateSubKey == KEY_CREATE_SUB_KEY && xmlreg::kEnumerateSubKeys == KEY_ENUMERATE_SUB_KEYS,
              "access rights");
static_assert(xmlreg::kTypeString == REG_SZ && xmlreg::kTypeExpandString == REG_EXPAND_SZ &&
                  xmlreg::kTypeBinary == REG_BINARY && xmlreg::kTypeDword == REG_DWORD &&
                  xmlreg::kTypeMultiString == REG_MULTI_SZ,
              "value types");

// The registry's comparison: names in the ANSI code page, equal when their UTF-16 upper cases are,
// in the order of those upper cases.
std::string AnsiFold(const std::string& name) {
    // ASCII is the same in every ANSI code page, and its upper case is A to Z: no call needed.
    bool ascii = true;
    for (char c : name) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
        std::string folded;
        folded.reserve(name.size() * 2);
        for (char c : name) {
            folded.push_back('\0');
            folded.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c);
        }
        return folded;
    }
    if (name.size() > 0x7fffffff) return xmlreg::AsciiFold(name);
    int size = static_cast<int>(name.size());
    int length = MultiByteToWideChar(CP_ACP, 0, name.data(), size, nullptr, 0);
    if (length <= 0) return xmlreg::AsciiFold(name);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_ACP, 0, name.data(), size, &wide[0], length);
    CharUpperBuffW(&wide[0], static_cast<DWORD>(length));
    std::string folded;
    folded.reserve(wide.size() * 2);
    for (wchar_t c : wide) {
        folded.push_back(static_cast<char>((c >> 8) & 0xff));
        folded.push_back(static_cast<char>(c & 0xff));
    }
    return folded;
}

xmlreg::Handle H(HKEY key) { return reinterpret_cast<xmlreg::Handle>(key); }

// A DWORD the caller may pass for reading and writing, seen by the model as uint32_t.
class Count {
public:
    explicit Count(DWORD* count) : count_(count), value_(count != nullptr ? *count : 0) {}
    ~Count() {
        if (count_ != nullptr) *count_ = value_;
    }
    Count(const Count&) = delete;
    Count& operator=(const Count&) = delete;
    uint32_t* get() { return count_ != nullptr ? &value_ : nullptr; }

private:
    DWORD* count_;
    uint32_t value_;
};

void PutTime(FILETIME* time, uint64_t value) {
    if (time == nullptr) return;
    time->dwLowDateTime = static_cast<DWORD>(value & 0xffffffffu);
    time->dwHighDateTime = static_cast<DWORD>(value >> 32);
}

constexpr uint32_t kSignature = 0x47455258;  // "XREG"

class XmlRegistry final : public IXmlRegistry {
public:
    XmlRegistry() : model_(AnsiFold) { InitializeCriticalSection(&lock_); }
    ~XmlRegistry() {
        signature_ = 0;
        DeleteCriticalSection(&lock_);
    }
    XmlRegistry(const XmlRegistry&) = delete;
    XmlRegistry& operator=(const XmlRegistry&) = delete;

    bool Genuine() const { return signature_ == kSignature; }
    xmlreg::Registry& Model() { return model_; }

    LONG OpenKey(HKEY key, const char* subKey, DWORD options, REGSAM access, HKEY* result) override {
        return Locked([&] {
            xmlreg::Handle opened = 0;
            int32_t code = model_.OpenKey(H(key), subKey, access, result != nullptr ? &opened : nullptr);
            if (result != nullptr) *result = reinterpret_cast<HKEY>(opened);
            return code;
        });
    }
    LONG CreateKey(HKEY key, const char* subKey, DWORD reserved, char* keyClass, DWORD options, REGSAM access,
                   SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition) override {
        return Locked([&] {
            xmlreg::Handle made = 0;
            Count told(disposition);
            int32_t code = model_.CreateKey(H(key), subKey, keyClass, access, result != nullptr ? &made : nullptr,
                                            told.get());
            if (result != nullptr) *result = reinterpret_cast<HKEY>(made);
            return code;
        });
    }
    LONG CloseKey(HKEY key) override {
        return Locked([&] { return model_.CloseKey(H(key)); });
    }
    LONG QueryValue(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size) override {
        return Locked([&] {
            Count typed(type);
            Count sized(size);
            return model_.QueryValue(H(key), name, reserved != nullptr, typed.get(), data, sized.get());
        });
    }
    LONG EnumValue(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, DWORD* type, BYTE* data,
                   DWORD* dataSize) override {
        return Locked([&] {
            Count named(nameSize);
            Count typed(type);
            Count sized(dataSize);
            return model_.EnumValue(H(key), index, name, named.get(), reserved != nullptr, typed.get(), data,
                                    sized.get());
        });
    }
    LONG EnumKey(HKEY key, DWORD index, char* name, DWORD nameSize) override {
        return Locked([&] {
            uint32_t size = nameSize;
            return model_.EnumKey(H(key), index, name, &size, false, nullptr, nullptr, nullptr);
        });
    }
    LONG EnumKeyEx(HKEY key, DWORD index, char* name, DWORD* nameSize, DWORD* reserved, char* keyClass,
                   DWORD* classSize, FILETIME* lastWrite) override {
        return Locked([&] {
            Count named(nameSize);
            Count classed(classSize);
            uint64_t time = 0;
            int32_t code = model_.EnumKey(H(key), index, name, named.get(), reserved != nullptr, keyClass,
                                          classed.get(), &time);
            if (code == xmlreg::kOk) PutTime(lastWrite, time);
            return code;
        });
    }
    LONG DeleteKey(HKEY key, const char* subKey) override {
        return Locked([&] { return model_.DeleteKey(H(key), subKey); });
    }
    LONG DeleteValue(HKEY key, const char* name) override {
        return Locked([&] { return model_.DeleteValue(H(key), name); });
    }
    LONG SetValue(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) override {
        return Locked([&] { return model_.SetValue(H(key), name, type, data, size); });
    }
    LONG QueryInfoKey(HKEY key, char* keyClass, DWORD* classSize, DWORD* reserved, DWORD* subKeys,
                      DWORD* maxSubKeyLength, DWORD* maxClassLength, DWORD* values, DWORD* maxValueNameLength,
                      DWORD* maxValueLength, DWORD* securityDescriptor, FILETIME* lastWrite) override {
        return Locked([&] {
            Count classed(classSize);
            xmlreg::KeyInfo info;
            int32_t code = model_.QueryInfo(H(key), keyClass, classed.get(), &info);
            if (code == xmlreg::kOk || code == xmlreg::kMoreData) {
                if (subKeys != nullptr) *subKeys = info.subKeys;
                if (maxSubKeyLength != nullptr) *maxSubKeyLength = info.maxSubKeyLength;
                if (maxClassLength != nullptr) *maxClassLength = info.maxClassLength;
                if (values != nullptr) *values = info.values;
                if (maxValueNameLength != nullptr) *maxValueNameLength = info.maxValueNameLength;
                if (maxValueLength != nullptr) *maxValueLength = info.maxValueLength;
                // No security descriptor is kept.
                if (securityDescriptor != nullptr) *securityDescriptor = 0;
                PutTime(lastWrite, info.lastWrite);
            }
            return code;
        });
    }
    const char* GetXml() override {
        const char* text = nullptr;
        Locked([&] {
            xml_ = xmlreg::WriteText(model_);
            text = xml_.c_str();
            return xmlreg::kOk;
        });
        return text;
    }

private:
    // One call at a time; memory running out is a result, never an exception across the interface.
    template <typename Call>
    LONG Locked(Call call) {
        EnterCriticalSection(&lock_);
        LONG code;
        try {
            code = call();
        } catch (...) {
            code = ERROR_OUTOFMEMORY;
        }
        LeaveCriticalSection(&lock_);
        return code;
    }

    uint32_t signature_ = kSignature;
    CRITICAL_SECTION lock_;
    xmlreg::Registry model_;
    std::string xml_;
};

}  // namespace

extern "C" {

// A registry made from `text` (null: empty) for family 1 (SOCKS) or 2 (HTTP); the family has no
// other use. 0 with *registry set; else *registry null and 87 for a bad family, 13 for bad text.
LONG WINAPI XmlCreateReg(DWORD family, const char* text, IXmlRegistry** registry) {
    if (registry == nullptr) return ERROR_INVALID_PARAMETER;
    *registry = nullptr;
    if (family != 1 && family != 2) return ERROR_INVALID_PARAMETER;
    XmlRegistry* made = nullptr;
    LONG code = ERROR_SUCCESS;
    try {
        made = new XmlRegistry();
        if (text != nullptr) code = xmlreg::ReadText(text, std::strlen(text), made->Model());
    } catch (...) {
        code = ERROR_OUTOFMEMORY;
    }
    if (code != ERROR_SUCCESS) {
        delete made;
        return code;
    }
    *registry = made;
    return ERROR_SUCCESS;
}

// Frees a registry of XmlCreateReg (null: nothing); any handles it gave out go with it.
LONG WINAPI XmlReleaseReg(IXmlRegistry* registry) {
    if (registry == nullptr) return ERROR_SUCCESS;
    auto* object = static_cast<XmlRegistry*>(registry);
    // A second release of the same object is refused while its memory still says what it was.
    if (!object->Genuine()) return ERROR_INVALID_HANDLE;
    delete object;
    return ERROR_SUCCESS;
}

}  // extern "C"

static_assert(std::is_same_v<decltype(&XmlCreateReg), PFN_XmlCreateReg>, "XmlCreateReg");
static_assert(std::is_same_v<decltype(&XmlReleaseReg), PFN_XmlReleaseReg>, "XmlReleaseReg");
