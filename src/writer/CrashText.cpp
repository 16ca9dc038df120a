#include "writer/CrashText.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

namespace PF::Utils::LOG::detail {
namespace {

// Appends to a fixed buffer; what does not fit is cut.
class Text {
  public:
    Text(char* out, std::size_t room) : out_(out), room_(room) {}
    Text& Put(std::string_view s) {
        for (char c : s) Char(c);
        return *this;
    }
    Text& Decimal(long value, int width = 1) {
        if (value < 0) Char('-');
        const unsigned long magnitude = value < 0 ? 0UL - value : value;
        return Digits(magnitude, 10, width);
    }
    Text& Hex(std::uintptr_t value) { return Put("0x").Digits(value, 16, 1); }
    std::size_t Size() const { return used_; }

  private:
    void Char(char c) {
        if (used_ < room_) out_[used_++] = c;
    }
    Text& Digits(unsigned long value, unsigned base, int width) {
        char digits[24];
        int n = 0;
        do {
            digits[n++] = "0123456789abcdef"[value % base];
            value /= base;
        } while (value != 0 || n < width);
        while (n > 0) Char(digits[--n]);
        return *this;
    }
    char* out_;
    std::size_t room_;
    std::size_t used_ = 0;
};

struct CodeName {
    int sig;  // 0: any signal
    int code;
    const char* name;
};
constexpr CodeName kCodes[] = {{SIGSEGV, SEGV_MAPERR, "SEGV_MAPERR"},
                               {SIGSEGV, SEGV_ACCERR, "SEGV_ACCERR"},
                               {SIGBUS, BUS_ADRALN, "BUS_ADRALN"},
                               {SIGBUS, BUS_ADRERR, "BUS_ADRERR"},
                               {SIGBUS, BUS_OBJERR, "BUS_OBJERR"},
                               {SIGFPE, FPE_INTDIV, "FPE_INTDIV"},
                               {SIGFPE, FPE_INTOVF, "FPE_INTOVF"},
                               {SIGFPE, FPE_FLTDIV, "FPE_FLTDIV"},
                               {SIGFPE, FPE_FLTOVF, "FPE_FLTOVF"},
                               {SIGFPE, FPE_FLTUND, "FPE_FLTUND"},
                               {SIGFPE, FPE_FLTRES, "FPE_FLTRES"},
                               {SIGFPE, FPE_FLTINV, "FPE_FLTINV"},
                               {SIGFPE, FPE_FLTSUB, "FPE_FLTSUB"},
                               {SIGILL, ILL_ILLOPC, "ILL_ILLOPC"},
                               {SIGILL, ILL_ILLOPN, "ILL_ILLOPN"},
                               {SIGILL, ILL_ILLADR, "ILL_ILLADR"},
                               {SIGILL, ILL_ILLTRP, "ILL_ILLTRP"},
                               {SIGILL, ILL_PRVOPC, "ILL_PRVOPC"},
                               {SIGILL, ILL_PRVREG, "ILL_PRVREG"},
                               {SIGILL, ILL_COPROC, "ILL_COPROC"},
                               {SIGILL, ILL_BADSTK, "ILL_BADSTK"},
                               {0, SI_USER, "SI_USER"},
                               {0, SI_TKILL, "SI_TKILL"},
                               {0, SI_QUEUE, "SI_QUEUE"},
                               {0, SI_KERNEL, "SI_KERNEL"}};

void Code(Text& t, int sig, int code) {
    for (const CodeName& c : kCodes) {
        if ((c.sig == sig || c.sig == 0) && c.code == code) {
            t.Put(c.name);
            return;
        }
    }
    t.Put("code ").Decimal(code);
}

// _dl_find_object, unlike dladdr and dl_iterate_phdr, takes no lock of the
// loader (glibc marks it async-signal-safe): a crash inside dlopen on another
// thread does not stop the report, and modules loaded after the switch-on
// are found too.
void Frame(Text& t, int index, void* pc, const char* executable) {
    t.Put("\n#").Decimal(index).Put(" ").Hex(reinterpret_cast<std::uintptr_t>(pc));
    dl_find_object found{};
    if (_dl_find_object(pc, &found) != 0 || found.dlfo_link_map == nullptr) return;
    const link_map* map = found.dlfo_link_map;
    const char* module =
        map->l_name != nullptr && map->l_name[0] != '\0' ? map->l_name : executable;
    t.Put(" ").Put(module).Put("+").Hex(reinterpret_cast<std::uintptr_t>(pc) - map->l_addr);
}

}  // namespace

std::size_t DescribeCrash(char* out, std::size_t room, int sig, const siginfo_t& info,
                          void* const* frames, int count, const char* executable) {
    Text t(out, room);
    const char* abbreviation = sigabbrev_np(sig);
    t.Put(" SIG").Put(abbreviation != nullptr ? abbreviation : "?").Put(" (");
    Code(t, sig, info.si_code);
    // A positive code is the kernel's: a fault, with its address.
    if (info.si_code > 0) {
        t.Put(") at ").Hex(reinterpret_cast<std::uintptr_t>(info.si_addr));
    } else {
        t.Put(") from pid ").Decimal(info.si_pid);
    }
    char name[17] = {};
    prctl(PR_GET_NAME, name);
    t.Put(" in thread ").Decimal(syscall(SYS_gettid)).Put(" \"").Put(name).Put("\"");
    for (int i = 0, same = 1; i < count; i += same, same = 1) {
        Frame(t, i, frames[i], executable);
        while (i + same < count && frames[i + same] == frames[i]) ++same;
        // A recursion (a stack overflow, mostly) in one line.
        if (same > 1) t.Put("\n#").Decimal(i + 1).Put("..#").Decimal(i + same - 1).Put(" the same");
    }
    return t.Size();
}

std::size_t TextLine(char* out, std::size_t room, std::int64_t timeUs, long utcOffsetSeconds,
                     unsigned threadId, std::string_view content) {
    const std::int64_t localMs = timeUs / 1000 + utcOffsetSeconds * 1000LL;
    const std::int64_t days = (localMs >= 0 ? localMs : localMs - 86399999) / 86400000;
    const std::int64_t ms = localMs - days * 86400000;
    // The civil date of a day count since 1970-01-01 (proleptic Gregorian).
    const std::int64_t z = days + 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const std::int64_t dayOfEra = z - era * 146097;
    const std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t shifted = (5 * dayOfYear + 2) / 153;  // March is 0
    const std::int64_t month = shifted < 10 ? shifted + 3 : shifted - 9;
    const std::int64_t day = dayOfYear - (153 * shifted + 2) / 5 + 1;
    Text t(out, room);
    t.Decimal(yearOfEra + era * 400 + (month <= 2 ? 1 : 0), 4).Put("-").Decimal(month, 2);
    t.Put("-").Decimal(day, 2).Put(" ").Decimal(ms / 3600000, 2).Put(":");
    t.Decimal(ms / 60000 % 60, 2).Put(":").Decimal(ms / 1000 % 60, 2).Put(".");
    t.Decimal(ms % 1000, 3).Put("|").Decimal(threadId).Put("|FATAL|CrashReport|zmlog");
    t.Put(content).Put("\n");
    return t.Size();
}

}  // namespace PF::Utils::LOG::detail
