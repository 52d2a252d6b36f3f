// The still-image recorder's work, without a screen: it watches a camera feed, and on
// takePicture encodes the next picture (or the one on screen) as a JPEG, writes it to
// "image.jpg" in the documents directory (replacing an older one) and uploads it with the
// upload handler as an image, with the uploading configuration's extraArgs as its data. The
// uploading delegate hears of the upload as of any other.
//
// Threading: construct, takePicture and the completion on the main queue; onVideoFrame on the
// feed's thread; encoding on the serial queue "com.nembra.image-recorder". Held by shared_ptr.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "nembra/error.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/media/raw_frame_reader.h"
#include "recorder/camera_feed.h"

namespace nembra {

class Nembra;

struct ImageRecorderResult {
  std::string path;   // the JPEG uploaded
  std::string token;  // the image's, once the service has given one
  int width = 0;
  int height = 0;
  OptionalError error;  // the picture, the file, the upload-URL request or the confirm failed
};

class ImageRecorder final : public CaptureFrameObserver,
                            public std::enable_shared_from_this<ImageRecorder> {
 public:
  // Called twice at most: |captured| once the JPEG is written and its upload started (or with
  // the error that stopped it), |uploaded| once the service confirmed it (or refused it).
  struct Callbacks {
    std::function<void(const ImageRecorderResult&)> captured;
    std::function<void(const ImageRecorderResult&)> uploaded;
  };

  static constexpr int kJpegQuality = 3;

  explicit ImageRecorder(Nembra& application);

  void onVideoFrame(const SharedVideoFrame& frame) override;

  // Takes the latest picture, or the next one when none has come yet. A second call while one
  // runs does nothing and returns false.
  bool takePicture(Callbacks callbacks);
  bool busy() const { return busy_; }

 private:
  // Posts the encoding of |frame|; the queue holds the recorder only weakly, so that it is never
  // destroyed on its own queue.
  void encodeLater(SharedVideoFrame frame);
  void upload(ImageRecorderResult result);
  void finish(ImageRecorderResult result, bool uploaded);

  std::string token_;  // main queue: the image token of the upload under way

  Nembra& application_;
  std::mutex mutex_;
  SharedVideoFrame latest_;                // guarded by mutex_
  bool waiting_ = false;                   // guarded by mutex_: take the next picture that comes
  bool busy_ = false;                      // main queue
  Callbacks callbacks_;                    // main queue
  std::shared_ptr<RawFrameReader> codec_;  // used on the encoder queue only
  SerialQueue queue_{"com.nembra.image-recorder"};  // last: drained before the rest goes
};

}  // namespace nembra
