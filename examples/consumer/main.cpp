// Logs a few records through the installed library. Without an installation
// (no $ZM_VELDOR_HOME/conf/RUNTIMELOG.cfg) the process keeps a private text
// log, ./<program>.log; inside one it writes into the runtime's shared log.
#include <cstdio>

#include "log/ZMRuntimeLog.h"

int main() {
    using namespace PF::Utils::LOG;

    ZMLOG_INFO("consumer", " hello from the installed library");
    ZMLOG_WARN_F("consumer", " %d of %d checks passed", 2, 3);
    ZMLOG_VALUE(kInfo, "ratio=", 0.5);
    const unsigned char frame[] = {0xde, 0xad, 0x00, 0xef};
    ZMLOG_BINARY(kInfo, "frame", frame, sizeof frame);
    ZMLOG_DEBUG("consumer", " below the default level: not written");

    std::printf(
        "%s: %s\n", program_invocation_short_name,
        IsUPEnvironment() ? "private log (no installation)" : "writer of the runtime's log");
    return 0;
}
