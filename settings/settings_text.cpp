#include "settings_text.h"

#include <cwchar>

#include "bounded_text.h"

std::string SettingsFileBytes(const std::wstring& text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (wchar_t c : text) {
        // Kept: a character without a one-byte form ends the file; the rest of the text is lost.
        if (static_cast<uint32_t>(c) >= 256) break;
        bytes.push_back(static_cast<char>(static_cast<unsigned char>(c)));
    }
    return bytes;
}

std::wstring SettingsFileText(const std::string& bytes) {
    std::wstring text;
    text.reserve(bytes.size());
    for (char c : bytes) text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return text;
}

void FormatErrorLine(const wchar_t* text, uint32_t code, const wchar_t* message, wchar_t (&line)[kErrorLineSize]) {
    WideBoundedWriter writer(line, kErrorLineSize);
    if (text != nullptr) writer.Put(text);
    writer.Put(L" (0x");
    for (int shift = 28; shift >= 0; shift -= 4) writer.Put(L"0123456789abcdef"[(code >> shift) & 0xF]);
    size_t length = message != nullptr ? std::wcslen(message) : 0;
    if (length > 2) length -= 2;
    if (length > 0) {
        writer.Put(L": ");
        writer.Put(message, length);
    }
    writer.Put(L")");
}
