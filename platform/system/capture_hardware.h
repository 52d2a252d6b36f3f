// Which capture hardware the machine has and whether this process may use it. On Linux a camera
// is a V4L2 node that can capture, a microphone an ALSA capture PCM; "permission" is the
// process's read/write access to those nodes (group video/audio membership), and the picture
// library's is access to the user's pictures directory.
#pragma once

#include <string>
#include <vector>

namespace nembra {

class CaptureHardware {
 public:
  // |devRoot| and |procRoot| let tests point at a fake tree; the defaults are the real ones.
  explicit CaptureHardware(std::string devRoot = "/dev", std::string procRoot = "/proc");

  std::vector<std::string> cameraDevices() const;      // /dev/videoN that capture video
  std::vector<std::string> microphoneDevices() const;  // "hw:C,D" of each capture PCM

  bool hasCamera() const;
  bool hasMicrophone() const;
  bool cameraPermission() const;
  bool microphonePermission() const;
  bool pictureLibraryPermission() const;

  // Parses /proc/asound/pcm text: "00-00: ALC … : playback 1 : capture 1" lines.
  static std::vector<std::string> capturePcmsFromProcText(const std::string& text);
  // $XDG_PICTURES_DIR, else ~/Pictures.
  static std::string picturesDirectory();

 private:
  bool isCaptureNode(const std::string& path) const;

  std::string devRoot_;
  std::string procRoot_;
};

}  // namespace nembra
