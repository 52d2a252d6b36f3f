#include "recorder/image_recorder.h"

#include <filesystem>
#include <fstream>

#include "api/upload_url_reply.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/reply_status.h"
#include "platform/files/file_system.h"
#include "platform/media/media_backend.h"

namespace nembra {

namespace {

// The JPEG of |frame| written to "image.jpg" in the documents directory.
ImageRecorderResult writeJpeg(RawFrameReader& codec, const VideoFrame& frame, int quality) {
  ImageRecorderResult result;
  result.width = frame.width;
  result.height = frame.height;
  std::vector<uint8_t> jpeg;
  result.error = codec.encodeJpeg(frame, quality, jpeg);
  if (result.error) return result;
  OptionalError directoryError;
  const std::string documents = FileSystem::shared().documentsDirectory(&directoryError);
  if (directoryError) {
    result.error = directoryError;
    return result;
  }
  result.path = documents + "/image.jpg";
  std::error_code ignored;
  std::filesystem::remove(result.path, ignored);  // an older picture of that name goes first
  std::ofstream out(result.path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(jpeg.data()), static_cast<std::streamsize>(jpeg.size()));
  out.close();
  if (!out) result.error = Error::file("can't write " + result.path);
  return result;
}

}  // namespace

ImageRecorder::ImageRecorder(Nembra& application)
    : application_(application), codec_(MediaBackend::shared().makeRawFrameReader()) {}

void ImageRecorder::encodeLater(SharedVideoFrame frame) {
  std::weak_ptr<ImageRecorder> weak = weak_from_this();
  MainQueue& main = application_.mainQueue();
  queue_.async([weak, frame, codec = codec_, &main] {
    ImageRecorderResult result = writeJpeg(*codec, *frame, kJpegQuality);
    main.async([weak, result] {
      if (auto self = weak.lock()) self->upload(result);
    });
  });
}

void ImageRecorder::onVideoFrame(const SharedVideoFrame& frame) {
  bool take = false;
  {
    std::lock_guard lock(mutex_);
    latest_ = frame;
    take = waiting_;
    waiting_ = false;
  }
  if (take) encodeLater(frame);
}

bool ImageRecorder::takePicture(Callbacks callbacks) {
  if (busy_) return false;
  busy_ = true;
  callbacks_ = std::move(callbacks);
  SharedVideoFrame frame;
  {
    std::lock_guard lock(mutex_);
    frame = latest_;
    waiting_ = !frame;
  }
  if (frame) encodeLater(frame);
  return true;
}

void ImageRecorder::upload(ImageRecorderResult result) {
  if (result.error) {
    finish(result, false);
    return;
  }
  application_.log("image " + result.path + " captured");
  std::weak_ptr<ImageRecorder> weak = weak_from_this();
  application_.uploadingHandler().uploadWithType(
      IMAGE, result.path, application_.uploadingConfig().getExtraArgs(),
      [weak, result](const std::optional<Json>& json, const HttpResponse& response,
                     const OptionalError& error) mutable {
        auto self = weak.lock();
        if (!self) return;
        result.error = error ? error : ReplyStatus::check("the upload URL request", response, json);
        UploadUrlReply reply;
        if (!result.error) result.error = UploadUrlReply::parse(IMAGE, json, reply);
        if (result.error) {
          self->finish(result, true);
        } else {
          self->token_ = reply.mediaToken;
        }
      },
      {},
      [weak, result](const std::optional<Json>& json, const HttpResponse& response,
                     const OptionalError& error) mutable {
        auto self = weak.lock();
        if (!self) return;
        result.error = error ? error : ReplyStatus::check("the confirm request", response, json);
        result.token = self->token_;
        self->finish(result, true);
      });
  if (callbacks_.captured) callbacks_.captured(result);
}

void ImageRecorder::finish(ImageRecorderResult result, bool uploaded) {
  busy_ = false;
  Callbacks callbacks = std::move(callbacks_);
  callbacks_ = {};
  if (!uploaded) {
    if (callbacks.captured) callbacks.captured(result);
    return;
  }
  if (callbacks.uploaded) callbacks.uploaded(result);
}

}  // namespace nembra
