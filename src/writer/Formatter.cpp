#include "writer/Formatter.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace PF::Utils::LOG::detail {
namespace {

// sign, prefix and body, padded to the width: zeros between prefix and body
// when zeroPad, blanks on the left (or right, with '-') otherwise.
void Emit(FormatOutput& out, const Conversion& conv, std::string_view sign, std::string_view prefix,
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

bool Integer(FormatOutput& out, const Conversion& s, const FormatArg& a) {
    if (a.kind != FormatArg::kSigned && a.kind != FormatArg::kUnsigned) return false;
    const bool isSigned = s.conversion == 'd' || s.conversion == 'i';
    unsigned long long value = Narrow(a, s.length, isSigned);
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

bool Char(FormatOutput& out, const Conversion& s, const FormatArg& a) {
    if (a.kind != FormatArg::kSigned && a.kind != FormatArg::kUnsigned) return false;
    if (s.length != Conversion::kInt) return false;  // %lc: a wide character
    const char c = static_cast<char>(static_cast<unsigned char>(a.u));
    Emit(out, s, {}, {}, 0, std::string_view(&c, 1), false);
    return true;
}

bool String(FormatOutput& out, const Conversion& s, const FormatArg& a) {
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

bool Pointer(FormatOutput& out, const Conversion& s, const FormatArg& a) {
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

__extension__ typedef unsigned __int128 Wide;  // NOLINT(modernize-use-using): needs __extension__

// "%.Pf" (P at most 9) of a value below 10^9, the common case of a measured
// value, exactly as printf rounds it: the double is m * 2^e, and m * 10^P
// (83 bits at most) shifted right by -e, rounded to nearest with ties to
// even. Several times faster than the general conversion. Null when out of
// that range.
char* FixedShort(double magnitude, int precision, char* body) {
    static constexpr std::uint64_t kPow10[] = {1,      10,      100,      1000,      10000,
                                               100000, 1000000, 10000000, 100000000, 1000000000};
    if (precision > 9 || !(magnitude < 1e9)) return nullptr;
    std::uint64_t bits = 0;
    std::memcpy(&bits, &magnitude, sizeof bits);
    const int biased = static_cast<int>(bits >> 52);
    std::uint64_t m = bits & ((std::uint64_t{1} << 52) - 1);
    if (biased != 0) m |= std::uint64_t{1} << 52;         // else subnormal
    const int shift = 1075 - (biased != 0 ? biased : 1);  // > 22 below 10^9
    const Wide scaled = static_cast<Wide>(m) * kPow10[precision];
    std::uint64_t q = 0;
    if (shift < 128) {
        q = static_cast<std::uint64_t>(scaled >> shift);
        const Wide rest = scaled & ((static_cast<Wide>(1) << shift) - 1);
        const Wide half = static_cast<Wide>(1) << (shift - 1);
        if (rest > half || (rest == half && (q & 1) != 0)) ++q;
    }  // else below 2^-45: 0
    const std::uint64_t unit = kPow10[precision];
    char* end = std::to_chars(body, body + 24, q / unit).ptr;
    if (precision == 0) return end;
    *end++ = '.';
    char digits[24];
    char* last = std::to_chars(digits, digits + sizeof digits, q % unit).ptr;
    const auto count = static_cast<std::size_t>(last - digits);
    std::memset(end, '0', static_cast<std::size_t>(precision) - count);
    std::memcpy(end + precision - count, digits, count);
    return end + precision;
}

bool Floating(FormatOutput& out, const Conversion& s, const FormatArg& a) {
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
        if (char* end = FixedShort(magnitude, precision, body)) {
            r.ptr = end;
        } else {
            r = std::to_chars(body, limit, magnitude, std::chars_format::fixed, precision);
        }
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

}  // namespace

bool Convert(FormatOutput& out, const Conversion& c, const FormatArg* args, std::size_t count,
             std::size_t& next) {
    const auto take = [&]() -> const FormatArg* { return next < count ? &args[next++] : nullptr; };
    const auto isInteger = [](const FormatArg* a) {
        return a != nullptr && (a->kind == FormatArg::kSigned || a->kind == FormatArg::kUnsigned);
    };
    Conversion s = c;
    if (s.widthStar) {
        const FormatArg* w = take();
        if (!isInteger(w)) return false;
        s.width = static_cast<int>(w->i);
        if (s.width < 0) {
            s.left = true;
            s.width = -s.width;
        }
    }
    if (s.precisionStar) {
        const FormatArg* w = take();
        if (!isInteger(w)) return false;
        const int precision = static_cast<int>(w->i);
        s.precision = precision < 0 ? -1 : precision;
    }
    const FormatArg* a = take();
    if (a == nullptr) return false;
    switch (s.conversion) {
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            return Integer(out, s, *a);
        case 'c':
            return Char(out, s, *a);
        case 's':
            return String(out, s, *a);
        case 'p':
            return Pointer(out, s, *a);
        default:  // f F e E g G: the parser takes nothing else
            return Floating(out, s, *a);
    }
}

long FormatText(char* buffer, std::size_t cap, const char* fmt, const FormatArg* args,
                std::size_t count) {
    FormatOutput out(buffer, cap);
    std::size_t next = 0;
    for (const char* p = fmt; *p != '\0';) {
        if (*p != '%') {
            const char* percent = std::strchr(p, '%');
            const std::size_t n =
                percent != nullptr ? static_cast<std::size_t>(percent - p) : std::strlen(p);
            out.Put(p, n);
            p += n;
            continue;
        }
        if (p[1] == '%') {
            out.Put("%", 1);
            p += 2;
            continue;
        }
        Conversion c;
        p = ParseConversion(p + 1, c);
        if (p == nullptr || !Convert(out, c, args, count, next)) return -1;
    }
    return static_cast<long>(out.Length());
}

}  // namespace PF::Utils::LOG::detail
