#include "log_format.h"

#include <cstdio>
#include <cstring>

#include "bounded_text.h"

namespace {

// No line is longer than its buffer, so a larger width or precision changes nothing visible.
constexpr int kFieldLimit = 1024;

struct Directive {
    char flags[8] = {};
    size_t flagCount = 0;
    int width = -1;      // -1: none given
    int precision = -1;  // -1: none given
    char conversion = '\0';
    bool LeftAligned() const { return std::memchr(flags, '-', flagCount) != nullptr; }
};

int ReadNumber(const char*& p) {
    int value = 0;
    while (*p >= '0' && *p <= '9') {
        if (value < kFieldLimit) value = value * 10 + (*p - '0');
        ++p;
    }
    return value < kFieldLimit ? value : kFieldLimit;
}

// Parses the conversion that starts after a '%'. Returns the position after it, or null when the
// text ends before a conversion letter.
const char* ParseDirective(const char* p, Directive& directive) {
    while (*p != '\0' && std::strchr("-+ #0", *p) != nullptr) {
        if (directive.flagCount < sizeof directive.flags - 1) directive.flags[directive.flagCount++] = *p;
        ++p;
    }
    if (*p == '*') {
        directive.width = 0;
        ++p;
    } else if (*p >= '0' && *p <= '9') {
        directive.width = ReadNumber(p);
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            directive.precision = 0;
            ++p;
        } else {
            directive.precision = ReadNumber(p);
        }
    }
    // Length modifiers of both C and the Windows runtime; none changes how a zero prints.
    for (;;) {
        if (std::strncmp(p, "I64", 3) == 0 || std::strncmp(p, "I32", 3) == 0) {
            p += 3;
        } else if (*p != '\0' && std::strchr("hlLIqjztw", *p) != nullptr) {
            ++p;
        } else {
            break;
        }
    }
    if (*p == '\0') return nullptr;
    directive.conversion = *p;
    return p + 1;
}

void PutPadded(BoundedWriter& out, const Directive& directive, const char* text, size_t length) {
    size_t width = directive.width > 0 ? static_cast<size_t>(directive.width) : 0;
    size_t padding = width > length ? width - length : 0;
    if (!directive.LeftAligned()) out.PutRepeated(' ', padding);
    out.Put(text, length);
    if (directive.LeftAligned()) out.PutRepeated(' ', padding);
}

// Numbers go through the C library with the parsed flags and sizes and a literal zero.
void PutZeroNumber(BoundedWriter& out, const Directive& directive) {
    char format[32];
    BoundedWriter f(format, sizeof format);
    f.Put('%');
    f.Put(directive.flags, directive.flagCount);
    char number[16];
    if (directive.width >= 0) {
        std::snprintf(number, sizeof number, "%d", directive.width);
        f.Put(number);
    }
    if (directive.precision >= 0) {
        std::snprintf(number, sizeof number, ".%d", directive.precision);
        f.Put(number);
    }
    f.Put(directive.conversion);

    char field[kFieldLimit + 64];
    int length;
    if (std::strchr("eEfFgGaA", directive.conversion) != nullptr) {
        length = std::snprintf(field, sizeof field, format, 0.0);
    } else if (directive.conversion == 'd' || directive.conversion == 'i') {
        length = std::snprintf(field, sizeof field, format, 0);
    } else {
        length = std::snprintf(field, sizeof field, format, 0u);
    }
    if (length > 0) out.Put(field, std::strlen(field));
}

}  // namespace

size_t FormatWithoutArguments(const char* text, char* buffer, size_t count) {
    BoundedWriter out(buffer, count);
    if (text == nullptr) return 0;
    const char* p = text;
    while (*p != '\0' && out.Room() > 0) {
        if (*p != '%') {
            out.Put(*p++);
            continue;
        }
        const char* start = p;
        Directive directive;
        const char* after = ParseDirective(p + 1, directive);
        if (after == nullptr) {  // unfinished at the end of the text
            out.Put(start);
            break;
        }
        switch (directive.conversion) {
            case '%':
                out.Put('%');
                break;
            case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
            case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
                PutZeroNumber(out, directive);
                break;
            case 's': case 'S': case 'Z': {
                static const char kNull[] = "(null)";
                size_t length = sizeof kNull - 1;
                if (directive.precision >= 0 && static_cast<size_t>(directive.precision) < length) length = directive.precision;
                PutPadded(out, directive, kNull, length);
                break;
            }
            case 'p': {
                char zeros[2 * sizeof(void*)];
                std::memset(zeros, '0', sizeof zeros);
                PutPadded(out, directive, zeros, sizeof zeros);
                break;
            }
            case 'c': case 'C': case 'n':
                break;
            default:  // unknown: the text stays, and scanning goes on after the '%'
                out.Put('%');
                after = start + 1;
                break;
        }
        p = after;
    }
    return out.Length();
}
