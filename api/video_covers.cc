#include "api/video_covers.h"

#include "api/media_token.h"
#include "api/media_urls.h"
#include "api/percent_encoding.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_connect.h"

namespace nembra {

VideoCovers::VideoCovers(Nembra& application, std::unique_ptr<FrameGrabber> grabber,
                         std::unique_ptr<ImageCodec> codec)
    : application_(application), grabber_(std::move(grabber)), codec_(std::move(codec)) {}

VideoCovers::~VideoCovers() { *alive_ = false; }

void VideoCovers::onMain(std::function<void()> task) {
  std::weak_ptr<bool> alive = alive_;
  application_.mainQueue().async([alive, task = std::move(task)] {
    if (alive.lock()) task();
  });
}

FrameGrabber& VideoCovers::frameGrabber() {
  if (!grabber_) grabber_ = makeFrameGrabber();
  return *grabber_;
}

ImageCodec& VideoCovers::imageCodec() {
  if (!codec_) codec_ = makeImageCodec();
  return *codec_;
}

VideoCovers::TaskHandle VideoCovers::fetch(const std::string& token, const Json& data,
                                           ThumbnailCache& cache, ImageCallback callback) {
  if (auto image = cache.objectForKey(token)) {
    if (callback) callback(image, HttpResponse{}, std::nullopt);
    return nullptr;
  }
  if (auto error = MediaToken::check(token, "video token")) {
    onMain([callback, error] {
      if (callback) callback(nullptr, HttpResponse{}, error);
    });
    return nullptr;
  }
  std::weak_ptr<bool> alive = alive_;
  MainQueue& main = application_.mainQueue();
  ImageCodec* codec = &imageCodec();
  return application_.connect().getWithPath(
      MediaUrls::of(application_).apiUrl(VIDEO, "/" + percentEncodePathSegment(token) + "/image"),
      data,
      [alive, &main, &cache, codec, token, callback](const std::vector<uint8_t>& body,
                                                     const HttpResponse& response,
                                                     const OptionalError& transportError) {
        OptionalError error = transportError;
        StillImagePtr image;
        if (!error) {
          // Decoded here, off the main queue; the codec keeps no state. Whatever the status,
          // only a picture is taken.
          ImageInfo info;
          error = codec->inspect(body, info);
          if (error) {
            error->message = "the cover of video " + token + " is not a picture: " + error->message;
          } else {
            image = std::make_shared<StillImage>(
                StillImage{body, info.format, info.width, info.height});
          }
        }
        main.async([alive, &cache, token, image, response, error, callback] {
          if (!alive.lock()) return;
          if (image) cache.setObject(image, token);
          if (callback) callback(image, response, error);
        });
      });
}

void VideoCovers::grab(const std::string& path, ThumbnailCache& cache,
                       LocalImageCallback callback) {
  if (auto image = cache.objectForKey(path)) {
    if (callback) callback(image, std::nullopt);
    return;
  }
  FrameGrabber* grabber = &frameGrabber();
  background_.async([this, &cache, grabber, path, callback] {
    FrameGrabOptions options;
    options.atSeconds = 0;
    options.maxWidth = 1920;
    options.maxHeight = 1080;
    options.applyRotation = true;
    GrabbedFrame frame;
    OptionalError error = grabber->grab(path, options, frame);
    StillImagePtr image;
    if (!error) {
      image = std::make_shared<StillImage>(
          StillImage{std::move(frame.jpeg), "jpeg", frame.width, frame.height});
    }
    onMain([&cache, path, image, error, callback] {
      if (image) cache.setObject(image, path);
      if (callback) callback(image, error);
    });
  });
}

}  // namespace nembra
