// Finds frontal faces in a grey picture.
//
// Threading: one caller at a time per detector; detection is slow (tens of milliseconds), so
// callers run it off their capture thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "platform/vision/gray_image.h"

namespace nembra {

struct FaceBox {
  double x = 0;  // in pixels of the picture given
  double y = 0;
  double width = 0;
  double height = 0;
};

class FaceDetector {
 public:
  virtual ~FaceDetector() = default;
  virtual std::vector<FaceBox> detect(const GrayImageView& image) = 0;
};

// OpenCV's Haar cascade for frontal faces, from |cascadePath| or, when empty, from the
// system's OpenCV data. Null, with |error| set, when the cascade can't be loaded.
std::unique_ptr<FaceDetector> makeFaceDetector(OptionalError& error,
                                               const std::string& cascadePath = "");

}  // namespace nembra
