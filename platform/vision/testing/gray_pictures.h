// Real pictures for the scanners' tests: files decoded to grey with the media plug-in, and QR
// codes made by the qrencode program. Header-only, for tests.
#pragma once

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "platform/media/media_backend.h"
#include "platform/system/child_process.h"
#include "platform/vision/gray_image.h"

namespace nembra::testing {

// Where Debian's opencv-doc keeps a photograph of a footballer, face to the camera.
inline constexpr const char* kFacePhotograph = "/usr/share/doc/opencv-doc/examples/data/messi5.jpg";
// A still life with no face in it, from the same package.
inline constexpr const char* kNoFacePhotograph =
    "/usr/share/doc/opencv-doc/examples/data/fruits.jpg";

struct GrayPicture {
  std::vector<uint8_t> pixels;
  int width = 0;
  int height = 0;
  GrayImageView view() const { return {pixels.data(), width, height, width}; }
};

// BT.601 luma of a decoded file; empty when it can't be read.
inline GrayPicture grayFromFile(const std::string& path) {
  GrayPicture gray;
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
  Picture picture;
  if (bytes.empty() ||
      MediaBackend::shared().makeImageCodec()->decodePicture(bytes, PictureLimits{}, picture) ||
      picture.frames.empty()) {
    return gray;
  }
  gray.width = picture.width;
  gray.height = picture.height;
  const std::vector<uint8_t>& rgba = picture.frames.front().rgba;
  gray.pixels.resize(static_cast<size_t>(gray.width) * gray.height);
  for (size_t i = 0; i < gray.pixels.size(); ++i) {
    gray.pixels[i] = static_cast<uint8_t>(
        (299 * rgba[i * 4] + 587 * rgba[i * 4 + 1] + 114 * rgba[i * 4 + 2]) / 1000);
  }
  return gray;
}

inline bool haveQrencode() { return ::access("/usr/bin/qrencode", X_OK) == 0; }

// A PNG of |text| as a QR code (|moduleSize| pixels a module) at |path|; false on failure.
inline bool makeQrPng(const std::string& path, const std::string& text, int moduleSize = 6) {
  ChildProcessOptions options;
  options.argv = {"qrencode", "-o", path, "-s", std::to_string(moduleSize), "-m", "4", text};
  std::unique_ptr<ChildProcess> process;
  if (ChildProcess::start(options, process)) return false;
  auto code = process->wait(std::chrono::seconds(20));
  return code && *code == 0;
}

}  // namespace nembra::testing
