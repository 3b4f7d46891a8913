// What the command lines of the tools share: how a word that starts with '-' is read (a switch, or
// an option whose value is given as "-xVALUE" or as the next word), a decimal number within bounds,
// and the usage message.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// Every tool exits with 2 on a bad command line.
constexpr int kToolExitUsage = 2;

// Says what is wrong with the command line of `tool` and how to get help; returns the exit code.
inline int ToolUsageError(const char* tool, const std::string& message) {
    std::fprintf(stderr, "%s: %s\nTry '%s -h' for help.\n", tool, message.c_str(), tool);
    return kToolExitUsage;
}

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

// One option word (argv[*i], starting with '-'): `flag` is its letter; a letter of `valued` takes a
// value, which moves *i past it when it is the next word; a letter of `switches` takes none. Empty
// `fault` when the word is good, else what to tell the user.
struct OptionWord {
    char flag = 0;
    std::string value;
    std::string fault;
};
inline OptionWord ReadOptionWord(const char* switches, const char* valued, int argc, char** argv, int* i) {
    const std::string arg = argv[*i];
    OptionWord word;
    word.flag = arg.size() >= 2 ? arg[1] : 0;
    if (word.flag != 0 && std::strchr(switches, word.flag) != nullptr) {
        if (arg.size() != 2) word.fault = "unknown option " + arg;
    } else if (word.flag == 0 || std::strchr(valued, word.flag) == nullptr) {
        word.fault = "unknown option " + arg;
    } else if (!OptionValue(arg, argc, argv, i, &word.value)) {
        word.fault = "option " + arg + " needs a value";
    }
    return word;
}

// A command line of option words only, as dxidentd and dxconfig have: each word goes to
// `take(word)`, which gives -1 to go on or an exit code; -h prints `usage` and gives 0. Returns -1
// when the whole line is good.
template <typename Take>
int ReadOptionWords(const char* tool, const char* usage, const char* switches, const char* valued, int argc,
                    char** argv, Take take) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.size() < 2 || arg[0] != '-') return ToolUsageError(tool, "unexpected argument " + arg);
        const OptionWord word = ReadOptionWord(switches, valued, argc, argv, &i);
        if (!word.fault.empty()) return ToolUsageError(tool, word.fault);
        if (word.flag == 'h') {
            std::fputs(usage, stdout);
            return 0;
        }
        const int verdict = take(word);
        if (verdict >= 0) return verdict;
    }
    return -1;
}
