// A host's password callback that answers as the test scripts it, and records what it was asked;
// registered with one family's SetPasswordCallback while it lives.
#pragma once

#include <windows.h>

#include <cwchar>
#include <string>

#include "dxsocks_types.h"

namespace dxtest {

struct AnsweringPasswords {
    using Setter = void (*)(void* context, DXSOCKS_PASSWORD_CALLBACK callback);

    explicit AnsweringPasswords(Setter set) : set_(set) { set_(this, &AnsweringPasswords::Answer); }
    ~AnsweringPasswords() { set_(nullptr, nullptr); }
    AnsweringPasswords(const AnsweringPasswords&) = delete;
    AnsweringPasswords& operator=(const AnsweringPasswords&) = delete;

    // The next answers: `password`, accepted (1) or declined (0).
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

private:
    Setter set_;
};

}  // namespace dxtest
