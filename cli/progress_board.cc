#include "cli/progress_board.h"

#include <algorithm>
#include <cmath>

namespace nembra {

ProgressBoard::ProgressBoard(std::FILE* out, bool terminal) : out_(out), terminal_(terminal) {}

size_t ProgressBoard::add(const std::string& label) {
  lines_.push_back({label, 0, 0, Clock::now(), -1, ""});
  return lines_.size() - 1;
}

void ProgressBoard::update(size_t index, int64_t sent, int64_t expected) {
  Line& line = lines_.at(index);
  line.sent = sent;
  line.expected = expected;
  if (terminal_ || expected <= 0) return;
  int tenth = static_cast<int>(std::min<int64_t>(10, sent * 10 / expected));
  if (tenth == line.lastTenth) return;
  line.lastTenth = tenth;
  std::fprintf(out_, "%s: %d%%\n", line.label.c_str(), tenth * 10);
  std::fflush(out_);
}

void ProgressBoard::finish(size_t index, const std::string& status) {
  Line& line = lines_.at(index);
  line.status = status;
  if (!terminal_) return;
  draw(true);
}

std::string ProgressBoard::rateText(double bytesPerSecond) {
  const char* units[] = {"B/s", "kB/s", "MB/s", "GB/s"};
  int unit = 0;
  while (bytesPerSecond >= 1000 && unit < 3) {
    bytesPerSecond /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", bytesPerSecond, units[unit]);
  return text;
}

std::string ProgressBoard::durationText(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) return "--:--";
  auto whole = static_cast<long>(std::lround(seconds));
  char text[32];
  if (whole >= 3600) {
    std::snprintf(text, sizeof(text), "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  } else {
    std::snprintf(text, sizeof(text), "%ld:%02ld", whole / 60, whole % 60);
  }
  return text;
}

std::string ProgressBoard::render(const Line& line) const {
  constexpr int kWidth = 24;
  double fraction = line.expected > 0 ? static_cast<double>(line.sent) / line.expected : 0.0;
  fraction = std::clamp(fraction, 0.0, 1.0);
  int filled = static_cast<int>(fraction * kWidth);
  std::string bar = "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "]";
  std::string label =
      line.label.size() > 28 ? "..." + line.label.substr(line.label.size() - 25) : line.label;
  char text[256];
  if (!line.status.empty()) {
    std::snprintf(text, sizeof(text), "%-28s %s %3d%%  %s", label.c_str(), bar.c_str(),
                  static_cast<int>(fraction * 100), line.status.c_str());
    return text;
  }
  double elapsed = std::chrono::duration<double>(Clock::now() - line.started).count();
  double rate = elapsed > 0 ? line.sent / elapsed : 0;
  double left = rate > 0 ? (line.expected - line.sent) / rate : -1;
  std::snprintf(text, sizeof(text), "%-28s %s %3d%%  %10s  ETA %s", label.c_str(), bar.c_str(),
                static_cast<int>(fraction * 100), rateText(rate).c_str(),
                durationText(left).c_str());
  return text;
}

void ProgressBoard::draw(bool force) {
  if (!terminal_) return;
  auto now = Clock::now();
  if (!force && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  // Back to the first line drawn last time, then every line cleared and written anew.
  if (drawn_ > 0) std::fprintf(out_, "\033[%zuA", drawn_);
  for (const Line& line : lines_) std::fprintf(out_, "\r\033[2K%s\n", render(line).c_str());
  drawn_ = lines_.size();
  std::fflush(out_);
}

}  // namespace nembra
