// Reads QR codes from a grey picture.
//
// Threading: one caller at a time per decoder.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/vision/gray_image.h"

namespace nembra {

class QrDecoder {
 public:
  virtual ~QrDecoder() = default;
  // The text of every QR code found, in the order the scanner met them.
  virtual std::vector<std::string> decode(const GrayImageView& image) = 0;
};

// zbar's scanner, set to QR codes only.
std::unique_ptr<QrDecoder> makeQrDecoder();

}  // namespace nembra
