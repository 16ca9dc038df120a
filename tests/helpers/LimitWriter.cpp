// Writer process for the record-size limit: started with a program name of
// 65535 bytes as argv[0], it writes the largest record the log takes (function
// name and tag of 65535 bytes too, the content filling the rest of 1 MiB),
// then the same record one byte longer, then a normal record. The long
// strings repeat "Function", "Tag" and "content". Prints "content <bytes>"
// and "max WriteLog <ms> ms".
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "log/ZMRuntimeLog.h"

using namespace PF::Utils::LOG;

namespace {

std::string Repeat(const std::string& unit, size_t size) {
    std::string text;
    while (text.size() < size) text += unit;
    text.resize(size);
    return text;
}

double TimedWrite(const std::string& tag, const std::string& content, const std::string& function,
                  const std::string& program) {
    const auto start = std::chrono::steady_clock::now();
    WriteLog<std::string>(tag.c_str(), content, kWarn, function.c_str(), 0, 0, 0, program);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace

int main() {
    if (RingHead::GetInstance() == nullptr && !InitWriteLogEnv()) {
        std::puts("attach failed");
        return 3;
    }
    const std::string function = Repeat("Function", 65535);
    const std::string tag = Repeat("Tag", 65535);
    const size_t used =
        32 + function.size() + tag.size() + std::strlen(program_invocation_short_name);
    std::string content = Repeat("content", kMaxRecordLength - used);

    double maxMs = TimedWrite(tag, content, function, std::string());
    content.push_back('+');
    const double ms = TimedWrite(tag, content, function, std::string());
    if (ms > maxMs) maxMs = ms;
    WriteLog<std::string>("limits", std::string("after the limits"), kInfo, "main", 0, 0, 0,
                          "CellEmulation");
    std::printf("content %zu\nmax WriteLog %.3f ms\n", content.size() - 1, maxMs);
    return 0;
}
