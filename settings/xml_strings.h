// What the files that speak to the XML service share: its strings freed at the end of a scope, and
// its objects released and their pointers cleared.
#pragma once

#include <windows.h>
#include <comdef.h>

namespace xmlcom {

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

template <typename Interface>
void Release(Interface*& object) {
    if (object != nullptr) object->Release();
    object = nullptr;
}

}  // namespace xmlcom
