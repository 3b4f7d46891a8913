// The settings file's bytes and the XML wrapper's error line, free of the Windows API.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The frame ahead of the root element's text in the settings file.
constexpr wchar_t kSettingsFileHead[] = L"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE Settings>\r\n";

// The bytes a wide text becomes in the settings file: one byte of the same value per character below
// 256, and nothing from the first character of 256 or above on.
std::string SettingsFileBytes(const std::wstring& text);

// The text of the settings file's bytes: each byte widened to the character of its value.
std::wstring SettingsFileText(const std::string& bytes);

// The size of the error line, in wide characters with its terminator.
constexpr size_t kErrorLineSize = 2048;

// Forms "<text> (0x<code>: <message>)", or "<text> (0x<code>)" when the message is null or empty,
// into `line`. A message of more than two characters loses its last two (the system's line end).
// `text` is set down as it stands, never read as a format.
void FormatErrorLine(const wchar_t* text, uint32_t code, const wchar_t* message, wchar_t (&line)[kErrorLineSize]);
