// Per-file progress for the transfer commands. On a terminal every file has a bar redrawn in
// place (percentage, rate and time left); otherwise each file prints a plain line at every tenth
// of its size, which reads well in logs and pipes.
//
// Threading: one thread (the command's main loop).
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace nembra {

class ProgressBoard {
 public:
  // Draws on |out| (standard error); |terminal| chooses the redrawn bars.
  ProgressBoard(std::FILE* out, bool terminal);

  // A new line for |label|; returns its index.
  size_t add(const std::string& label);
  void update(size_t index, int64_t sent, int64_t expected);
  // Ends the line with |status| ("done", "failed").
  void finish(size_t index, const std::string& status);
  // Redraws the bars at most every |interval|; does nothing off a terminal.
  void draw(bool force = false);

  // "12.3 MB/s"-style and "1:05"-style texts.
  static std::string rateText(double bytesPerSecond);
  static std::string durationText(double seconds);

 private:
  using Clock = std::chrono::steady_clock;
  struct Line {
    std::string label;
    int64_t sent = 0;
    int64_t expected = 0;
    Clock::time_point started;
    int lastTenth = -1;
    std::string status;
  };
  std::string render(const Line& line) const;

  std::FILE* out_;
  const bool terminal_;
  std::vector<Line> lines_;
  size_t drawn_ = 0;  // lines on screen from the last draw
  Clock::time_point lastDraw_{};
};

}  // namespace nembra
