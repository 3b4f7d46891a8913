// While one lives, both families' password callbacks decline, as a user who cancels the prompt
// does: tests of that outcome never wait on the UI library's prompt.
#pragma once

#include "http_api.h"
#include "socks_api.h"

namespace dxtest {

class DecliningPasswords {
public:
    DecliningPasswords() {
        SOCKS_SetPasswordCallback(nullptr, Decline);
        HTTP_SetPasswordCallback(nullptr, Decline);
    }
    ~DecliningPasswords() {
        SOCKS_SetPasswordCallback(nullptr, nullptr);
        HTTP_SetPasswordCallback(nullptr, nullptr);
    }
    DecliningPasswords(const DecliningPasswords&) = delete;
    DecliningPasswords& operator=(const DecliningPasswords&) = delete;

private:
    static int Decline(void*, wchar_t*, int, const wchar_t*, const wchar_t*) { return 0; }
};

}  // namespace dxtest
