#include "writer/Formatter.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace PF::Utils::LOG::detail {
namespace {

// Writes at most cap bytes, counts them all (snprintf's result).
class Output {
  public:
    Output(char* out, std::size_t cap) : out_(out), cap_(cap) {}
    void Put(const char* text, std::size_t n) {
        if (n == 0) return;  // an empty view may have no data at all
        if (len_ < cap_) {
            const std::size_t m = n < cap_ - len_ ? n : cap_ - len_;
            // Most pieces are a few bytes: copied here rather than by a call.
            if (m > 16) {
                std::memcpy(out_ + len_, text, m);
            } else {
                for (std::size_t i = 0; i < m; ++i) out_[len_ + i] = text[i];
            }
        }
        len_ += n;
    }
    void Fill(char c, std::size_t n) {
        if (n == 0) return;  // most conversions pad nothing: no call at all
        if (len_ < cap_) std::memset(out_ + len_, c, n < cap_ - len_ ? n : cap_ - len_);
        len_ += n;
    }
    std::size_t Length() const { return len_; }

  private:
    char* out_;
    std::size_t cap_;
    std::size_t len_ = 0;
};

struct Conversion {
    bool left = false, plus = false, space = false, alternate = false, zero = false;
    long width = 0;
    long precision = -1;  // none
    enum Length { kInt, kChar, kShort, kLong, kLongLong, kSize, kMax, kDiff } length = kInt;
    char conversion = 0;
};

// sign, prefix and body, padded to the width: zeros between prefix and body
// when zeroPad, blanks on the left (or right, with '-') otherwise.
void Emit(Output& out, const Conversion& conv, std::string_view sign, std::string_view prefix,
          std::size_t zeros, std::string_view body, bool zeroPad) {
    const std::size_t size = sign.size() + prefix.size() + zeros + body.size();
    const std::size_t pad = conv.width > 0 && static_cast<std::size_t>(conv.width) > size
                                ? static_cast<std::size_t>(conv.width) - size
                                : 0;
    if (!conv.left && !zeroPad) out.Fill(' ', pad);
    out.Put(sign.data(), sign.size());
    out.Put(prefix.data(), prefix.size());
    out.Fill('0', zeros + (!conv.left && zeroPad ? pad : 0));
    out.Put(body.data(), body.size());
    if (conv.left) out.Fill(' ', pad);
}

// The value as printf reads it for the length modifier (the bits of what
// was passed, as for a va_list).
unsigned long long Narrow(const FormatArg& a, const Conversion& s, bool isSigned) {
    const unsigned long long u = a.u;
    switch (s.length) {
        case Conversion::kChar:
            return isSigned ? static_cast<unsigned long long>(static_cast<signed char>(u))
                            : static_cast<unsigned char>(u);
        case Conversion::kShort:
            return isSigned ? static_cast<unsigned long long>(static_cast<short>(u))
                            : static_cast<unsigned short>(u);
        case Conversion::kInt:
            return isSigned ? static_cast<unsigned long long>(static_cast<int>(u))
                            : static_cast<unsigned>(u);
        default:  // 64 bits on this platform
            return u;
    }
}

bool Integer(Output& out, const Conversion& s, const FormatArg& a) {
    if (a.kind != FormatArg::kSigned && a.kind != FormatArg::kUnsigned) return false;
    const bool isSigned = s.conversion == 'd' || s.conversion == 'i';
    unsigned long long value = Narrow(a, s, isSigned);
    std::string_view sign;
    if (isSigned) {
        if (static_cast<long long>(value) < 0) {
            sign = "-";
            value = 0 - value;
        } else if (s.plus) {
            sign = "+";
        } else if (s.space) {
            sign = " ";
        }
    }
    const int base = s.conversion == 'o' ? 8 : s.conversion == 'x' || s.conversion == 'X' ? 16 : 10;
    char digits[24];
    char* end = digits;
    if (value != 0 || s.precision != 0) end = std::to_chars(digits, digits + 24, value, base).ptr;
    if (s.conversion == 'X') {
        for (char* c = digits; c != end; ++c) *c = static_cast<char>(*c >= 'a' ? *c - 32 : *c);
    }
    std::size_t count = static_cast<std::size_t>(end - digits);
    std::size_t zeros = s.precision > 0 && static_cast<std::size_t>(s.precision) > count
                            ? static_cast<std::size_t>(s.precision) - count
                            : 0;
    std::string_view prefix;
    if (s.alternate && base == 16 && value != 0) prefix = s.conversion == 'x' ? "0x" : "0X";
    if (s.alternate && base == 8 && zeros == 0 && (count == 0 || digits[0] != '0')) zeros = 1;
    Emit(out, s, sign, prefix, zeros, std::string_view(digits, count), s.zero && s.precision < 0);
    return true;
}

bool Char(Output& out, const Conversion& s, const FormatArg& a) {
    if (a.kind != FormatArg::kSigned && a.kind != FormatArg::kUnsigned) return false;
    if (s.length != Conversion::kInt) return false;  // %lc: a wide character
    const char c = static_cast<char>(static_cast<unsigned char>(a.u));
    Emit(out, s, {}, {}, 0, std::string_view(&c, 1), false);
    return true;
}

bool String(Output& out, const Conversion& s, const FormatArg& a) {
    if (a.kind != FormatArg::kString || s.length != Conversion::kInt) return false;
    std::string_view text;
    if (a.s == nullptr) {
        // As the C library prints it: in full, or nothing when cut below it.
        if (s.precision < 0 || s.precision >= 6) text = "(null)";
    } else if (s.precision < 0) {
        text = a.s;
    } else {
        const void* nul = std::memchr(a.s, 0, static_cast<std::size_t>(s.precision));
        text = std::string_view(a.s, nul != nullptr ? static_cast<const char*>(nul) - a.s
                                                    : static_cast<std::size_t>(s.precision));
    }
    Emit(out, s, {}, {}, 0, text, false);
    return true;
}

bool Pointer(Output& out, const Conversion& s, const FormatArg& a) {
    if (a.kind != FormatArg::kPointer && a.kind != FormatArg::kString) return false;
    if (s.plus || s.space || s.zero || s.precision >= 0) return false;
    const auto value = reinterpret_cast<std::uintptr_t>(a.p);
    if (value == 0) {
        Emit(out, s, {}, {}, 0, "(nil)", false);
        return true;
    }
    char digits[24];
    char* end = std::to_chars(digits, digits + 24, value, 16).ptr;
    Emit(out, s, {}, "0x", 0, std::string_view(digits, static_cast<std::size_t>(end - digits)),
         false);
    return true;
}

// Removes trailing zeros of the fraction in [begin, end) (and the point when
// none is left); returns the new end. e points at the exponent or is end.
char* TrimFraction(char* begin, char* e, char* end) {
    char* point = static_cast<char*>(std::memchr(begin, '.', static_cast<std::size_t>(e - begin)));
    if (point == nullptr) return end;
    char* last = e;
    while (last > point + 1 && last[-1] == '0') --last;
    if (last == point + 1) last = point;
    std::memmove(last, e, static_cast<std::size_t>(end - e));
    return last + (end - e);
}

bool Floating(Output& out, const Conversion& s, const FormatArg& a) {
    if (a.kind != FormatArg::kDouble || s.length != Conversion::kInt) return false;
    const double value = a.d;
    const char conversion = s.conversion;
    const bool upper = conversion == 'F' || conversion == 'E' || conversion == 'G';
    std::string_view sign = std::signbit(value) ? "-" : s.plus ? "+" : s.space ? " " : "";
    if (!std::isfinite(value)) {
        const char* text = std::isnan(value) ? (upper ? "NAN" : "nan") : (upper ? "INF" : "inf");
        Emit(out, s, sign, {}, 0, text, false);
        return true;
    }
    const double magnitude = std::fabs(value);
    const int precision = s.precision < 0 ? 6 : static_cast<int>(s.precision);
    char body[1100];
    char* const limit = body + sizeof body - 2;  // room for a point added by '#'
    std::to_chars_result r{};
    char* exponent = nullptr;  // where "e..." starts, if any
    const char kind = static_cast<char>(conversion | 0x20);
    if (kind == 'f') {
        r = std::to_chars(body, limit, magnitude, std::chars_format::fixed, precision);
    } else if (kind == 'e') {
        r = std::to_chars(body, limit, magnitude, std::chars_format::scientific, precision);
    } else {
        // %g: scientific when the exponent X (after rounding to P digits)
        // is below -4 or at least P, else fixed with P - 1 - X decimals.
        const int digits = precision == 0 ? 1 : precision;
        r = std::to_chars(body, limit, magnitude, std::chars_format::scientific, digits - 1);
        if (r.ec != std::errc()) return false;
        const char* e = static_cast<const char*>(std::memchr(body, 'e', r.ptr - body));
        int x = 0;  // to_chars writes no terminator: the exponent ends at r.ptr
        std::from_chars(e + (e[1] == '+' ? 2 : 1), r.ptr, x);
        if (x >= -4 && x < digits) {
            r = std::to_chars(body, limit, magnitude, std::chars_format::fixed, digits - 1 - x);
        } else if (s.alternate) {
            // "%#g" of a value that would print in fixed notation but rounds
            // up to 10^P: the C library prints "1.e+06" there, not
            // "1.00000e+06". Its own formatter then.
            char shortest[32];
            const auto t = std::to_chars(shortest, shortest + sizeof shortest, magnitude,
                                         std::chars_format::scientific);
            const char* te = static_cast<const char*>(std::memchr(shortest, 'e', t.ptr - shortest));
            int trueX = 0;
            std::from_chars(te + (te[1] == '+' ? 2 : 1), t.ptr, trueX);
            if (x >= digits && trueX < digits) return false;
        }
    }
    if (r.ec != std::errc()) return false;  // too long for the buffer: snprintf's
    char* end = r.ptr;
    exponent = static_cast<char*>(std::memchr(body, 'e', static_cast<std::size_t>(end - body)));
    char* const e = exponent != nullptr ? exponent : end;
    if (kind == 'g' && !s.alternate) {
        end = TrimFraction(body, e, end);
    } else if (s.alternate &&
               std::memchr(body, '.', static_cast<std::size_t>(e - body)) == nullptr) {
        std::memmove(e + 1, e, static_cast<std::size_t>(end - e));  // '#': always a point
        *e = '.';
        ++end;
    }
    if (upper) {
        for (char* c = body; c != end; ++c) *c = *c == 'e' ? 'E' : *c;
    }
    Emit(out, s, sign, {}, 0, std::string_view(body, static_cast<std::size_t>(end - body)), s.zero);
    return true;
}

// "123" at p, with p moved past it; -1 on overflow.
long Number(const char*& p) {
    long n = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        if (n > 100000000) return -1;
        n = n * 10 + (*p - '0');
    }
    return n;
}

}  // namespace

long FormatText(char* buffer, std::size_t cap, const char* fmt, const FormatArg* args,
                std::size_t count) {
    Output out(buffer, cap);
    std::size_t next = 0;
    const auto take = [&]() -> const FormatArg* { return next < count ? &args[next++] : nullptr; };
    for (const char* p = fmt; *p != '\0';) {
        if (*p != '%') {
            const char* percent = std::strchr(p, '%');
            const std::size_t n =
                percent != nullptr ? static_cast<std::size_t>(percent - p) : std::strlen(p);
            out.Put(p, n);
            p += n;
            continue;
        }
        ++p;
        if (*p == '%') {
            out.Put("%", 1);
            ++p;
            continue;
        }
        Conversion s;
        for (;; ++p) {
            if (*p == '-') {
                s.left = true;
            } else if (*p == '+') {
                s.plus = true;
            } else if (*p == ' ') {
                s.space = true;
            } else if (*p == '#') {
                s.alternate = true;
            } else if (*p == '0') {
                s.zero = true;
            } else {
                break;
            }
        }
        if (*p == '*') {
            const FormatArg* w = take();
            if (w == nullptr || (w->kind != FormatArg::kSigned && w->kind != FormatArg::kUnsigned))
                return -1;
            s.width = static_cast<int>(w->i);
            if (s.width < 0) {
                s.left = true;
                s.width = -s.width;
            }
            ++p;
        } else {
            s.width = Number(p);
            if (s.width < 0 || *p == '$') return -1;  // positional arguments
        }
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                const FormatArg* w = take();
                if (w == nullptr ||
                    (w->kind != FormatArg::kSigned && w->kind != FormatArg::kUnsigned))
                    return -1;
                const int precision = static_cast<int>(w->i);
                s.precision = precision < 0 ? -1 : precision;
                ++p;
            } else {
                s.precision = Number(p);
                if (s.precision < 0) return -1;
            }
        }
        switch (*p) {
            case 'h':
                s.length = p[1] == 'h' ? Conversion::kChar : Conversion::kShort;
                p += p[1] == 'h' ? 2 : 1;
                break;
            case 'l':
                s.length = p[1] == 'l' ? Conversion::kLongLong : Conversion::kLong;
                p += p[1] == 'l' ? 2 : 1;
                break;
            case 'z':
                s.length = Conversion::kSize;
                ++p;
                break;
            case 'j':
                s.length = Conversion::kMax;
                ++p;
                break;
            case 't':
                s.length = Conversion::kDiff;
                ++p;
                break;
            default:
                break;
        }
        s.conversion = *p++;
        const FormatArg* a = nullptr;
        bool done = false;
        switch (s.conversion) {
            case 'd':
            case 'i':
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                done = (a = take()) != nullptr && Integer(out, s, *a);
                break;
            case 'c':
                done = (a = take()) != nullptr && Char(out, s, *a);
                break;
            case 's':
                done = (a = take()) != nullptr && String(out, s, *a);
                break;
            case 'p':
                done = (a = take()) != nullptr && Pointer(out, s, *a);
                break;
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
                done = (a = take()) != nullptr && Floating(out, s, *a);
                break;
            default:  // %n, %a, %m, L, a '%' after flags, the end of the text...
                return -1;
        }
        if (!done) return -1;
    }
    return static_cast<long>(out.Length());
}

}  // namespace PF::Utils::LOG::detail
