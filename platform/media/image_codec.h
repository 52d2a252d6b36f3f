// Reads and re-encodes still images held in memory (JPEG, PNG, BMP, GIF, WebP, TIFF): what a
// downloaded cover is, and the JPEG form of a cover picked by the user.
//
// Threading: a codec keeps no state between calls; any thread may call it, several at once.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "platform/media/picture.h"

namespace nembra {

struct ImageInfo {
  std::string format;  // "jpeg", "png", "bmp", "gif", "webp", "tiff"
  int width = 0;
  int height = 0;
};

class ImageCodec {
 public:
  virtual ~ImageCodec() = default;
  // Decodes |bytes| fully, so a truncated or damaged picture is refused. An Error of kind Media
  // when the bytes are no picture of a known format or do not decode.
  virtual OptionalError inspect(std::span<const uint8_t> bytes, ImageInfo& info) = 0;
  // |bytes| as a JPEG: a JPEG is returned as it is (re-encoding could only lose detail),
  // anything else is decoded and encoded at |quality|, 2 (best) to 31.
  virtual OptionalError encodeJpeg(std::span<const uint8_t> bytes, int quality,
                                   std::vector<uint8_t>& jpeg) = 0;
  // Decodes |bytes| (JPEG, PNG, GIF with all its frames, WebP, BMP, TIFF) to RGBA within
  // |limits|. A JPEG larger than the limits is decoded at a reduced size straight away, so a huge
  // picture costs memory only for what is shown. Errors of kind Media name the format and
  // the reason: unknown bytes, truncated or damaged data, a source too large to decode.
  virtual OptionalError decodePicture(std::span<const uint8_t> bytes, const PictureLimits& limits,
                                      Picture& picture) = 0;
};

// The media plug-in's codec.
std::unique_ptr<ImageCodec> makeImageCodec();

}  // namespace nembra
