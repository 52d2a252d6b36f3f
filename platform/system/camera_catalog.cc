#include "platform/system/camera_catalog.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace nembra {
namespace {

std::string fourcc(uint32_t code) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>((code >> (8 * i)) & 0xff);
    if (c != ' ' && c != '\0') text += c;
  }
  return text;
}

int xioctl(int fd, unsigned long request, void* argument) {
  int rc;
  do {
    rc = ::ioctl(fd, request, argument);
  } while (rc < 0 && errno == EINTR);
  return rc;
}

bool captures(int fd, std::string* card) {
  v4l2_capability capability{};
  if (xioctl(fd, VIDIOC_QUERYCAP, &capability) < 0) return false;
  const uint32_t caps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) ? capability.device_caps
                                                                         : capability.capabilities;
  if (card) card->assign(reinterpret_cast<const char*>(capability.card));
  return (caps & V4L2_CAP_VIDEO_CAPTURE) != 0;
}

std::vector<std::string> sizesOf(int fd, uint32_t pixelFormat) {
  std::vector<std::string> sizes;
  v4l2_frmsizeenum size{};
  size.pixel_format = pixelFormat;
  for (size.index = 0; xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
    if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
      sizes.push_back(std::to_string(size.discrete.width) + "x" +
                      std::to_string(size.discrete.height));
    } else {
      sizes.push_back(std::to_string(size.stepwise.min_width) + "x" +
                      std::to_string(size.stepwise.min_height) + "-" +
                      std::to_string(size.stepwise.max_width) + "x" +
                      std::to_string(size.stepwise.max_height));
      break;  // one range describes them all
    }
  }
  return sizes;
}

// The number in "videoN", for ordering video10 after video9.
int nodeNumber(const std::string& path) {
  const std::string name = std::filesystem::path(path).filename().string();
  return std::atoi(name.c_str() + 5);
}

}  // namespace

CameraCatalog::CameraCatalog(std::string devRoot) : devRoot_(std::move(devRoot)) {}

std::vector<std::string> CameraCatalog::captureNodes() const {
  std::vector<std::string> nodes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(devRoot_, error)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("video", 0) != 0 || name.size() == 5) continue;
    if (!std::all_of(name.begin() + 5, name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      continue;
    }
    const int fd = ::open(entry.path().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      // A node we may not open still counts: choosing it explains why it can't be used.
      if (errno == EACCES || errno == EPERM) nodes.push_back(entry.path().string());
      continue;
    }
    if (captures(fd, nullptr)) nodes.push_back(entry.path().string());
    ::close(fd);
  }
  std::sort(nodes.begin(), nodes.end(), [](const std::string& a, const std::string& b) {
    return nodeNumber(a) < nodeNumber(b);
  });
  return nodes;
}

std::vector<CameraDescription> CameraCatalog::cameras() const {
  std::vector<CameraDescription> cameras;
  for (const std::string& node : captureNodes()) {
    CameraDescription camera;
    camera.device = node;
    const int fd = ::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      camera.name = std::string("(") + std::strerror(errno) + ")";
      cameras.push_back(std::move(camera));
      continue;
    }
    captures(fd, &camera.name);
    v4l2_fmtdesc format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (format.index = 0; xioctl(fd, VIDIOC_ENUM_FMT, &format) == 0; ++format.index) {
      camera.formats.push_back({fourcc(format.pixelformat),
                                reinterpret_cast<const char*>(format.description),
                                sizesOf(fd, format.pixelformat)});
    }
    ::close(fd);
    cameras.push_back(std::move(camera));
  }
  CameraDescription virtualCamera;
  virtualCamera.device = kVirtualCamera;
  virtualCamera.name = "FFmpeg test pictures (back: testsrc2, front: smptehdbars)";
  virtualCamera.isVirtual = true;
  virtualCamera.formats.push_back({"I420", "planar YUV 4:2:0", {"any size"}});
  cameras.push_back(std::move(virtualCamera));
  return cameras;
}

std::string CameraCatalog::virtualCameraGraph(CameraPosition position, int width, int height,
                                              int fps) {
  if (width <= 0 || height <= 0) {
    width = 1280;
    height = 720;
  }
  if (fps <= 0) fps = 30;
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  // Two patterns that look nothing alike, so a camera switch shows; "realtime" paces the graph
  // as a camera would deliver.
  const std::string source = position == CameraPosition::Back ? "testsrc2" : "smptehdbars";
  return source + "=size=" + size + ":rate=" + std::to_string(fps) + ",realtime";
}

OptionalError CameraCatalog::checkNode(const std::string& path) const {
  if (::access(path.c_str(), F_OK) != 0) return Error::file("no camera at " + path, ENOENT);
  const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    const int code = errno;
    if (code == EACCES || code == EPERM) {
      return Error::file("permission denied on " + path +
                             ": add this user to the group that owns it (usually \"video\")",
                         code);
    }
    return Error::file("can't open " + path + ": " + std::strerror(code), code);
  }
  const bool isCamera = captures(fd, nullptr);
  ::close(fd);
  if (!isCamera) return Error::media(path + " is not a camera (it does not capture video)");
  return std::nullopt;
}

std::optional<CameraChoice> CameraCatalog::choose(const std::string& spec, CameraPosition position,
                                                  int width, int height, int fps,
                                                  OptionalError& error) const {
  if (spec == kVirtualCamera) {
    return CameraChoice{true, virtualCameraGraph(position, width, height, fps)};
  }
  if (spec.rfind("lavfi:", 0) == 0) {
    if (spec.size() == 6) {
      error = Error::invalidArgument("\"lavfi:\" needs a filter graph after the colon");
      return std::nullopt;
    }
    return CameraChoice{true, spec.substr(6)};
  }
  if (spec.empty()) {
    const std::vector<std::string> nodes = captureNodes();
    const size_t index = position == CameraPosition::Back ? 0 : 1;
    if (nodes.size() <= index) {
      error = Error::file(nodes.empty() ? "no camera found (no V4L2 capture device in " + devRoot_ +
                                              "); use --camera lavfi for the virtual camera"
                                        : "no front camera found (only " + nodes.front() + ")",
                          ENODEV);
      return std::nullopt;
    }
    if ((error = checkNode(nodes[index]))) return std::nullopt;
    return CameraChoice{false, nodes[index]};
  }
  if ((error = checkNode(spec))) return std::nullopt;
  return CameraChoice{false, spec};
}

}  // namespace nembra
