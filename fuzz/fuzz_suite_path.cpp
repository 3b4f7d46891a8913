// The suite library's path: the directory as given when it is under 260 characters, one backslash
// behind it unless it ends in one (a double-byte character's trail byte is no backslash), the file
// name, and nothing written beyond the buffer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "suite_path.h"

namespace {
bool ShiftJisLead(unsigned char byte) { return (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC); }
bool SingleByte(unsigned char) { return false; }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    LeadBytePredicate lead = (data[0] & 1) != 0 ? ShiftJisLead : SingleByte;
    std::string directory(reinterpret_cast<const char*>(data + 1), size - 1);
    directory = directory.c_str();

    char out[kSuiteJoinedSize + 8];
    std::memset(out, 0x5a, sizeof out);
    JoinSuitePath(directory.c_str(), lead, reinterpret_cast<char(&)[kSuiteJoinedSize]>(out));
    for (size_t i = kSuiteJoinedSize; i < sizeof out; ++i) {
        if (out[i] != 0x5a) std::abort();
    }
    std::string joined = out;
    std::string name = kSuiteLibraryName;
    if (directory.size() >= kSuitePathSize || directory.empty()) {
        if (joined != name) std::abort();
        return 0;
    }
    if (joined.compare(0, directory.size(), directory) != 0) std::abort();
    std::string rest = joined.substr(directory.size());
    // Whether the directory's last character is a backslash, reading character by character.
    bool endsInBackslash = false;
    for (size_t i = 0; i < directory.size(); ++i) {
        endsInBackslash = directory[i] == '\\';
        if (lead(static_cast<unsigned char>(directory[i])) && i + 1 < directory.size()) ++i;
    }
    if (rest != (endsInBackslash ? name : "\\" + name)) std::abort();
    return 0;
}
