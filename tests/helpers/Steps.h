// Steps of the tests' helper program (LogHelper.cpp), and what they share.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zmhelper {

// A step: called with the process's role (argv[0]) and the text after "=".
using Step = std::function<void(const std::string& role, const std::string& args)>;
bool AddStep(const char* name, Step step);  // at static initialisation
const Step* FindStep(const std::string& name);

// One line on stdout, flushed: what the test waits for.
void Say(const std::string& text);
// A line on stdin (or its end) has arrived; with wait, blocks for it.
bool LineArrived(bool wait);
// "3,64,1000" -> {3, 64, 1000}
std::vector<unsigned long> Numbers(const std::string& args);

}  // namespace zmhelper

// Registers fn as the step name: ZMHELPER_STEP("crash", Crash);
#define ZMHELPER_STEP(name, fn) \
    [[maybe_unused]] static const bool zmhelperStep_##fn = ::zmhelper::AddStep(name, fn)
