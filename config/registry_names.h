// The older registry store's key names below Software\Verdane and the rule of its map count, free of
// the Windows API.
#pragma once

#include <cstddef>
#include <cstdint>

// "Network Protocols\<family>\Map 2147483647" and more fit.
constexpr size_t kRegistryPathSize = 128;

constexpr char kSocksFamilyName[] = "SOCKS";
constexpr char kHttpFamilyName[] = "HTTP";

// "Network Protocols\<family>": the family key, relative to Software\Verdane.
void FormatFamilyPath(char (&path)[kRegistryPathSize], const char* family);
// "Network Protocols\<family>\Default Map".
void FormatDefaultMapPath(char (&path)[kRegistryPathSize], const char* family);
// "Map %03d": at least three digits, "Map 001", and more beyond 999, "Map 1000".
void FormatMapKeyName(char (&name)[kRegistryPathSize], int32_t index);
// "Network Protocols\<family>\Map %03d".
void FormatMapPath(char (&path)[kRegistryPathSize], const char* family, int32_t index);

// The numbered maps a `Count` value stands for: the value is signed, so 0x80000000 and above mean
// none; any positive value is taken as it is.
int32_t NumberedMapCount(uint32_t countValue);
