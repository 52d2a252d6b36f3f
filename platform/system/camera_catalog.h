// The cameras a recorder may use: each V4L2 node that captures video, with the pixel formats and
// frame sizes it offers, and the virtual camera "lavfi" (FFmpeg test pictures) for machines
// without one. The first camera found is the back camera, the second the front one.
//
// Threading: a plain object; any thread. Listing opens each node briefly.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "nembra/error.h"

namespace nembra {

enum class CameraPosition { Back, Front };

struct CameraFormat {
  std::string pixelFormat;  // the V4L2 four-character code ("YUYV", "MJPG")
  std::string description;  // the driver's text
  // Discrete sizes as "WxH"; a stepwise range as "WxH-WxH".
  std::vector<std::string> sizes;
};

struct CameraDescription {
  std::string device;  // "/dev/video0", or "lavfi"
  std::string name;    // the driver's card name
  std::vector<CameraFormat> formats;
  bool isVirtual = false;
};

// A camera chosen for capture, ready for MediaBackend::openVideoCapture.
struct CameraChoice {
  bool isVirtual = false;
  std::string device;  // a node, or the lavfi graph for a virtual camera
};

class CameraCatalog {
 public:
  static constexpr const char* kVirtualCamera = "lavfi";

  // |devRoot| lets tests point at a tree of their own.
  explicit CameraCatalog(std::string devRoot = "/dev");

  // Every V4L2 capture node, in node order, then the virtual camera.
  std::vector<CameraDescription> cameras() const;

  // Which camera |spec| means at |position|: "" the first (back) or second (front) real camera,
  // "lavfi" the virtual camera's pattern for that position, "lavfi:GRAPH" a graph of the caller's,
  // or a node path. Errors name the node: missing, no permission (and how to get it), not a
  // camera.
  std::optional<CameraChoice> choose(const std::string& spec, CameraPosition position, int width,
                                     int height, int fps, OptionalError& error) const;

  // The virtual camera's graph: distinct test pictures for the back and the front camera,
  // delivered in real time like a camera's.
  static std::string virtualCameraGraph(CameraPosition position, int width, int height, int fps);

 private:
  std::vector<std::string> captureNodes() const;
  OptionalError checkNode(const std::string& path) const;

  std::string devRoot_;
};

}  // namespace nembra
