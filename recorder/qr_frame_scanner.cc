#include "recorder/qr_frame_scanner.h"

namespace nembra {

QrFrameScanner::QrFrameScanner(std::unique_ptr<QrDecoder> decoder, Found found)
    : decoder_(std::move(decoder)), found_(std::move(found)) {}

QrFrameScanner::~QrFrameScanner() {
  queue_.sync([] {});
}

void QrFrameScanner::onVideoFrame(const SharedVideoFrame& frame) {
  if (frame->pts < nextScanAt_ || frame->width <= 0 || frame->height <= 0) return;
  if (busy_.exchange(true)) return;
  nextScanAt_ = frame->pts + kMinimumInterval;
  // The frame is shared read-only, so the queue reads its luma in place.
  queue_.async([this, frame] {
    const auto texts =
        decoder_->decode({frame->planes[0].data(), frame->width, frame->height, frame->strides[0]});
    for (const std::string& text : texts) found_(text);
    busy_ = false;
  });
}

}  // namespace nembra
