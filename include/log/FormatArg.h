// One argument of a printf-style record, as the caller passed it: the
// formatter takes the typed values straight from the call (no va_list), so
// the text is written into the record without the C library's formatting.
#pragma once

#include <cstddef>
#include <type_traits>

namespace PF::Utils::LOG::detail {

struct FormatArg {
    enum Kind : unsigned char {
        kNone,
        kSigned,
        kUnsigned,
        kDouble,
        kLongDouble,
        kString,
        kPointer
    };
    Kind kind = kNone;
    union {
        long long i;
        unsigned long long u;
        double d;
        long double ld;
        const char* s;
        const void* p;
    };

    FormatArg() : i(0) {}
    template <class T, class D = std::decay_t<T>>
    FormatArg(const T& value) : i(0) {  // NOLINT(google-explicit-constructor): built from the call
        if constexpr (std::is_same_v<D, char*> || std::is_same_v<D, const char*>) {
            kind = kString;
            s = value;
        } else if constexpr (std::is_pointer_v<D> || std::is_same_v<D, std::nullptr_t>) {
            kind = kPointer;
            p = value;
        } else if constexpr (std::is_enum_v<D>) {
            using U = std::underlying_type_t<D>;
            kind = std::is_signed_v<U> ? kSigned : kUnsigned;
            i = static_cast<long long>(static_cast<U>(value));
        } else if constexpr (std::is_same_v<D, long double>) {
            kind = kLongDouble;
            ld = value;
        } else if constexpr (std::is_floating_point_v<D>) {
            kind = kDouble;
            d = value;
        } else if constexpr (std::is_integral_v<D>) {
            // As printf receives them: narrow types promoted to int.
            if constexpr (std::is_signed_v<D> || sizeof(D) < sizeof(int)) {
                kind = kSigned;
                i = static_cast<long long>(value);
            } else {
                kind = kUnsigned;
                u = static_cast<unsigned long long>(value);
            }
        } else {
            static_assert(sizeof(D) == 0, "a printf-style record takes numbers, text and pointers");
        }
    }
};

}  // namespace PF::Utils::LOG::detail
