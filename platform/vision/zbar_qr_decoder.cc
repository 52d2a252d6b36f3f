#include <zbar.h>

#include <algorithm>

#include "platform/vision/qr_decoder.h"

namespace nembra {
namespace {

class ZbarQrDecoder final : public QrDecoder {
 public:
  ZbarQrDecoder() {
    scanner_.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_ENABLE, 0);
    scanner_.set_config(zbar::ZBAR_QRCODE, zbar::ZBAR_CFG_ENABLE, 1);
  }

  std::vector<std::string> decode(const GrayImageView& image) override {
    std::vector<std::string> texts;
    if (!image.pixels || image.width <= 0 || image.height <= 0) return texts;
    // zbar wants packed rows.
    const uint8_t* rows = image.pixels;
    if (image.stride != image.width) {
      packed_.resize(static_cast<size_t>(image.width) * image.height);
      for (int row = 0; row < image.height; ++row) {
        std::copy_n(image.pixels + static_cast<size_t>(row) * image.stride, image.width,
                    packed_.data() + static_cast<size_t>(row) * image.width);
      }
      rows = packed_.data();
    }
    zbar::Image picture(image.width, image.height, "Y800", rows,
                        static_cast<unsigned long>(image.width) * image.height);
    if (scanner_.scan(picture) <= 0) return texts;
    for (auto symbol = picture.symbol_begin(); symbol != picture.symbol_end(); ++symbol) {
      if (symbol->get_type() == zbar::ZBAR_QRCODE) texts.push_back(symbol->get_data());
    }
    picture.set_data(nullptr, 0);  // the pixels are borrowed
    return texts;
  }

 private:
  zbar::ImageScanner scanner_;
  std::vector<uint8_t> packed_;
};

}  // namespace

std::unique_ptr<QrDecoder> makeQrDecoder() { return std::make_unique<ZbarQrDecoder>(); }

}  // namespace nembra
