// Numbers of the settings file, read as the standard library's stoi reads them. Free of the Windows API.
#pragma once

// Raised texts, as the settings file's readers give them to whoever catches them.
constexpr char kConfigNumberInvalid[] = "invalid stoi argument";
constexpr char kConfigNumberOutOfRange[] = "stoi argument out of range";

// Base 10: leading white space (blank, tab, line feed, vertical tab, form feed, carriage return) is
// skipped, an optional sign taken, then digits up to the first other character; the rest is ignored.
// No digit (a null text too) raises std::invalid_argument with kConfigNumberInvalid; a value outside
// the range of a signed 32-bit number raises std::out_of_range with kConfigNumberOutOfRange.
int ConvertConfigNumber(const char* text);
