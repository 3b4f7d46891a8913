// The library's one reader of decimal text, in place of atoi wherever a number is read. Free of the
// Windows API.
#pragma once

#include <cstddef>

// Reads as the Windows runtime's atoi does: white space (blank, tab, line feed, vertical tab, form
// feed, carriage return), an optional sign, then digits up to the first other character. A value
// beyond the range of int gives 2147483647, or -2147483648 below it, instead of wrapping. No digit
// gives 0; so does a null text.
int ReadDecimal(const char* text);

// The same on at most `length` characters of `text`.
int ReadDecimal(const char* text, size_t length);
