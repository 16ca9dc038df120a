// The library's printf-style formatter against snprintf: the input chooses a
// conversion (flags, width, precision, each possibly '*', length modifier),
// an argument of the type it takes, and text around it; the two outputs must
// be the same, byte for byte, also when cut short. A format the formatter
// does not take must be refused, never guessed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "writer/Formatter.h"

using PF::Utils::LOG::detail::FormatArg;
using PF::Utils::LOG::detail::FormatText;

namespace {

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
    template <class T>
    T Value() {
        T v{};
        for (std::size_t i = 0; i < sizeof v; ++i) reinterpret_cast<std::uint8_t*>(&v)[i] = Byte();
        return v;
    }
    std::string Text(std::size_t max) {
        std::string text;
        for (std::size_t n = Byte() % (max + 1); n > 0; --n) {
            const char c = static_cast<char>(Byte());
            text.push_back(c == '%' || c == '\0' ? 'x' : c);
        }
        return text;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

template <class... A>
void Check(const std::string& fmt, A... a) {
    const FormatArg args[] = {FormatArg(a)..., FormatArg()};
    char expected[4096];
    const int n = std::snprintf(expected, sizeof expected, fmt.c_str(), a...);
    if (n < 0 || n >= static_cast<int>(sizeof expected)) return;
    char ours[4096];
    const long m = FormatText(ours, sizeof ours, fmt.c_str(), args, sizeof...(A));
    if (m < 0) return;  // left to snprintf: nothing to compare
    if (m != n || std::memcmp(ours, expected, static_cast<std::size_t>(n)) != 0) {
        std::fprintf(stderr, "format \"%s\": ours \"%.*s\", snprintf \"%.*s\"\n", fmt.c_str(),
                     static_cast<int>(m), ours, n, expected);
        std::abort();
    }
    char cut[7];
    if (FormatText(cut, sizeof cut, fmt.c_str(), args, sizeof...(A)) != m ||
        std::memcmp(cut, expected, std::min<std::size_t>(sizeof cut, n)) != 0)
        std::abort();
}

// The value, after the width and precision arguments the format asks for.
template <class T>
void WithStars(const std::string& fmt, int stars, int width, int precision, T value) {
    if (stars == 0) Check(fmt, value);
    if (stars == 1) Check(fmt, width, value);
    if (stars == 2) Check(fmt, precision, value);
    if (stars == 3) Check(fmt, width, precision, value);
}

const char* const kStrings[] = {"", "eth0", "link up on eth0", nullptr, "\xc3\xa9t\xc3\xa9"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    std::string fmt = in.Text(8) + "%";
    const std::uint8_t flags = in.Byte();
    for (int i = 0; i < 5; ++i) {
        if ((flags >> i) & 1) fmt.push_back("-+ #0"[i]);
    }
    const std::uint8_t shape = in.Byte();
    int stars = 0;
    const int width = static_cast<int>(static_cast<std::int8_t>(in.Byte())) % 40;
    const int precision = static_cast<int>(static_cast<std::int8_t>(in.Byte())) % 40;
    if ((shape & 3) == 1) fmt += std::to_string(width < 0 ? -width : width);
    if ((shape & 3) == 2) {
        fmt += '*';
        stars |= 1;
    }
    if ((shape >> 2 & 3) == 1) fmt += "." + std::to_string(precision < 0 ? -precision : precision);
    if ((shape >> 2 & 3) == 2) {
        fmt += ".*";
        stars |= 2;
    }
    static const char kConversions[] = "diuxXocspfFeEgG";
    const char conversion = kConversions[in.Byte() % (sizeof kConversions - 1)];
    const std::uint8_t length = in.Byte() % 8;  // none hh h l ll z j t
    static const char* const kLengths[] = {"", "hh", "h", "l", "ll", "z", "j", "t"};
    const bool integer = std::strchr("diuxXo", conversion) != nullptr;
    if (integer) fmt += kLengths[length];
    fmt += conversion;
    fmt += in.Text(8);

    if (integer && length >= 3) {
        WithStars(fmt, stars, width, precision, in.Value<long long>());
    } else if (integer) {
        WithStars(fmt, stars, width, precision, in.Value<int>());
    } else if (conversion == 'c') {
        WithStars(fmt, stars, width, precision, static_cast<int>(in.Byte()));
    } else if (conversion == 's') {
        WithStars(fmt, stars, width, precision, kStrings[in.Byte() % 5]);
    } else if (conversion == 'p') {
        WithStars(fmt, stars, width, precision,
                  reinterpret_cast<void*>(static_cast<std::uintptr_t>(in.Value<std::uint64_t>())));
    } else {
        WithStars(fmt, stars, width, precision, in.Value<double>());
    }
    return 0;
}
