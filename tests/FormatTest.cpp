// The library's printf-style formatter writes exactly what snprintf writes,
// and leaves the formats it does not take to snprintf.
#include <cfloat>
#include <climits>
#include <cmath>
#include <random>

#include "log/LogMacros.h"
#include "support/Fixtures.h"
#include "writer/Formatter.h"

using PF::Utils::LOG::detail::FormatArg;
using PF::Utils::LOG::detail::FormatPlanned;
using PF::Utils::LOG::detail::FormatText;

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat"
template <class... A>
std::string Libc(const char* fmt, A... a) {
    const int n = std::snprintf(nullptr, 0, fmt, a...);
    std::string text(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(text.data(), text.size(), fmt, a...);
    text.resize(static_cast<size_t>(n));
    return text;
}
#pragma GCC diagnostic pop

// Ours against the C library's, also when the output is cut.
template <class... A>
void Same(const char* fmt, A... a) {
    const FormatArg args[] = {FormatArg(a)..., FormatArg()};
    const std::string expected = Libc(fmt, a...);
    char text[2048];
    const long n = FormatText(text, sizeof text, fmt, args, sizeof...(A));
    ASSERT_EQ(std::string(text, static_cast<size_t>(std::max(0L, std::min(n, 2047L)))), expected)
        << fmt;
    ASSERT_EQ(n, static_cast<long>(expected.size())) << fmt;
    char cut[5];
    EXPECT_EQ(FormatText(cut, sizeof cut, fmt, args, sizeof...(A)), n) << fmt;
    EXPECT_EQ(std::string(cut, std::min<size_t>(5, expected.size())), expected.substr(0, 5)) << fmt;
}

template <class... A>
void NotTaken(const char* fmt, A... a) {
    const FormatArg args[] = {FormatArg(a)..., FormatArg()};
    char text[64];
    EXPECT_EQ(FormatText(text, sizeof text, fmt, args, sizeof...(A)), -1) << fmt;
}

// A literal format as the macros take it: planned at compile time.
template <class L, class... A>
void SamePlanned(L format, const char*, A... a) {
    const std::string expected = Libc(format(), a...);
    char text[2048];
    const long n = FormatPlanned(format, text, sizeof text, a...);
    ASSERT_EQ(n, static_cast<long>(expected.size())) << format();
    EXPECT_EQ(std::string(text, static_cast<size_t>(n)), expected) << format();
    char cut[5] = {};
    EXPECT_EQ(FormatPlanned(format, cut, sizeof cut, a...), n) << format();
    EXPECT_EQ(std::string(cut, std::min<size_t>(5, expected.size())), expected.substr(0, 5));
}
#define SAME_PLANNED(...) SamePlanned([] { return ZMLOG_FORMAT_(__VA_ARGS__, 0); }, __VA_ARGS__)
#define PLANNED(...)                                                                        \
    [](auto... a) {                                                                         \
        char text[64];                                                                      \
        return FormatPlanned([] { return ZMLOG_FORMAT_(__VA_ARGS__, 0); }, text, 64, a...); \
    }

}  // namespace

TEST(Format, IntegersEveryConversionFlagWidthPrecisionAndLength) {
    for (const char* f :
         {"%d",    "%i",       "%5d",   "%-5d|", "%05d",   "%+d",  "% d",    "%.3d",
          "%8.3d", "%-+8.3d|", "%0+8d", "%.0d",  "%u",     "%x",   "%X",     "%#x",
          "%#X",   "%o",       "%#o",   "%#.0o", "%#8.4x", "%08x", "%-#8o|", "%+.0d",
          "% 05d", "%hhd",     "%hhu",  "%hd",   "%hu",    "%hhx", "%ho"}) {
        for (int v : {0, 1, -1, 42, -42, 255, 256, 65535, -65536, INT_MAX, INT_MIN}) Same(f, v);
    }
    for (const char* f :
         {"%ld", "%lld", "%lu", "%llx", "%zu", "%zd", "%jd", "%td", "%#lo", "%20lld"}) {
        for (long long v : {0LL, -1LL, LLONG_MIN, LLONG_MAX, 1234567890123LL}) Same(f, v);
    }
    Same("%*d|%-*d|%*d", 6, 42, 6, 42, -6, 42);  // a negative width means '-'
    Same("%.*d|%.*d", 4, 7, -1, 7);              // a negative precision means none
    Same("%hhd %hd", 300, 70000);                // narrowed as printf reads them
    Same("%u %x", static_cast<unsigned char>(200), static_cast<unsigned short>(60000));
}

TEST(Format, FloatingValuesAsPrintfRoundsThem) {
    const double values[] = {0.0,       -0.0,       1.0,           -1.5,        0.125, 2.5,
                             1e-5,      123456.789, 1e21,          9.999999e-5, 0.1,   1.0 / 3,
                             DBL_MAX,   DBL_MIN,    5e-324,        NAN,         -NAN,  INFINITY,
                             -INFINITY, 99999.95,   0.000099999995};
    for (const char* f : {"%f",        "%F",    "%e",      "%E",       "%g",   "%G",    "%.0f",
                          "%.0e",      "%.0g",  "%#.0f",   "%#.0e",    "%#g",  "%#.3g", "%.2f",
                          "%.10e",     "%.17g", "%10.3f|", "%-12.3e|", "%+f",  "% e",   "%015.4f",
                          "%-015.4f|", "%012g", "%+.3G",   "%.40f",    "%12f|"}) {
        for (double v : values) Same(f, v);
    }
    Same("temp %.2f C", 21.456F);  // a float is passed as a double
    // Short fixed conversions take a way of their own: exact ties, and
    // random values of every magnitude, against the C library.
    const char* fixed[] = {"%.0f", "%.1f", "%.2f", "%.3f", "%.4f",
                           "%.5f", "%.6f", "%.7f", "%.8f", "%.9f"};
    for (int k = 0; k < 200; ++k) {
        for (int p = 0; p < 4; ++p) Same(fixed[p], k / 16.0);
    }
    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; ++i) {
        const auto mantissa = static_cast<double>(random() >> 11);
        Same(fixed[i % 10], std::ldexp(mantissa, 10 - static_cast<int>(random() % 100)));
    }
}

TEST(Format, FormatsItDoesNotTakeAreLeftToTheCLibrary) {
    int n = 0;
    NotTaken("%n", &n);
    NotTaken("%a", 1.0);
    NotTaken("%1$d", 1);
    NotTaken("%Lf", 1.0L);
    NotTaken("%ls", L"x");
    NotTaken("%'d", 1000);
    NotTaken("%5%");
    NotTaken("%d");       // an argument missing
    NotTaken("%d", 1.5);  // the wrong type
    NotTaken("%+p", &n);
    NotTaken("%.2000f", 1.0);   // longer than the formatter's buffer
    NotTaken("%#g", 999999.5);  // rounds up to 1e+06, which the C library prints as "1.e+06"
}

// A literal format in a macro is planned at compile time; the common
// conversions are written inline, the others by the run-time formatter.
TEST(Format, LiteralFormatsPlannedAtCompileTimeWriteTheSame) {
    for (long long v : {0LL, 7LL, -7LL, 255LL, 65536LL, -2147483648LL, 2147483647LL,
                        static_cast<long long>(LLONG_MIN)}) {
        const int i = static_cast<int>(v);
        SAME_PLANNED("%d|%i|%u|%x|%X|%5d|%-5d|%05d|%-05x|%08X|", i, i, i, i, i, i, i, i, i, i);
        SAME_PLANNED("%ld %lli %lu %llx %zu %hhd %hu %jd", long(v), v, v, v, size_t(v), i, i, v);
    }
    const char* volatile none = nullptr;  // opaque: no warning of a null %s
    int local = 0;
    SAME_PLANNED("link %d up on %s", 3, "eth0");
    SAME_PLANNED("[%s|%8s|%-8s|%s]", "eth0", "eth0", "eth0", none);
    SAME_PLANNED("100%% %c %+d %#x %.3d %*d %-*s| %.2f %e %g %.1s %p", 'a', 5, 255, 7, 4, 9, 6,
                 "ab", 2.5, 1e10, 0.0001, "xyz", static_cast<void*>(&local));
    SAME_PLANNED("%%%%");
    SAME_PLANNED("no conversion at all");
    SAME_PLANNED("");
    // What it does not take, or arguments that do not match: -1, and the
    // macro asks the C library.
    EXPECT_EQ(PLANNED("%a")(1.0), -1);
    EXPECT_EQ(PLANNED("%d %d")(1), -1);
    EXPECT_EQ(PLANNED("%d")(1.5), -1);
    EXPECT_EQ(PLANNED("%s")(5), -1);
    EXPECT_EQ(PLANNED("%*d")(1.0, 2), -1);
}
