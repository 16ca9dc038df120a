#include "CrashFrames.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>

#include "log/LogHead.h"

#ifdef ZMLOG_SYMBOLS
#include <cxxabi.h>
#include <elfutils/libdwfl.h>
#endif

namespace PF::Utils::LOG::zmlog {

#ifdef ZMLOG_SYMBOLS
struct CrashFrames::Module {
    Dwfl* dwfl = nullptr;
    Dwfl_Module* module = nullptr;
    ~Module() {
        if (dwfl != nullptr) dwfl_end(dwfl);
    }
};
#else
struct CrashFrames::Module {};
#endif

#ifdef ZMLOG_SYMBOLS
namespace {

// "#<index> 0x<address> <module>+0x<offset>"; false for any other line.
bool ParseFrame(std::string_view line, unsigned& index, std::string_view& module,
                std::uint64_t& offset) {
    const char* const end = line.data() + line.size();
    if (line.size() < 2 || line[0] != '#') return false;
    const auto [afterIndex, badIndex] = std::from_chars(line.data() + 1, end, index);
    if (badIndex != std::errc() || end - afterIndex < 4 || std::string_view(afterIndex, 3) != " 0x")
        return false;
    std::uint64_t address = 0;
    const auto [afterAddress, badAddress] = std::from_chars(afterIndex + 3, end, address, 16);
    if (badAddress != std::errc() || afterAddress == end || *afterAddress != ' ') return false;
    const std::string_view rest(afterAddress + 1, static_cast<std::size_t>(end - afterAddress - 1));
    const std::size_t plus = rest.rfind("+0x");
    if (plus == std::string_view::npos || plus == 0) return false;
    module = rest.substr(0, plus);
    const auto [afterOffset, badOffset] = std::from_chars(rest.data() + plus + 3, end, offset, 16);
    return badOffset == std::errc() && afterOffset == end;
}

}  // namespace
#endif

CrashFrames::CrashFrames() = default;
CrashFrames::~CrashFrames() = default;

bool CrashFrames::CanName() {
#ifdef ZMLOG_SYMBOLS
    return true;
#else
    return false;
#endif
}

bool CrashFrames::IsReport(const WalkedRecord& r) {
    return r.function == "CrashReport" && (r.head.flags & 7U) == kFatal &&
           (r.head.flags & kBinaryFlag) == 0 && r.head.valueType == 0;
}

void CrashFrames::Name(WalkedRecord& r) {
    const std::string content = Name(r.content);
    if (content.size() == r.content.size()) return;
    const std::size_t functionLen = r.function.size();
    const std::size_t programLen = r.program.size();
    const std::size_t tagLen = r.tag.size();
    std::string body;
    body.append(r.function).append(r.program).append(r.tag).append(content);
    body_.swap(body);
    r.head.contentLen = static_cast<std::uint32_t>(content.size());
    r.size = static_cast<std::uint32_t>(sizeof(LogHead) + body_.size());
    r.body = body_.data();
    r.function = std::string_view(body_).substr(0, functionLen);
    r.program = std::string_view(body_).substr(functionLen, programLen);
    r.tag = std::string_view(body_).substr(functionLen + programLen, tagLen);
    r.content = std::string_view(body_).substr(functionLen + programLen + tagLen);
}

std::string CrashFrames::Name(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t from = 0; from <= text.size();) {
        const std::size_t newline = text.find('\n', from);
        const std::size_t end = newline == std::string_view::npos ? text.size() : newline;
        const std::string_view line = text.substr(from, end - from);
        out.append(line);
        AppendName(line, out);
        if (newline == std::string_view::npos) break;
        out.push_back('\n');
        from = newline + 1;
    }
    return out;
}

CrashFrames::Module* CrashFrames::Find(const std::string& path) {
    auto [it, fresh] = modules_.try_emplace(path);
    if (!fresh) return it->second.get();
#ifdef ZMLOG_SYMBOLS
    // Regular files only: a log may name anything, and a FIFO would block.
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
    static char* debuginfoPath = nullptr;
    static const Dwfl_Callbacks callbacks = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo,
                                             dwfl_offline_section_address, &debuginfoPath};
    auto module = std::make_unique<Module>();
    module->dwfl = dwfl_begin(&callbacks);
    if (module->dwfl == nullptr) return nullptr;
    module->module = dwfl_report_offline(module->dwfl, path.c_str(), path.c_str(), -1);
    dwfl_report_end(module->dwfl, nullptr, nullptr);
    if (module->module != nullptr) it->second = std::move(module);
#endif
    return it->second.get();
}

void CrashFrames::AppendName(std::string_view line, std::string& out) {
#ifdef ZMLOG_SYMBOLS
    unsigned index = 0;
    std::string_view path;
    std::uint64_t offset = 0;
    if (!ParseFrame(line, index, path, offset)) return;
    Module* m = Find(std::string(path));
    Dwarf_Addr bias = 0;
    if (m == nullptr || dwfl_module_getelf(m->module, &bias) == nullptr) return;
    // Below frame 0 the address is where the call returns to: the call
    // itself is the byte before, which may be the last of its function.
    const std::uint64_t back = index > 0 && offset > 0 ? 1 : 0;
    GElf_Off into = 0;
    GElf_Sym symbol{};
    const char* name = dwfl_module_addrinfo(m->module, offset - back + bias, &into, &symbol,
                                            nullptr, nullptr, nullptr);
    if (name == nullptr) return;
    int status = -1;
    char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    out.append(" ").append(status == 0 && demangled != nullptr ? demangled : name).append("+0x");
    std::free(demangled);
    char hex[24];
    out.append(hex, std::to_chars(hex, hex + sizeof hex, into + back, 16).ptr);
#else
    (void)line;
    (void)out;
#endif
}

}  // namespace PF::Utils::LOG::zmlog
