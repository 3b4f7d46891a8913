// The suite's folders: its data folder in the user's application data with the settings file in it,
// the folder vocabulary (%appdatafolder%, %commonappdatafolder%), and directory trees.
#pragma once

#include <windows.h>

#include <string>

namespace suite {

// Below the application data folder, per user or for all users.
constexpr wchar_t kDataSubfolder[] = L"Zelmont\\Verdane";
constexpr wchar_t kSettingsFileName[] = L"Settings.xml";
constexpr wchar_t kLogSubfolder[] = L"Logs";

// Makes every missing folder of `path` (relative paths count from the current folder). True if the
// path is a folder afterwards; otherwise the last error tells why.
bool CreateFolderTree(const std::wstring& path, SECURITY_ATTRIBUTES* security = nullptr);

// <per-user application data>\Zelmont\Verdane, created if missing; empty on failure.
std::wstring DataFolder();
// The settings file in the data folder; empty if the folder cannot be made.
std::wstring SettingsFilePath();
// The folder set for this process, else the data folder; created if missing; empty on failure.
std::wstring UserFolder();
// The folder set for this process, else the data folder's Logs; created if missing; empty on failure.
std::wstring LogFolder();
// Sets the folder for this process (nothing is stored beyond it); an empty text goes back to the
// default. False for a null text or one that does not make a full path.
bool SetUserFolder(const char* folder);
bool SetLogFolder(const char* folder);

// Replaces the tokens %appdatafolder% and %commonappdatafolder%, in any case, by the per-user and the
// all-users application data folder; other text stays. False if a folder cannot be found.
bool ExpandFolderVocabulary(const std::wstring& text, std::wstring* out);

// A path as narrow text for callers that speak the ANSI code page: as it stands if the code page
// holds it, else through the short form of its existing folder. False if neither works.
bool PathToAnsi(const std::wstring& path, std::string* out);

// Puts `text` and its terminator into `buffer` of `size` bytes and returns its length. Returns 0 and
// leaves the buffer empty if the text is empty or does not fit (then the last error is 122).
DWORD PutText(const std::string& text, char* buffer, DWORD size);

}  // namespace suite
