// Buffered output to a file descriptor: lines are gathered in memory and
// written in large blocks.
#pragma once

#include <string>
#include <string_view>

namespace PF::Utils::LOG::zmlog {

class OutputSink {
  public:
    // fd < 0 keeps everything in memory (for tests and the fuzz target).
    explicit OutputSink(int fd) : fd_(fd) {
        if (fd_ >= 0) text_.reserve(2 * kBlock);
    }
    OutputSink(const OutputSink&) = delete;
    OutputSink& operator=(const OutputSink&) = delete;

    void Write(std::string_view text) {
        text_.append(text);
        if (fd_ >= 0 && text_.size() >= kBlock) Flush();
    }
    // The gathered text, appended to directly by formatters.
    std::string& Text() { return text_; }
    // Throws Error when the descriptor refuses the data.
    void Flush();
    void FlushIfFull() {
        if (fd_ >= 0 && text_.size() >= kBlock) Flush();
    }

  private:
    static constexpr std::size_t kBlock = 1 << 20;
    int fd_;
    std::string text_;
};

}  // namespace PF::Utils::LOG::zmlog
