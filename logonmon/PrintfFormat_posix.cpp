#include "logonmon/PrintfFormat.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "trace/TextForms.h"

namespace logonmon {

namespace {

// Argument sizes as the Microsoft C runtime reads them: "l" is 32 bits there.
enum class ArgSize { Default, Char, Short, Int32, Int64, Pointer };

struct Conversion {
    std::string flags;
    int width = -1;
    int precision = -1;
    ArgSize size = ArgSize::Default;
    bool wide = false;  // "w", "l" or the upper-case S and C
};

void AppendPrintf(std::string& out, const char* directive, ...) {
    va_list args;
    va_start(args, directive);
    va_list measure;
    va_copy(measure, args);
    const int length = vsnprintf(nullptr, 0, directive, measure);
    va_end(measure);
    if (length > 0) {
        const size_t offset = out.size();
        out.resize(offset + static_cast<size_t>(length) + 1);
        vsnprintf(out.data() + offset, static_cast<size_t>(length) + 1, directive, args);
        out.resize(offset + static_cast<size_t>(length));
    }
    va_end(args);
}

// "%" with flags, width and precision, ready for a length and a conversion.
std::string HostDirective(const Conversion& conversion) {
    std::string directive = "%" + conversion.flags;
    if (conversion.width >= 0) {
        directive += std::to_string(conversion.width);
    }
    if (conversion.precision >= 0) {
        directive += "." + std::to_string(conversion.precision);
    }
    return directive;
}

size_t CodePoints(const std::string& utf8) {
    return static_cast<size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

// Width counts characters, not bytes, so that wide text lines up.
void AppendPadded(std::string& out, const std::string& utf8, const Conversion& conversion) {
    const size_t length = CodePoints(utf8);
    const size_t padding =
        conversion.width > static_cast<int>(length) ? conversion.width - length : 0;
    const bool leftAligned = conversion.flags.find('-') != std::string::npos;
    if (!leftAligned) {
        out.append(padding, ' ');
    }
    out += utf8;
    if (leftAligned) {
        out.append(padding, ' ');
    }
}

void AppendWideString(std::string& out, const wchar_t* text, const Conversion& conversion) {
    if (text == nullptr) {
        text = L"(null)";
    }
    size_t length = wcslen(text);
    if (conversion.precision >= 0) {
        length = std::min(length, static_cast<size_t>(conversion.precision));
    }
    AppendPadded(out, Utf8FromWide(std::wstring(text, length)), conversion);
}

void AppendSigned(std::string& out, const Conversion& conversion, char type, va_list& args) {
    long long value = 0;
    switch (conversion.size) {
        case ArgSize::Char:
            value = static_cast<signed char>(va_arg(args, int));
            break;
        case ArgSize::Short:
            value = static_cast<short>(va_arg(args, int));
            break;
        case ArgSize::Int64:
        case ArgSize::Pointer:
            value = va_arg(args, long long);
            break;
        default:
            value = va_arg(args, int);
            break;
    }
    AppendPrintf(out, (HostDirective(conversion) + "ll" + type).c_str(), value);
}

void AppendUnsigned(std::string& out, const Conversion& conversion, char type, va_list& args) {
    unsigned long long value = 0;
    switch (conversion.size) {
        case ArgSize::Char:
            value = static_cast<unsigned char>(va_arg(args, unsigned int));
            break;
        case ArgSize::Short:
            value = static_cast<unsigned short>(va_arg(args, unsigned int));
            break;
        case ArgSize::Int64:
        case ArgSize::Pointer:
            value = va_arg(args, unsigned long long);
            break;
        default:
            value = va_arg(args, unsigned int);
            break;
    }
    AppendPrintf(out, (HostDirective(conversion) + "ll" + type).c_str(), value);
}

// Reads flags, width, precision and length of the conversion at `p` (just
// after the "%"); leaves `p` at the conversion character.
Conversion ParseConversion(const char*& p, va_list& args) {
    Conversion conversion;
    while (*p != '\0' && std::strchr("-+ #0", *p) != nullptr) {
        conversion.flags += *p++;
    }
    if (*p == '*') {
        ++p;
        conversion.width = va_arg(args, int);
        if (conversion.width < 0) {
            conversion.flags += '-';
            conversion.width = -conversion.width;
        }
    } else {
        for (; *p >= '0' && *p <= '9'; ++p) {
            conversion.width = std::max(conversion.width, 0) * 10 + (*p - '0');
        }
    }
    if (*p == '.') {
        ++p;
        conversion.precision = 0;
        if (*p == '*') {
            ++p;
            conversion.precision = std::max(va_arg(args, int), -1);
        } else {
            for (; *p >= '0' && *p <= '9'; ++p) {
                conversion.precision = conversion.precision * 10 + (*p - '0');
            }
        }
    }
    if (std::strncmp(p, "I64", 3) == 0) {
        conversion.size = ArgSize::Int64;
        p += 3;
    } else if (std::strncmp(p, "I32", 3) == 0) {
        conversion.size = ArgSize::Int32;
        p += 3;
    } else if (std::strncmp(p, "hh", 2) == 0) {
        conversion.size = ArgSize::Char;
        p += 2;
    } else if (std::strncmp(p, "ll", 2) == 0) {
        conversion.size = ArgSize::Int64;
        p += 2;
    } else if (*p == 'h') {
        conversion.size = ArgSize::Short;
        ++p;
    } else if (*p == 'l') {
        conversion.size = ArgSize::Int32;
        conversion.wide = true;
        ++p;
    } else if (*p == 'w') {
        conversion.wide = true;
        ++p;
    } else if (*p == 'I' || *p == 'z' || *p == 'j' || *p == 't') {
        conversion.size = ArgSize::Pointer;
        ++p;
    } else if (*p == 'L') {
        ++p;  // long double is double there
    }
    if (conversion.size == ArgSize::Short && (*p == 's' || *p == 'c')) {
        conversion.wide = false;
    }
    return conversion;
}

}  // namespace

std::string FormatPrintf(const char* format, va_list args) {
    va_list ap;
    va_copy(ap, args);
    std::string out;
    const char* p = format;
    while (*p != '\0') {
        if (*p != '%') {
            out += *p++;
            continue;
        }
        const char* start = p++;
        if (*p == '%') {
            out += '%';
            ++p;
            continue;
        }
        Conversion conversion = ParseConversion(p, ap);
        const char type = *p;
        if (type == '\0') {
            out += start;
            break;
        }
        ++p;
        switch (type) {
            case 'd':
            case 'i':
                AppendSigned(out, conversion, type, ap);
                break;
            case 'u':
            case 'o':
            case 'x':
            case 'X':
                AppendUnsigned(out, conversion, type, ap);
                break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                AppendPrintf(out, (HostDirective(conversion) + type).c_str(), va_arg(ap, double));
                break;
            case 'S':
                AppendWideString(out, va_arg(ap, const wchar_t*), conversion);
                break;
            case 's':
                if (conversion.wide) {
                    AppendWideString(out, va_arg(ap, const wchar_t*), conversion);
                } else {
                    const char* text = va_arg(ap, const char*);
                    AppendPrintf(out, (HostDirective(conversion) + 's').c_str(),
                                 text != nullptr ? text : "(null)");
                }
                break;
            case 'C':
            case 'c':
                if (conversion.wide || type == 'C') {
                    const wchar_t character = static_cast<wchar_t>(va_arg(ap, wint_t));
                    AppendPadded(out, Utf8FromWide(std::wstring(1, character)), conversion);
                } else {
                    AppendPrintf(out, (HostDirective(conversion) + 'c').c_str(), va_arg(ap, int));
                }
                break;
            case 'p':
                AppendPrintf(out, "%016llX",
                             static_cast<unsigned long long>(
                                 reinterpret_cast<uintptr_t>(va_arg(ap, void*))));
                break;
            case 'n':
                va_arg(ap, void*);  // never written through
                break;
            default:
                out.append(start, p);
                break;
        }
    }
    va_end(ap);
    return out;
}

int FormatPrintfToBuffer(char* buffer, size_t size, const char* format, va_list args) {
    if (size == 0) {
        return -1;
    }
    const std::string text = FormatPrintf(format, args);
    const size_t copied = std::min(text.size(), size - 1);
    std::memcpy(buffer, text.data(), copied);
    buffer[copied] = '\0';
    return text.size() < size ? static_cast<int>(text.size()) : -1;
}

}  // namespace logonmon
