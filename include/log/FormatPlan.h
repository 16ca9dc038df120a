// The printf-style format of a record, parsed once: at compile time for a
// string literal in a macro (a plan of text pieces and conversions, the
// common conversions written inline), at run time for any other. Both
// parse with ParseConversion and hand every conversion they do not write
// inline to Convert, so both write exactly what snprintf writes.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

#include "log/FormatArg.h"

namespace PF::Utils::LOG::detail {

// One conversion: flags, width and precision ('*' taken from the arguments),
// the length modifier and the conversion character.
struct Conversion {
    bool left = false, plus = false, space = false, alternate = false, zero = false;
    bool widthStar = false, precisionStar = false;
    long width = 0;
    long precision = -1;  // none
    enum Length { kInt, kChar, kShort, kLong, kLongLong, kSize, kMax, kDiff } length = kInt;
    char conversion = 0;
};

// Writes at most cap bytes, counts them all (snprintf's result).
class FormatOutput {
  public:
    FormatOutput(char* out, std::size_t cap) : out_(out), cap_(cap) {}
    void Put(const char* text, std::size_t n) {
        if (n == 0) return;  // an empty view may have no data at all
        if (len_ < cap_) {
            const std::size_t m = n < cap_ - len_ ? n : cap_ - len_;
            if (__builtin_constant_p(n) && m == n) {
                std::memcpy(out_ + len_, text, n);  // a planned text piece: a few moves
            } else if (m > 16) {
                std::memcpy(out_ + len_, text, m);
            } else {
                // Most pieces are a few bytes: copied here rather than by a call.
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

// "123" at p, with p moved past it; -1 on overflow.
constexpr long ParseNumber(const char*& p) {
    long n = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        if (n > 100000000) return -1;
        n = n * 10 + (*p - '0');
    }
    return n;
}

// The conversion after a '%' (p points past it): the character after the
// conversion, or nullptr for one the formatter does not take (%n, %a, %m,
// positional arguments, the L modifier, the end of the text...).
constexpr const char* ParseConversion(const char* p, Conversion& c) {
    for (;; ++p) {
        if (*p == '-') {
            c.left = true;
        } else if (*p == '+') {
            c.plus = true;
        } else if (*p == ' ') {
            c.space = true;
        } else if (*p == '#') {
            c.alternate = true;
        } else if (*p == '0') {
            c.zero = true;
        } else {
            break;
        }
    }
    if (*p == '*') {
        c.widthStar = true;
        ++p;
    } else {
        c.width = ParseNumber(p);
        if (c.width < 0 || *p == '$') return nullptr;
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            c.precisionStar = true;
            ++p;
        } else {
            c.precision = ParseNumber(p);
            if (c.precision < 0) return nullptr;
        }
    }
    if (*p == 'h') {
        c.length = p[1] == 'h' ? Conversion::kChar : Conversion::kShort;
        p += p[1] == 'h' ? 2 : 1;
    } else if (*p == 'l') {
        c.length = p[1] == 'l' ? Conversion::kLongLong : Conversion::kLong;
        p += p[1] == 'l' ? 2 : 1;
    } else if (*p == 'z') {
        c.length = Conversion::kSize;
        ++p;
    } else if (*p == 'j') {
        c.length = Conversion::kMax;
        ++p;
    } else if (*p == 't') {
        c.length = Conversion::kDiff;
        ++p;
    }
    for (const char* taken = "diuxXocspfFeEgG"; *taken != '\0'; ++taken) {
        if (*p == *taken) {
            c.conversion = *p;
            return p + 1;
        }
    }
    return nullptr;
}

// The value as printf reads it for the length modifier (the bits of what
// was passed, as for a va_list).
inline unsigned long long Narrow(const FormatArg& a, Conversion::Length length, bool isSigned) {
    const unsigned long long u = a.u;
    switch (length) {
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

// Writes one conversion, taking its arguments ('*' ones first) from
// args[next]; false when they are missing or of the wrong kind.
bool Convert(FormatOutput& out, const Conversion& c, const FormatArg* args, std::size_t count,
             std::size_t& next);

// A format as pieces: text (offset and length in the format) or a
// conversion with the index of its first argument.
struct FormatPiece {
    std::size_t offset = 0, length = 0;
    Conversion conversion;  // conversion 0: a text piece
    std::size_t firstArg = 0;
};

template <std::size_t N>
struct FormatPlan {
    FormatPiece pieces[N];
    std::size_t count = 0;
    std::size_t args = 0;     // arguments the format takes
    bool taken = true;        // false: a conversion the formatter does not take
    bool mayHoldNul = false;  // a %c may write a NUL, where a text ends
};

// At most two pieces per '%' and one more.
constexpr std::size_t FormatPieceBound(const char* fmt) {
    std::size_t n = 1;
    if (fmt == nullptr) return n;
    for (; *fmt != '\0'; ++fmt) n += *fmt == '%' ? 2 : 0;
    return n;
}

template <std::size_t N>
constexpr FormatPlan<N> MakeFormatPlan(const char* fmt) {
    FormatPlan<N> plan{};
    if (fmt == nullptr) {
        plan.taken = false;
        return plan;
    }
    const char* p = fmt;
    while (*p != '\0') {
        FormatPiece& piece = plan.pieces[plan.count++];
        if (*p == '%' && p[1] == '%') {  // the text "%"
            piece.offset = static_cast<std::size_t>(p + 1 - fmt);
            piece.length = 1;
            p += 2;
            continue;
        }
        if (*p != '%') {  // text up to the next '%'
            const char* start = p;
            while (*p != '\0' && *p != '%') ++p;
            piece.offset = static_cast<std::size_t>(start - fmt);
            piece.length = static_cast<std::size_t>(p - start);
            continue;
        }
        p = ParseConversion(p + 1, piece.conversion);
        if (p == nullptr) {
            plan.taken = false;
            return plan;
        }
        piece.firstArg = plan.args;
        plan.args += 1 + piece.conversion.widthStar + piece.conversion.precisionStar;
        plan.mayHoldNul = plan.mayHoldNul || piece.conversion.conversion == 'c';
    }
    return plan;
}

// The plan of a literal format (returned by format()), made at compile time.
template <class L>
constexpr auto PlanFormat(L format) {
    constexpr const char* fmt = format();
    return MakeFormatPlan<FormatPieceBound(fmt)>(fmt);
}

// An integer with no flag but '-' or '0', no precision, no '*': the common
// case, written inline.
constexpr bool IsPlainInteger(const Conversion& c) {
    return (c.conversion == 'd' || c.conversion == 'i' || c.conversion == 'u' ||
            c.conversion == 'x' || c.conversion == 'X') &&
           !c.plus && !c.space && !c.alternate && c.precision < 0 && !c.widthStar &&
           !c.precisionStar;
}
constexpr bool IsPlainString(const Conversion& c) {
    return c.conversion == 's' && c.length == Conversion::kInt && !c.zero && !c.plus && !c.space &&
           c.precision < 0 && !c.widthStar && !c.precisionStar;
}

// Blanks (or zeros) up to the width around a body and its sign; the flags
// and the width are constants of the plan, so a conversion without a width
// is two copies.
template <bool Left, bool Zero, long Width>
void PutPadded(FormatOutput& out, bool negative, const char* body, std::size_t size) {
    if constexpr (Width == 0) {
        if (negative) out.Put("-", 1);
        out.Put(body, size);
    } else {
        const std::size_t used = size + negative;
        const std::size_t pad = static_cast<std::size_t>(Width) > used ? Width - used : 0;
        if (!Left && !Zero) out.Fill(' ', pad);
        if (negative) out.Put("-", 1);
        if (!Left && Zero) out.Fill('0', pad);
        out.Put(body, size);
        if (Left) out.Fill(' ', pad);
    }
}

template <char C, Conversion::Length Length, bool Left, bool Zero, long Width>
bool PutPlainInteger(FormatOutput& out, const FormatArg& a) {
    if (a.kind != FormatArg::kSigned && a.kind != FormatArg::kUnsigned) return false;
    constexpr bool isSigned = C == 'd' || C == 'i';
    unsigned long long value = Narrow(a, Length, isSigned);
    const bool negative = isSigned && static_cast<long long>(value) < 0;
    if (negative) value = 0 - value;
    char digits[24];
    char* end =
        std::to_chars(digits, digits + sizeof digits, value, C == 'x' || C == 'X' ? 16 : 10).ptr;
    if constexpr (C == 'X') {
        for (char* d = digits; d != end; ++d) *d = static_cast<char>(*d >= 'a' ? *d - 32 : *d);
    }
    PutPadded<Left, Zero, Width>(out, negative, digits, static_cast<std::size_t>(end - digits));
    return true;
}

template <bool Left, long Width>
bool PutPlainString(FormatOutput& out, const FormatArg& a) {
    if (a.kind != FormatArg::kString) return false;
    const char* text = a.s != nullptr ? a.s : "(null)";  // as the C library prints it
    PutPadded<Left, false, Width>(out, false, text, std::strlen(text));
    return true;
}

template <class F, std::size_t... I>
bool EachPiece(F&& f, std::index_sequence<I...>) {
    return (f(std::integral_constant<std::size_t, I>{}) && ...);
}

// The text of a literal format (returned by format()) and its arguments, as
// snprintf writes it (at most cap bytes at out, no terminator); its length,
// or -1 when the format holds a conversion the formatter does not take or
// the arguments do not match it.
template <class L, class... A>
long FormatPlanned(L format, char* out, std::size_t cap, const A&... a) {
    constexpr const char* fmt = format();
    constexpr auto plan = PlanFormat(format);
    if constexpr (!plan.taken || plan.args > sizeof...(A)) {
        return -1;
    } else {
        const FormatArg args[sizeof...(A) + 1] = {FormatArg(a)...};
        FormatOutput output(out, cap);
        const bool done = EachPiece(
            [&](auto index) {
                constexpr FormatPiece piece = plan.pieces[decltype(index)::value];
                constexpr Conversion c = piece.conversion;
                if constexpr (c.conversion == 0) {
                    output.Put(fmt + piece.offset, piece.length);
                    return true;
                } else if constexpr (IsPlainInteger(c)) {
                    return PutPlainInteger<c.conversion, c.length, c.left, c.zero, c.width>(
                        output, args[piece.firstArg]);
                } else if constexpr (IsPlainString(c)) {
                    return PutPlainString<c.left, c.width>(output, args[piece.firstArg]);
                } else {
                    std::size_t next = piece.firstArg;
                    return Convert(output, c, args, sizeof...(A), next);
                }
            },
            std::make_index_sequence<plan.count>());
        return done ? static_cast<long>(output.Length()) : -1;
    }
}

}  // namespace PF::Utils::LOG::detail
