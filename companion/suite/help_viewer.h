// The help pages shipped in the help folder beside the libraries, and how one is opened.
#pragma once

#include <windows.h>

#include <string>

namespace suite {

constexpr DWORD kSocksHelpId = 2002;
constexpr DWORD kHttpHelpId = 2004;

// Names a program that opens a page in place of the shell: it runs with the page's full path as its
// one argument. Tests point it at a recorder, since no browser may start there.
constexpr wchar_t kHelpViewerVariable[] = L"DXSOCKS_HELP_VIEWER";

// "help\socks.html" for 2002, "help\http.html" for 2004, "help\index.html" for any other id.
std::wstring HelpPageName(DWORD helpId);

// Opens the page of `helpId` from the help folder beside this library. True if the page exists and
// the shell (or the viewer named above) took it.
bool ShowHelpPage(HWND window, DWORD helpId);

}  // namespace suite
