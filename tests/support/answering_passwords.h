// A host's password callback that answers as the test scripts it, and records what it was asked.
// Register it with either family's SetPasswordCallback, the object as the context.
#pragma once

#include <windows.h>

#include <cwchar>
#include <string>

namespace dxtest {

struct AnsweringPasswords {
    std::wstring password;
    int result = 1;
    // What the callback was asked.
    int calls = 0;
    int size = 0;
    std::wstring user;
    std::wstring proxy;
    DWORD thread = 0;

    static int Answer(void* context, wchar_t* out, int size, const wchar_t* user, const wchar_t* proxy) {
        auto* self = static_cast<AnsweringPasswords*>(context);
        ++self->calls;
        self->size = size;
        self->user = user;
        self->proxy = proxy;
        self->thread = GetCurrentThreadId();
        wcsncpy(out, self->password.c_str(), static_cast<size_t>(size) - 1);
        return self->result;
    }
};

}  // namespace dxtest
