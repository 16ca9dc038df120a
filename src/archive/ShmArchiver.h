// The reader side of the log: one thread, "ShmReadToBinary", that every
// 100 ms drains the ring into "RUNTIME.data" (scrambled) or, in a process
// without an installation, into "<program>.log" (plain), rolling the file
// before it would reach 20 MiB.
#pragma once

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "transport/RingGuard.h"
#include "transport/RingSalvage.h"

namespace PF::Utils::LOG {

class ShmArchiver {
  public:
    static constexpr unsigned READ_BUFFER_LENGTH = 0x800000;    // most one dequeue returns
    static constexpr unsigned long kFileSizeLimit = 0x13FFFFF;  // no file reaches 20 MiB
    static constexpr int kSyncPeriodTicks = 10;
    static constexpr int kProbeLimit = 20;
    static constexpr int kRollAttempts = 3;

    ShmArchiver() = default;
    ShmArchiver(const ShmArchiver&) = delete;
    ShmArchiver& operator=(const ShmArchiver&) = delete;

    // The virtual slots keep this order.
    virtual ~ShmArchiver();
    // Reads "readerInterval" and "maxFileRollNumber", creates the directory
    // and derives the output path. Always true.
    virtual bool init();
    // Allocates the buffer and starts the thread; no-op while the flag is set.
    virtual void StartThread();
    // Stops and joins the thread, closes the file, frees the buffer; no-op
    // while the flag is clear.
    virtual void StopThread();
    virtual void SetBaseLogDir(const std::string& dir);  // effective at init()
    virtual std::string GetBaseLogDir();
    virtual int WriteBinaryFile();  // the thread body

    // Records the CPU; re-pins the live thread at once when running.
    void SetBindCpuNum(int cpu);
    // In the child of a fork: the thread this object ran is not there; a
    // new one is started when it was running.
    void RestartInForkedChild();
    // What the previous runtime left in the ring: the first thing the next
    // thread writes, followed by the notice that says so.
    void SetSalvage(Salvage salvage);
    // The process-wide archiver, created on first use (no lock: the first
    // call comes from start-up code on one thread).
    static std::shared_ptr<ShmArchiver>& GetInstancePtr();

    // Never destroyed, so the archiver outlives the exit handlers and the
    // unload function can still stop it.
    static std::shared_ptr<ShmArchiver>& sShmArch;

  private:
    // The output file for appending, with the installation's access.
    static FILE* OpenOutput(const std::string& path);
    // Thread body steps. Archive: one block of n bytes in the read buffer
    // into the file, rolled first when it would pass the limit; true when
    // the thread must end.
    bool Archive(unsigned n, int& rollIndex, unsigned long& currentSize, int& tick);
    void WriteBlock(unsigned n);
    void Roll(unsigned n, int& rollIndex, unsigned long& currentSize, int& tick);
    bool HandleVanishedFile(unsigned long& currentSize, int& tick);  // true: the thread ends
    int ProbeRollIndex();
    std::string OutputPath();

    int maxRollNumber_ = 0;
    char* readBuffer_ = nullptr;
    std::atomic<bool> running_{false};
    FILE* file_ = nullptr;
    int readerInterval_ = 0;  // stored only; the tick is fixed at 100 ms
    std::string baseLogDir_;
    std::string filePath_;
    std::string programName_;
    std::thread thread_;
    std::atomic<int> bindCpu_{-1};  // set from the controlling thread while the thread starts
    std::vector<std::vector<char>> salvage_;
    RingGuard guard_;  // the shared ring's: seen and mended every tick
};

}  // namespace PF::Utils::LOG
