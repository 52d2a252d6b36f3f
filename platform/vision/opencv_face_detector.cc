#include <filesystem>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include "platform/vision/face_detector.h"

namespace nembra {
namespace {

constexpr const char* kCascadeName = "haarcascade_frontalface_default.xml";
constexpr const char* kCascadeFolders[] = {"/usr/share/opencv4/haarcascades",
                                           "/usr/local/share/opencv4/haarcascades",
                                           "/usr/share/opencv/haarcascades"};

class OpencvFaceDetector final : public FaceDetector {
 public:
  explicit OpencvFaceDetector(cv::CascadeClassifier cascade) : cascade_(std::move(cascade)) {}

  std::vector<FaceBox> detect(const GrayImageView& image) override {
    std::vector<FaceBox> boxes;
    if (!image.pixels || image.width <= 0 || image.height <= 0) return boxes;
    const cv::Mat gray(image.height, image.width, CV_8UC1, const_cast<uint8_t*>(image.pixels),
                       static_cast<size_t>(image.stride));
    std::vector<cv::Rect> faces;
    // A face smaller than a tenth of the picture's short side is noise at preview sizes.
    const int smallest = std::max(24, std::min(image.width, image.height) / 10);
    cascade_.detectMultiScale(gray, faces, 1.1, 5, 0, cv::Size(smallest, smallest));
    for (const cv::Rect& face : faces) {
      boxes.push_back({static_cast<double>(face.x), static_cast<double>(face.y),
                       static_cast<double>(face.width), static_cast<double>(face.height)});
    }
    return boxes;
  }

 private:
  cv::CascadeClassifier cascade_;
};

}  // namespace

std::unique_ptr<FaceDetector> makeFaceDetector(OptionalError& error,
                                               const std::string& cascadePath) {
  std::string path = cascadePath;
  if (path.empty()) {
    for (const char* folder : kCascadeFolders) {
      const std::filesystem::path candidate = std::filesystem::path(folder) / kCascadeName;
      if (std::filesystem::exists(candidate)) {
        path = candidate.string();
        break;
      }
    }
    if (path.empty()) {
      error = Error::file(std::string("no face cascade found (") + kCascadeName +
                          "; install opencv-data)");
      return nullptr;
    }
  }
  // Detection runs on the caller's queue alone: OpenCV's own worker threads would be unnamed
  // and would compete with capture and encoding for the cores.
  cv::setNumThreads(0);
  cv::CascadeClassifier cascade;
  try {
    if (!cascade.load(path)) {
      error = Error::file("can't load the face cascade " + path);
      return nullptr;
    }
  } catch (const cv::Exception& exception) {
    error = Error::file("can't load the face cascade " + path + ": " + exception.what());
    return nullptr;
  }
  return std::make_unique<OpencvFaceDetector>(std::move(cascade));
}

}  // namespace nembra
