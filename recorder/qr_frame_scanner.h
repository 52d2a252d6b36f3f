// Reads QR codes from the camera's pictures without holding up the camera: at most ten pictures
// a second (by their timestamps) are decoded, on the serial queue "com.nembra.qr-scanner"; a
// picture that arrives while the last one is still being decoded is skipped. Every text found
// goes to |found|.
//
// Threading: onVideoFrame on the feed's thread; |found| on the scanner's queue. The destructor
// waits for a decode under way.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch/serial_queue.h"
#include "platform/vision/qr_decoder.h"
#include "recorder/camera_feed.h"

namespace nembra {

class QrFrameScanner final : public CaptureFrameObserver {
 public:
  static constexpr double kMinimumInterval = 0.1;
  using Found = std::function<void(const std::string& text)>;

  QrFrameScanner(std::unique_ptr<QrDecoder> decoder, Found found);
  ~QrFrameScanner() override;

  void onVideoFrame(const SharedVideoFrame& frame) override;

 private:
  std::unique_ptr<QrDecoder> decoder_;  // scanner queue only
  Found found_;
  double nextScanAt_ = -1e300;  // feed thread only
  std::atomic<bool> busy_{false};
  SerialQueue queue_{"com.nembra.qr-scanner"};  // last: drained before the rest goes
};

}  // namespace nembra
