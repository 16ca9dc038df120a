// Exported control calls: start and end of the reader, attaching a writer,
// repair, and the run-time switches of the log.
#pragma once

#include <string>

namespace PF::Utils::LOG {

bool InitWriteLogEnv();     // writer: attach to the runtime's ring (again)
bool StartRuntimeLog();     // runtime: create the ring, start monitor and archiver
bool ReleaseRuntimeLog();   // runtime: final notice, drain, stop, unlink
bool BindCPUCore(int cpu);  // pin the archiver thread
int GetWriteSemStatus();    // value of "/WriteLOG", -1 when not open
bool ResetShm();            // repair a ring left locked by a dead writer
bool IsUPEnvironment();     // true: no installation, private ring and text log
bool LogDoConfigure(std::string confFile, std::string logDir);
void OutputConsole(std::string& line);  // stdout, as given, when "console" is on
// A process that dies of SIGSEGV, SIGBUS, SIGFPE, SIGILL or SIGABRT writes a
// FATAL record first: signal, thread, backtrace. "crashReport=true" in the
// configuration does the same at load. Handlers installed before are still
// called; false when a handler could not be installed.
bool EnableCrashReport();

bool SetLogActive(unsigned value);
bool SetLogLevel(unsigned value);
bool SetUSBDeviceState(bool value);
bool StartLog(std::string logDir);
bool StopLog();

}  // namespace PF::Utils::LOG
