#include "nembra/nembra_videos.h"

#include <filesystem>

#include "api/media_token.h"
#include "api/media_urls.h"
#include "api/percent_encoding.h"
#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/files/directory_watcher.h"
#include "platform/media/image_codec.h"

namespace nembra {

namespace {

constexpr const char* kNull = "(null)";

std::string errorText(const OptionalError& error) { return error ? error->message : kNull; }

std::string jsonText(const std::optional<Json>& json) {
  return json ? json->dump(-1, ' ', false, Json::error_handler_t::replace) : kNull;
}

// The "token" of the object under |key|.
std::string tokenAt(const std::optional<Json>& json, const char* key) {
  if (!json || !json->is_object()) return "";
  auto object = Utils::getDictionaryFromJson(*json, key);
  return object ? Utils::getStringFromJson(*object, "token") : "";
}

NembraVideos::JsonCallback videoOnMain(MainQueue& main, NembraVideos::VideoCallback callback) {
  return [&main, callback = std::move(callback)](const std::optional<Json>& json,
                                                 const HttpResponse& response,
                                                 const OptionalError& error) {
    main.async([callback, json, response, error] {
      Video video = Video::initWithJson(json && json->is_object() ? *json : Json::object());
      if (callback) callback(video, response, error);
    });
  };
}

}  // namespace

NembraVideos::NembraVideos(Nembra& application)
    : application_(application),
      operationQueue_(std::make_unique<SerialQueue>("com.nembra.videos")) {}

NembraVideos::~NembraVideos() { *alive_ = false; }

std::string NembraVideos::baseUrl(const std::string& path) {
  return MediaUrls::of(application_).apiUrl(VIDEO, path);
}

void NembraVideos::tellDelegate(std::function<void(NembraUploadingDelegate&)> call) {
  std::weak_ptr<bool> alive = alive_;
  Nembra* application = &application_;
  application_.mainQueue().async([alive, application, call = std::move(call)] {
    if (!alive.lock()) return;
    if (auto delegate = application->getUploadingDelegate()) call(*delegate);
  });
}

NembraVideos::TaskHandle NembraVideos::index(const Json& data, VideosCallback callback) {
  MainQueue* main = &application_.mainQueue();
  return application_.uploadingHandler().indexWithType(
      VIDEO, data,
      JsonCallback([main, callback](const std::optional<Json>& json, const HttpResponse& response,
                                    const OptionalError& error) {
        main->async([callback, json, response, error] {
          std::vector<Video> videos;
          if (json && json->is_array()) {
            for (const Json& element : *json) videos.push_back(Video::initWithJson(element));
          }
          if (callback) callback(videos, response, error);
        });
      }));
}

NembraVideos::TaskHandle NembraVideos::index(const Json& data, StringCallback stringCallback) {
  MainQueue* main = &application_.mainQueue();
  return application_.uploadingHandler().indexWithType(
      VIDEO, data,
      StringCallback([main, stringCallback](const std::optional<std::string>& text,
                                            const HttpResponse& response,
                                            const OptionalError& error) {
        main->async([stringCallback, text, response, error] {
          if (stringCallback) stringCallback(text, response, error);
        });
      }));
}

NembraVideos::TaskHandle NembraVideos::get(const std::string& token, const Json& data,
                                           VideoCallback callback) {
  return application_.uploadingHandler().getWithType(
      VIDEO, token, data, videoOnMain(application_.mainQueue(), std::move(callback)));
}

void NembraVideos::download(const std::string& token, DownloadCallback callback) {
  application_.uploadingHandler().downloadWithType(VIDEO, token, std::move(callback));
}

std::string NembraVideos::getVideoUrl(const std::string& token) {
  return MediaUrls::of(application_).mediaUrl(VIDEO, token);
}

std::string NembraVideos::getImageUrl(const std::string& token) {
  return MediaUrls::of(application_).videoCoverUrl(token);
}

NembraVideos::TaskHandle NembraVideos::update(const std::string& token, const Json& data,
                                              VideoCallback callback) {
  return application_.uploadingHandler().updateWithType(
      VIDEO, token, std::string(), data,
      videoOnMain(application_.mainQueue(), std::move(callback)));
}

NembraVideos::TaskHandle NembraVideos::update(const Video& video, VideoCallback callback) {
  return update(video.token, video.toDictionary(), std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::destroy(const std::string& token,
                                               const std::string& streamToken,
                                               JsonCallback callback) {
  // The empty stream token names the video itself.
  return application_.uploadingHandler().deleteWithType(VIDEO, token, streamToken,
                                                        std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::createEmptyVideoWithData(const Json& data,
                                                                JsonCallback callback) {
  return application_.connect().postJsonWithPath(baseUrl("?create_stream=true"), data,
                                                 std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::createLiveVideoWithData(const Json& data,
                                                               JsonCallback callback) {
  return application_.connect().postJsonWithPath(baseUrl("?flash_recording=true"), data,
                                                 std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::createStreamWithVideoToken(const std::string& token,
                                                                  const Json& data,
                                                                  JsonCallback callback) {
  application_.log("creating stream for video " + token);
  return application_.connect().postJsonWithPath(
      baseUrl("/" + percentEncodePathSegment(token) + "/streams?create_stream=true"), data,
      std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::recorderSubmitWithVideoToken(const std::string& token,
                                                                    const std::string& streamToken,
                                                                    const Json& data,
                                                                    JsonCallback callback) {
  return application_.connect().postJsonWithPath(
      baseUrl("/" + percentEncodePathSegment(token) + "/streams/" +
              percentEncodePathSegment(streamToken) + "/recordersubmit"),
      data, std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::attachCoverWithVideoToken(const std::string& token,
                                                                 const std::string& streamToken,
                                                                 const StillImage& cover,
                                                                 const Json& data,
                                                                 VideoCallback callback) {
  JsonCallback answer = videoOnMain(application_.mainQueue(), std::move(callback));
  std::vector<uint8_t> jpeg;
  // The best JPEG quality: the service makes every smaller size from this one.
  if (auto error = makeImageCodec()->encodeJpeg(cover.data, 2, jpeg)) {
    error->message = "the cover of video " + token + " cannot be sent: " + error->message;
    answer(std::nullopt, HttpResponse{}, error);
    return nullptr;
  }
  Nembra* application = &application_;
  return application_.connect().postRawDataWithPath(
      baseUrl("/" + percentEncodePathSegment(token) + "/streams/" +
              percentEncodePathSegment(streamToken) + "/imageattach"),
      jpeg, data,
      [application, token, streamToken, answer](const std::vector<uint8_t>& body,
                                                const HttpResponse& response,
                                                const OptionalError& error) {
        std::optional<Json> json;
        if (!error && body.size() > 2) {
          Json parsed = Json::parse(body.begin(), body.end(), nullptr, false);
          if (!parsed.is_discarded()) json = std::move(parsed);
        }
        application->log("cover for video " + token + ", stream " + streamToken +
                         " set with error: " + errorText(error) +
                         ", response: " + std::to_string(response.status) + " " + jsonText(json));
        answer(json, response, error);
      });
}

NembraVideos::TaskHandle NembraVideos::attachVideoWithVideoToken(
    const std::string& token, const std::string& streamToken, const Json& data,
    const std::string& file, JsonCallback callback, ProgressCallback progress) {
  const std::string url = baseUrl("/" + percentEncodePathSegment(token) + "/streams/" +
                                  percentEncodePathSegment(streamToken) + "/videoattach");
  // Names the background transfer.
  const std::string identifier =
      "/videos/" + token + "/streams/" + percentEncodePathSegment(streamToken) + "/recordersubmit";
  Nembra* application = &application_;
  std::weak_ptr<bool> alive = alive_;
  auto task = application_.connect().backgroundUploadWithPath(
      url, data, identifier, file,
      [this, alive, application, token, streamToken, file, callback](
          const std::vector<uint8_t>& body, const HttpResponse& response,
          const OptionalError& error) {
        application->log("backgroundUploadWithPath response: " +
                         std::string(body.begin(), body.end()));
        std::optional<Json> json;
        OptionalError failure = error;
        if (!failure && !body.empty()) {
          Json parsed = Json::parse(body.begin(), body.end(), nullptr, false);
          if (parsed.is_discarded()) {
            failure = Error::parse("the videoattach answer is not JSON");
          } else {
            json = std::move(parsed);
          }
        }
        if (callback) callback(json, response, failure);
        if (!alive.lock()) return;
        tellDelegate([file, token, streamToken](NembraUploadingDelegate& delegate) {
          if (delegate.uploadFinishedWithPath) {
            delegate.uploadFinishedWithPath(file, token, streamToken);
          }
        });
      },
      progress);
  tellDelegate([file, token, streamToken, task](NembraUploadingDelegate& delegate) {
    if (delegate.uploadStartedWithPath) {
      delegate.uploadStartedWithPath(file, token, streamToken, task);
    }
  });
  return task;
}

NembraVideos::TaskHandle NembraVideos::getImageForVideoByToken(const std::string& token,
                                                               const Json& data,
                                                               ImageCallback callback) {
  return application_.uploadingHandler().fetchCover(token, data, thumbCache_, std::move(callback));
}

void NembraVideos::getImageForVideoByPath(const std::string& path, LocalImageCallback callback) {
  application_.uploadingHandler().grabCover(path, thumbCache_, std::move(callback));
}

void NembraVideos::enforceImageForVideoByPath(const std::string& path, StillImagePtr image) {
  thumbCache_.setObject(std::move(image), path);
}

NembraVideos::TaskHandle NembraVideos::getDefaultStreamForVideoByToken(const std::string& token,
                                                                       TokenCallback callback) {
  if (auto error = MediaToken::check(token, "video token")) {
    application_.mainQueue().async([callback, error] {
      if (callback) callback(std::nullopt, HttpResponse{}, error);
    });
    return nullptr;
  }
  return application_.connect().getJsonWithPath(
      baseUrl("/" + percentEncodePathSegment(token)), nullptr,
      [callback](const std::optional<Json>& json, const HttpResponse& response,
                 const OptionalError& error) {
        if (!callback) return;
        std::optional<std::string> stream;
        std::string found = tokenAt(json, "default_stream");
        if (!found.empty()) stream = found;
        callback(stream, response, error);
      });
}

NembraVideos::TaskHandle NembraVideos::getOriginalStreamDescriptionForVideoByToken(
    const std::string& token, JsonCallback callback) {
  if (auto error = MediaToken::check(token, "video token")) {
    application_.mainQueue().async([callback, error] {
      if (callback) callback(std::nullopt, HttpResponse{}, error);
    });
    return nullptr;
  }
  return application_.connect().getJsonWithPath(
      "/videos/" + token, nullptr,
      [callback](const std::optional<Json>& json, const HttpResponse& response,
                 const OptionalError& error) {
        if (!callback) return;
        std::optional<Json> stream;
        if (json && json->is_object()) {
          auto found = json->find("original_stream");
          if (found != json->end()) stream = *found;
        }
        callback(stream, response, error);
      });
}

NembraVideos::TaskHandle NembraVideos::create(const std::string& path, const Json& data,
                                              JsonCallback callback, ProgressCallback progress,
                                              JsonCallback confirmCallback) {
  return application_.uploadingHandler().uploadWithType(
      VIDEO, path, data, std::move(callback), std::move(progress), std::move(confirmCallback));
}

void NembraVideos::createVideoWithData(const Json& data, const std::string& file,
                                       StillImagePtr cover, JsonCallback callback,
                                       ProgressCallback progress) {
  std::weak_ptr<bool> alive = alive_;
  // The copy may be large: made on the operation queue, the flow goes on from there.
  operationQueue_->async([this, alive, data, file, cover, callback, progress] {
    std::optional<std::string> copy;
    std::error_code ec;
    if (std::filesystem::is_regular_file(file, ec) && std::filesystem::file_size(file, ec) > 0) {
      copy = Utils::copyFileToTemporaryDirectory(file, "mp4");
    }
    if (!copy) {
      Error error = Error::file("cannot create a video from " + file +
                                ": it is missing, empty, or cannot be copied");
      if (callback) callback(std::nullopt, HttpResponse{}, error);
      return;
    }
    application_.log("createVideoWithData/newFileName: " + *copy);
    tellDelegate([path = *copy](NembraUploadingDelegate& delegate) {
      if (delegate.preparingToUploadWithPath) delegate.preparingToUploadWithPath(path);
    });
    if (cover) enforceImageForVideoByPath(*copy, cover);

    createEmptyVideoWithData(data, [this, alive, data, copy = *copy, cover, callback, progress](
                                       const std::optional<Json>& json,
                                       const HttpResponse& response, const OptionalError& error) {
      if (!alive.lock()) return;
      application_.log("video created with error = " + errorText(error) +
                       ", response = " + jsonText(json));
      std::string token = tokenAt(json, "video");
      std::string stream = tokenAt(json, "stream");
      // Missing tokens end the flow with the answer's own error; a token that is not safe to
      // put in a path is refused.
      OptionalError failure = error;
      const bool missing = token.empty() || stream.empty();
      if (!failure && !missing) failure = MediaToken::check(token, "video token");
      if (!failure && !missing) failure = MediaToken::check(stream, "stream token");
      if (failure || missing) {
        application_.log("ERROR: no video or stream object created");
        tellDelegate([copy, token, stream](NembraUploadingDelegate& delegate) {
          if (delegate.uploadFinishedWithPath) delegate.uploadFinishedWithPath(copy, token, stream);
        });
        // The copy is ours; the caller's file is untouched.
        Utils::removeFileWithPath(copy);
        if (callback) callback(json, response, failure);
        return;
      }
      application_.log("video created with token: " + token + ", default stream: " + stream);
      if (!cover) {
        attachAndSubmit(token, stream, data, copy, callback, progress);
        return;
      }
      attachCoverWithVideoToken(token, stream, *cover, data,
                                [this, alive, token, stream, data, copy, callback, progress](
                                    const Video&, const HttpResponse&, const OptionalError&) {
                                  // A cover that did not take leaves the service's own; the video
                                  // goes on.
                                  if (alive.lock())
                                    attachAndSubmit(token, stream, data, copy, callback, progress);
                                });
    });
  });
}

void NembraVideos::rerecordVideoWithToken(const std::string& token, const std::string& file,
                                          const Json& data, JsonCallback callback,
                                          ProgressCallback progress) {
  if (auto error = MediaToken::check(token, "video token")) {
    application_.mainQueue().async([callback, error] {
      if (callback) callback(std::nullopt, HttpResponse{}, error);
    });
    return;
  }
  std::weak_ptr<bool> alive = alive_;
  createStreamWithVideoToken(token, data,
                             [this, alive, token, file, data, callback, progress](
                                 const std::optional<Json>& json, const HttpResponse& response,
                                 const OptionalError& error) {
                               if (!alive.lock()) return;
                               std::string stream = json && json->is_object()
                                                        ? Utils::getStringFromJson(*json, "token")
                                                        : "";
                               OptionalError failure = error;
                               if (!failure && !stream.empty())
                                 failure = MediaToken::check(stream, "stream token");
                               if (failure || stream.empty()) {
                                 application_.log("ERROR: no video or stream object created");
                                 if (callback) callback(json, response, failure);
                                 return;
                               }
                               application_.log("video token: " + token + ", stream: " + stream +
                                                ", streamCreatedResponse: " + jsonText(json));
                               attachAndSubmit(token, stream, data, file, callback, progress);
                             });
}

void NembraVideos::attachAndSubmit(const std::string& token, const std::string& streamToken,
                                   const Json& data, const std::string& file, JsonCallback callback,
                                   ProgressCallback progress) {
  std::weak_ptr<bool> alive = alive_;
  attachVideoWithVideoToken(
      token, streamToken, data, file,
      [this, alive, token, streamToken, data, file, callback](const std::optional<Json>& json,
                                                              const HttpResponse& response,
                                                              const OptionalError& error) {
        if (!alive.lock()) return;
        application_.log("video attached with error: " + errorText(error) +
                         ", response: " + std::to_string(response.status) + " " + jsonText(json));
        // Submitted whatever the attach answered: the service decides what a stream without
        // its file becomes.
        recorderSubmitWithVideoToken(
            token, streamToken, data,
            [this, alive, token, file, callback](const std::optional<Json>& json,
                                                 const HttpResponse& response,
                                                 const OptionalError& error) {
              if (!alive.lock()) return;
              application_.log("recorder submitted with error: " + errorText(error) +
                               ", response: " + jsonText(json));
              uploadFinished(token, file);
              if (callback) callback(json, response, error);
            });
      },
      std::move(progress));
}

void NembraVideos::uploadFinished(const std::string& token, const std::string& path) {
  NembraCacheManager& cache = application_.cacheManager();
  const std::string cachePath = cache.getCacheFilePathWithType(VIDEO, token);
  application_.log("Caching recorded/selected video to file: " + cachePath);
  OptionalError error;
  if (cachePath.empty()) {
    error = Error::invalidArgument("the video token \"" + token + "\" cannot name a cache file");
  } else {
    if (cache.fileExists(cachePath)) cache.removeFile(cachePath);
    error = FileSystem::createDirectories(std::filesystem::path(cachePath).parent_path().string());
    if (!error) error = FileSystem::copyItem(path, cachePath);
  }
  if (error) application_.log("Caching recorded/selected video error: " + error->message);
  cache.removeFile(path);
  cache.trimCacheWithType(VIDEO);
}

}  // namespace nembra
