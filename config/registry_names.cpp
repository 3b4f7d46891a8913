#include "registry_names.h"

#include "bounded_text.h"

namespace {

constexpr char kProtocolsKey[] = "Network Protocols\\";

void PutFamily(BoundedWriter& writer, const char* family) {
    writer.Put(kProtocolsKey);
    if (family != nullptr) writer.Put(family);
}

// At least three digits, as "%03d" prints them.
void PutNumber(BoundedWriter& writer, int32_t value) {
    int64_t number = value;
    if (number < 0) {
        writer.Put('-');
        number = -number;
    }
    char digits[16];
    size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0 && count < sizeof digits);
    for (size_t pad = count + (value < 0 ? 1 : 0); pad < 3; ++pad) writer.Put('0');
    while (count > 0) writer.Put(digits[--count]);
}

}  // namespace

void FormatFamilyPath(char (&path)[kRegistryPathSize], const char* family) {
    BoundedWriter writer(path, sizeof path);
    PutFamily(writer, family);
}

void FormatDefaultMapPath(char (&path)[kRegistryPathSize], const char* family) {
    BoundedWriter writer(path, sizeof path);
    PutFamily(writer, family);
    writer.Put("\\Default Map");
}

void FormatMapKeyName(char (&name)[kRegistryPathSize], int32_t index) {
    BoundedWriter writer(name, sizeof name);
    writer.Put("Map ");
    PutNumber(writer, index);
}

void FormatMapPath(char (&path)[kRegistryPathSize], const char* family, int32_t index) {
    BoundedWriter writer(path, sizeof path);
    PutFamily(writer, family);
    writer.Put("\\Map ");
    PutNumber(writer, index);
}

int32_t NumberedMapCount(uint32_t countValue) {
    // Read as a signed number: 0xFFFFFFFF is -1, and a loop up to it runs no time.
    return countValue >= 0x80000000u ? 0 : static_cast<int32_t>(countValue);
}
