// Steps of the tests' helper program (LogHelper.cpp), and what they share.
#pragma once

#include <map>

#include "support/TestSupport.h"

namespace zmhelper {

// A step: called with the process's role (argv[0]) and the text after "=".
using Step = std::function<void(const std::string& role, const std::string& args)>;
inline std::map<std::string, Step>& Steps() {
    static std::map<std::string, Step> steps;
    return steps;
}

// One line on stdout, flushed: what the test waits for.
inline void Say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

}  // namespace zmhelper

// Registers fn as the step name: ZMHELPER_STEP("crash", Crash);
#define ZMHELPER_STEP(name, fn)                            \
    [[maybe_unused]] static const bool zmhelperStep_##fn = \
        ::zmhelper::Steps().emplace(name, fn).second
