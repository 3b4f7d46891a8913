// What the command lines of the tools share: an option's value, given as "-xVALUE" or as the next
// word, and a decimal number within bounds.
#pragma once

#include <cstdlib>
#include <string>

// The value of option `arg` (argv[*i]); moves *i past a value taken from the next word. False when
// there is none.
inline bool OptionValue(const std::string& arg, int argc, char** argv, int* i, std::string* value) {
    if (arg.size() > 2) {
        *value = arg.substr(2);
        return true;
    }
    if (*i + 1 >= argc) return false;
    *value = argv[++*i];
    return true;
}

// Up to five decimal digits, from `low` to `high`.
inline bool ReadDecimal(const std::string& text, unsigned long low, unsigned long high, unsigned* value) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
    if (number < low || number > high) return false;
    *value = static_cast<unsigned>(number);
    return true;
}
