#include <cstdio>
#include <string>

#include "log/ConfManager.h"
#include "log/Control.h"

namespace PF::Utils::LOG {

void OutputConsole(std::string& line) {
    if (!ConfManager::sConsole) return;
    // As given: no newline added, no flush.
    std::fwrite(line.data(), 1, line.size(), stdout);
}

}  // namespace PF::Utils::LOG
