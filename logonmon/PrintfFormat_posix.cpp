#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "logonmon/PrintfFormat.h"

namespace logonmon {

namespace {

static_assert(sizeof(wchar_t) == 4, "each wide character is one code point here");

// Argument sizes as the Microsoft C runtime reads them: "l" is 32 bits there.
enum class ArgSize { Default, Char, Short, Int32, Int64, Pointer };

enum Flag : unsigned {
    kLeft = 1,
    kPlus = 2,
    kSpace = 4,
    kAlternate = 8,
    kZero = 16,
};

struct Conversion {
    unsigned flags = 0;
    int width = -1;
    int precision = -1;
    ArgSize size = ArgSize::Default;
    bool wide = false;  // "w", "l" or the upper-case S and C
};

// The caller's buffer: keeps what fits and counts all that was written, so
// that text too long for it is measured in the same pass.
class Output {
  public:
    // `buffer` holds `capacity` bytes of text and one more for the null.
    Output(char* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}

    size_t Length() const { return length_; }

    void Append(const char* text, size_t size) {
        if (length_ < capacity_) {
            std::memcpy(buffer_ + length_, text, std::min(size, capacity_ - length_));
        }
        length_ += size;
    }
    void Append(char c) {
        if (length_ < capacity_) {
            buffer_[length_] = c;
        }
        ++length_;
    }
    void Fill(char c, size_t count) {
        if (count != 0 && length_ < capacity_) {
            std::memset(buffer_ + length_, c, std::min(count, capacity_ - length_));
        }
        length_ += count;
    }

    // Wide text as UTF-8; characters that cannot be encoded (surrogates,
    // beyond U+10FFFF) become U+FFFD.
    void AppendUtf8(const wchar_t* text, size_t length) {
        // Blocks of ASCII that fit are narrowed a block at a time, in vector
        // registers.
        using Units = uint32_t __attribute__((vector_size(32)));
        using Bytes = char __attribute__((vector_size(8)));
        constexpr size_t kHalf = sizeof(Units) / sizeof(wchar_t);
        const size_t room = length_ < capacity_ ? capacity_ - length_ : 0;
        char* const out = buffer_ + std::min(length_, capacity_);
        const size_t blocks = std::min(length, room) / (2 * kHalf);
        size_t copied = 0;
        for (size_t block = 0; block < blocks; ++block) {
            Units first;
            Units second;
            std::memcpy(&first, text + copied, sizeof first);
            std::memcpy(&second, text + copied + kHalf, sizeof second);
            const Units high = (first | second) & ~0x7Fu;
            uint64_t beyondAscii[sizeof high / sizeof(uint64_t)];
            std::memcpy(beyondAscii, &high, sizeof high);
            if ((beyondAscii[0] | beyondAscii[1] | beyondAscii[2] | beyondAscii[3]) != 0) {
                break;
            }
            const Bytes firstBytes = __builtin_convertvector(first, Bytes);
            const Bytes secondBytes = __builtin_convertvector(second, Bytes);
            std::memcpy(out + copied, &firstBytes, sizeof firstBytes);
            std::memcpy(out + copied + kHalf, &secondBytes, sizeof secondBytes);
            copied += 2 * kHalf;
        }
        size_t i = copied;
        length_ += copied;
        for (; i < length; ++i) {
            // Runs of ASCII, by far the most of it, go straight in.
            size_t run = 0;
            while (i + run < length && static_cast<uint32_t>(text[i + run]) < 0x80) {
                ++run;
            }
            if (run != 0) {
                if (length_ < capacity_) {
                    const size_t copied = std::min(run, capacity_ - length_);
                    for (size_t k = 0; k < copied; ++k) {
                        buffer_[length_ + k] = static_cast<char>(text[i + k]);
                    }
                }
                length_ += run;
                i += run;
                if (i == length) {
                    break;
                }
            }
            AppendCodePoint(static_cast<char32_t>(text[i]));
        }
    }

    // A host printf directive with its argument, written in place.
    void AppendHost(const char* directive, ...) {
        va_list args;
        va_start(args, directive);
        const bool room = length_ < capacity_;
        const int written = vsnprintf(room ? buffer_ + length_ : nullptr,
                                      room ? capacity_ - length_ + 1 : 0, directive, args);
        va_end(args);
        if (written > 0) {
            length_ += static_cast<size_t>(written);
        }
    }

  private:
    void AppendCodePoint(char32_t codePoint) {
        if ((codePoint >= 0xD800 && codePoint <= 0xDFFF) || codePoint > 0x10FFFF) {
            codePoint = 0xFFFD;
        }
        char bytes[4];
        size_t count = 0;
        if (codePoint < 0x800) {
            bytes[count++] = static_cast<char>(0xC0 | (codePoint >> 6));
        } else if (codePoint < 0x10000) {
            bytes[count++] = static_cast<char>(0xE0 | (codePoint >> 12));
            bytes[count++] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        } else {
            bytes[count++] = static_cast<char>(0xF0 | (codePoint >> 18));
            bytes[count++] = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
            bytes[count++] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        }
        bytes[count++] = static_cast<char>(0x80 | (codePoint & 0x3F));
        Append(bytes, count);
    }

    char* buffer_;
    size_t capacity_;
    size_t length_ = 0;
};

size_t Padding(const Conversion& conversion, size_t length) {
    return conversion.width > 0 && static_cast<size_t>(conversion.width) > length
               ? static_cast<size_t>(conversion.width) - length
               : 0;
}

// "%" with flags, width and precision, then `suffix`, for the host printf.
void HostDirective(const Conversion& conversion, const char* suffix, char (&directive)[48]) {
    char* at = directive;
    *at++ = '%';
    for (const auto& [flag, character] :
         {std::pair{kLeft, '-'}, std::pair{kPlus, '+'}, std::pair{kSpace, ' '},
          std::pair{kAlternate, '#'}, std::pair{kZero, '0'}}) {
        if ((conversion.flags & flag) != 0) {
            *at++ = character;
        }
    }
    const auto room = [&] { return static_cast<size_t>(directive + sizeof directive - at); };
    if (conversion.width >= 0) {
        at += std::snprintf(at, room(), "%d", conversion.width);
    }
    if (conversion.precision >= 0) {
        at += std::snprintf(at, room(), ".%d", conversion.precision);
    }
    std::snprintf(at, room(), "%s", suffix);
}

// Integers without "+", " " or "#" are written here; they are nearly all of
// them, and the host printf costs more than the digits.
void AppendInteger(Output& out, const Conversion& conversion, bool negative,
                   unsigned long long magnitude, unsigned base, bool upper) {
    const char* digitSet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[24];
    size_t count = 0;
    if (magnitude != 0 || conversion.precision != 0) {
        do {
            digits[count++] = digitSet[magnitude % base];
            magnitude /= base;
        } while (magnitude != 0);
    }
    const size_t zeros = conversion.precision > static_cast<int>(count)
                             ? static_cast<size_t>(conversion.precision) - count
                             : 0;
    const size_t padding = Padding(conversion, (negative ? 1 : 0) + zeros + count);
    const bool left = (conversion.flags & kLeft) != 0;
    const bool zeroPadded = (conversion.flags & kZero) != 0 && !left && conversion.precision < 0;
    if (!left && !zeroPadded) {
        out.Fill(' ', padding);
    }
    if (negative) {
        out.Append('-');
    }
    out.Fill('0', zeroPadded ? padding + zeros : zeros);
    while (count > 0) {
        out.Append(digits[--count]);
    }
    if (left) {
        out.Fill(' ', padding);
    }
}

bool WrittenHere(const Conversion& conversion) {
    return (conversion.flags & (kPlus | kSpace | kAlternate)) == 0;
}

void AppendSigned(Output& out, const Conversion& conversion, char type, va_list& args) {
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
    if (WrittenHere(conversion)) {
        const auto magnitude = static_cast<unsigned long long>(value);
        AppendInteger(out, conversion, value < 0, value < 0 ? 0 - magnitude : magnitude, 10, false);
        return;
    }
    const char suffix[] = {'l', 'l', type, '\0'};
    char directive[48];
    HostDirective(conversion, suffix, directive);
    out.AppendHost(directive, value);
}

void AppendUnsigned(Output& out, const Conversion& conversion, char type, va_list& args) {
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
    if (WrittenHere(conversion)) {
        const unsigned base = type == 'u' ? 10 : type == 'o' ? 8 : 16;
        AppendInteger(out, conversion, false, value, base, type == 'X');
        return;
    }
    const char suffix[] = {'l', 'l', type, '\0'};
    char directive[48];
    HostDirective(conversion, suffix, directive);
    out.AppendHost(directive, value);
}

// Width counts characters, not bytes, so that wide text lines up.
void AppendWide(Output& out, const wchar_t* text, size_t length, const Conversion& conversion) {
    const size_t padding = Padding(conversion, length);
    const bool left = (conversion.flags & kLeft) != 0;
    if (!left) {
        out.Fill(' ', padding);
    }
    out.AppendUtf8(text, length);
    if (left) {
        out.Fill(' ', padding);
    }
}

void AppendWideString(Output& out, const wchar_t* text, const Conversion& conversion) {
    if (text == nullptr) {
        text = L"(null)";
    }
    const size_t length = conversion.precision >= 0
                              ? wcsnlen(text, static_cast<size_t>(conversion.precision))
                              : wcslen(text);
    AppendWide(out, text, length, conversion);
}

void AppendNarrowString(Output& out, const char* text, const Conversion& conversion) {
    if (text == nullptr) {
        text = "(null)";
    }
    const size_t length = conversion.precision >= 0
                              ? strnlen(text, static_cast<size_t>(conversion.precision))
                              : std::strlen(text);
    const size_t padding = Padding(conversion, length);
    const bool left = (conversion.flags & kLeft) != 0;
    if (!left) {
        out.Fill(' ', padding);
    }
    out.Append(text, length);
    if (left) {
        out.Fill(' ', padding);
    }
}

// Reads flags, width, precision and length of the conversion at `p` (just
// after the "%"); leaves `p` at the conversion character.
Conversion ParseConversion(const char*& p, va_list& args) {
    Conversion conversion;
    for (;; ++p) {
        const unsigned flag = *p == '-'   ? kLeft
                              : *p == '+' ? kPlus
                              : *p == ' ' ? kSpace
                              : *p == '#' ? kAlternate
                              : *p == '0' ? kZero
                                          : 0;
        if (flag == 0) {
            break;
        }
        conversion.flags |= flag;
    }
    if (*p == '*') {
        ++p;
        conversion.width = va_arg(args, int);
        if (conversion.width < 0) {
            conversion.flags |= kLeft;
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
    switch (*p) {
        case 'I':
            if (p[1] == '6' && p[2] == '4') {
                conversion.size = ArgSize::Int64;
                p += 3;
            } else if (p[1] == '3' && p[2] == '2') {
                conversion.size = ArgSize::Int32;
                p += 3;
            } else {
                conversion.size = ArgSize::Pointer;
                ++p;
            }
            break;
        case 'h':
            conversion.size = p[1] == 'h' ? ArgSize::Char : ArgSize::Short;
            p += p[1] == 'h' ? 2 : 1;
            break;
        case 'l':
            if (p[1] == 'l') {
                conversion.size = ArgSize::Int64;
                p += 2;
            } else {
                conversion.size = ArgSize::Int32;
                conversion.wide = true;
                ++p;
            }
            break;
        case 'w':
            conversion.wide = true;
            ++p;
            break;
        case 'z':
        case 'j':
        case 't':
            conversion.size = ArgSize::Pointer;
            ++p;
            break;
        case 'L':
            ++p;  // long double is double there
            break;
        default:
            break;
    }
    if (conversion.size == ArgSize::Short && (*p == 's' || *p == 'c')) {
        conversion.wide = false;
    }
    return conversion;
}

void Format(Output& out, const char* format, va_list args) {
    va_list ap;
    va_copy(ap, args);
    const char* p = format;
    while (*p != '\0') {
        if (*p != '%') {
            const char* literal = p;
            while (*p != '\0' && *p != '%') {
                ++p;
            }
            out.Append(literal, static_cast<size_t>(p - literal));
            continue;
        }
        const char* start = p++;
        if (*p == '%') {
            out.Append('%');
            ++p;
            continue;
        }
        Conversion conversion = ParseConversion(p, ap);
        const char type = *p;
        if (type == '\0') {
            out.Append(start, std::strlen(start));
            break;
        }
        ++p;
        char directive[48];
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
            case 'A': {
                const char suffix[] = {type, '\0'};
                HostDirective(conversion, suffix, directive);
                out.AppendHost(directive, va_arg(ap, double));
                break;
            }
            case 'S':
                AppendWideString(out, va_arg(ap, const wchar_t*), conversion);
                break;
            case 's':
                if (conversion.wide) {
                    AppendWideString(out, va_arg(ap, const wchar_t*), conversion);
                } else {
                    AppendNarrowString(out, va_arg(ap, const char*), conversion);
                }
                break;
            case 'C':
            case 'c':
                if (conversion.wide || type == 'C') {
                    const auto character = static_cast<wchar_t>(va_arg(ap, wint_t));
                    AppendWide(out, &character, 1, conversion);
                } else {
                    HostDirective(conversion, "c", directive);
                    out.AppendHost(directive, va_arg(ap, int));
                }
                break;
            case 'p':
                out.AppendHost("%016llX", static_cast<unsigned long long>(
                                              reinterpret_cast<uintptr_t>(va_arg(ap, void*))));
                break;
            case 'n':
                va_arg(ap, void*);  // never written through
                break;
            default:
                out.Append(start, static_cast<size_t>(p - start));
                break;
        }
    }
    va_end(ap);
}

}  // namespace

std::string FormatPrintf(const char* format, va_list args) {
    // Most texts fit on the stack; a longer one is formatted again once its
    // length is known.
    char stack[512];
    Output out(stack, sizeof stack - 1);
    Format(out, format, args);
    if (out.Length() < sizeof stack) {
        return std::string(stack, out.Length());
    }
    std::string text(out.Length(), '\0');
    Output whole(text.data(), text.size());
    Format(whole, format, args);
    return text;
}

int FormatPrintfToBuffer(char* buffer, size_t size, const char* format, va_list args) {
    if (size == 0) {
        return -1;
    }
    Output out(buffer, size - 1);
    Format(out, format, args);
    buffer[std::min(out.Length(), size - 1)] = '\0';
    return out.Length() < size ? static_cast<int>(out.Length()) : -1;
}

int FormatWideText(char* buffer, size_t size, const wchar_t* text) {
    if (size == 0) {
        return -1;
    }
    Output out(buffer, size - 1);
    AppendWideString(out, text, Conversion{});
    buffer[std::min(out.Length(), size - 1)] = '\0';
    return out.Length() < size ? static_cast<int>(out.Length()) : -1;
}

}  // namespace logonmon
