// Xvfb on a display it picks itself (1920×1080, 24 bits), for benches that draw to a window the
// way a desktop player does; stopped at destruction.
#pragma once

#include <sys/types.h>

#include <string>

namespace nembra::testing {

class VirtualDisplay {
 public:
  VirtualDisplay();
  ~VirtualDisplay();
  VirtualDisplay(const VirtualDisplay&) = delete;
  VirtualDisplay& operator=(const VirtualDisplay&) = delete;

  // ":N", or empty when Xvfb did not start.
  const std::string& display() const { return display_; }

 private:
  pid_t pid_ = -1;
  std::string output_;
  std::string display_;
};

}  // namespace nembra::testing
