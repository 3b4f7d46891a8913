// The registry layer's reading of a value's bytes and type, its name lists, and the settings file's
// bytes: results follow the layer's rules, nothing is written outside a buffer, every buffer given
// a text stays terminated, and the file's bytes and text go back and forth.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "guarded_field.h"
#include "registry_value.h"
#include "settings_text.h"

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

constexpr char kGuard = 0x5a;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint32_t type = data[0] % 8;
    const uint32_t fallback = data[1] % 3;
    const uint8_t* value = data + 2;
    const size_t length = size - 2;

    const uint32_t flag = FlagFromValue(type, value, length, fallback, dxtest::AsciiCompareNoCase);
    if (type == kValueBinary || type == kValueNumber) Check(flag == (length > 0 && value[0] == 1 ? 1u : 0u));
    else if (type == kValueText) Check(flag == 0 || flag == 1 || flag == fallback);
    else Check(flag == 0);

    uint32_t number = 0;
    for (size_t i = 0; i < length && i < 4; ++i) number |= static_cast<uint32_t>(value[i]) << (8 * i);
    Check(NumberFromValue(value, length) == number);

    // A string read into a buffer of the size the first byte names, read or not as the second says.
    const uint32_t bufferSize = data[0] / 8;
    std::vector<char> buffer(bufferSize + 8, kGuard);
    std::memcpy(buffer.data(), value, length < bufferSize ? length : bufferSize);
    const bool succeeded = (data[1] & 4) != 0;
    std::string fallbackText(reinterpret_cast<const char*>(value), length);
    fallbackText = fallbackText.c_str();
    const uint32_t read = static_cast<uint32_t>(length < bufferSize ? length : bufferSize);
    const uint32_t result = FinishStringRead(succeeded, read, fallbackText.c_str(), buffer.data(), bufferSize);
    for (size_t i = bufferSize; i < buffer.size(); ++i) Check(buffer[i] == kGuard);
    if (bufferSize > 0) Check(std::memchr(buffer.data(), 0, bufferSize) != nullptr);
    if (succeeded) Check(result == read);
    else if (bufferSize > 0) Check(fallbackText.size() < bufferSize ? result == fallbackText.size() : result == 0);

    // Names split at zero bytes, listed into the buffer as far as they fit.
    std::vector<char> list(bufferSize + 8, kGuard);
    NameListWriter writer(list.data(), bufferSize);
    std::vector<std::string> added;
    size_t start = 0;
    for (size_t i = 0; i <= length; ++i) {
        if (i < length && value[i] != 0) continue;
        std::string name(reinterpret_cast<const char*>(value) + start, i - start);
        start = i + 1;
        if (!writer.Add(name.data(), name.size())) break;
        added.push_back(name);
    }
    const size_t used = writer.Finish();
    for (size_t i = bufferSize; i < list.size(); ++i) Check(list[i] == kGuard);
    if (bufferSize < 3) {
        Check(used == 0 && added.empty());
    } else {
        std::string expected;
        for (const std::string& name : added) expected += name + '\0';
        expected += '\0';
        Check(used == expected.size() && used <= bufferSize);
        Check(std::memcmp(list.data(), expected.data(), used) == 0);
    }

    // The file's bytes become text and back unchanged; a text is cut at its first character of 256 or more.
    const std::string bytes(reinterpret_cast<const char*>(value), length);
    Check(SettingsFileBytes(SettingsFileText(bytes)) == bytes);
    std::wstring wide = SettingsFileText(bytes);
    const size_t cut = length / 2;
    if (cut < wide.size()) wide[cut] = static_cast<wchar_t>(0x100 + data[1]);
    Check(SettingsFileBytes(wide) == bytes.substr(0, cut < wide.size() ? cut : bytes.size()));

    wchar_t line[kErrorLineSize + 4];
    for (wchar_t& c : line) c = L'#';
    const std::wstring message = SettingsFileText(bytes.substr(0, length / 3));
    FormatErrorLine(wide.c_str(), number, message.c_str(), reinterpret_cast<wchar_t(&)[kErrorLineSize]>(line));
    Check(std::wcslen(line) < kErrorLineSize);
    for (size_t i = kErrorLineSize; i < kErrorLineSize + 4; ++i) Check(line[i] == L'#');
    return 0;
}
