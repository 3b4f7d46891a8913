// The log's second formatting pass: an already formatted line is used as a printf format once more,
// with no arguments. No conversion reads an argument and none writes memory:
//   "%%" gives "%"; integer conversions print 0 and floating ones 0.0, with their flags, width and
//   precision; "%s" prints "(null)"; "%p" prints zeros; a '*' width or precision counts as 0;
//   "%c" and "%n" print nothing; an unknown or unfinished conversion stays as it stands.
#pragma once

#include <cstddef>

// Writes the result into `out` of `count` bytes, cut to count-1 characters and terminated.
// Returns the number of characters written.
size_t FormatWithoutArguments(const char* text, char* out, size_t count);
