#include "platform/system/capture_hardware.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace nembra {

CaptureHardware::CaptureHardware(std::string devRoot, std::string procRoot)
    : devRoot_(std::move(devRoot)), procRoot_(std::move(procRoot)) {}

bool CaptureHardware::isCaptureNode(const std::string& path) const {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    // Present but not openable by us: it is still a camera, only not a permitted one.
    return errno == EACCES || errno == EPERM;
  }
  v4l2_capability caps{};
  bool capture = ioctl(fd, VIDIOC_QUERYCAP, &caps) == 0 &&
                 ((caps.device_caps ? caps.device_caps : caps.capabilities) &
                  (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE));
  ::close(fd);
  return capture;
}

std::vector<std::string> CaptureHardware::cameraDevices() const {
  std::vector<std::string> devices;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(devRoot_, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("video", 0) != 0) continue;
    if (isCaptureNode(entry.path().string())) devices.push_back(entry.path().string());
  }
  std::sort(devices.begin(), devices.end());
  return devices;
}

std::vector<std::string> CaptureHardware::capturePcmsFromProcText(const std::string& text) {
  std::vector<std::string> pcms;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find("capture") == std::string::npos || line.size() < 5 || line[2] != '-') continue;
    int card = std::atoi(line.substr(0, 2).c_str());
    int device = std::atoi(line.substr(3, 2).c_str());
    pcms.push_back("hw:" + std::to_string(card) + "," + std::to_string(device));
  }
  return pcms;
}

std::vector<std::string> CaptureHardware::microphoneDevices() const {
  std::ifstream in(procRoot_ + "/asound/pcm");
  if (!in) return {};
  std::stringstream text;
  text << in.rdbuf();
  return capturePcmsFromProcText(text.str());
}

bool CaptureHardware::hasCamera() const { return !cameraDevices().empty(); }

bool CaptureHardware::hasMicrophone() const { return !microphoneDevices().empty(); }

bool CaptureHardware::cameraPermission() const {
  for (const auto& device : cameraDevices()) {
    if (::access(device.c_str(), R_OK | W_OK) == 0) return true;
  }
  return false;
}

bool CaptureHardware::microphonePermission() const {
  for (const auto& pcm : microphoneDevices()) {
    // "hw:C,D" → /dev/snd/pcmCcDdc
    auto comma = pcm.find(',');
    std::string node =
        devRoot_ + "/snd/pcmC" + pcm.substr(3, comma - 3) + "D" + pcm.substr(comma + 1) + "c";
    if (::access(node.c_str(), R_OK | W_OK) == 0) return true;
  }
  return false;
}

std::string CaptureHardware::picturesDirectory() {
  if (const char* xdg = std::getenv("XDG_PICTURES_DIR"); xdg && *xdg) return xdg;
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/Pictures";
}

bool CaptureHardware::pictureLibraryPermission() const {
  const std::string dir = picturesDirectory();
  return ::access(dir.c_str(), R_OK | W_OK | X_OK) == 0;
}

}  // namespace nembra
