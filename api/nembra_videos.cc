#include "nembra/nembra_videos.h"

#include <filesystem>

#include "api/media_token.h"
#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/reply_status.h"
#include "platform/dispatch/serial_queue.h"
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

NembraVideos::JsonCallback videoOnMain(MainQueue& main, NembraVideos::VideoCallback callback,
                                       std::string what) {
  return [&main, callback = std::move(callback), what = std::move(what)](
             const std::optional<Json>& json, const HttpResponse& response,
             const OptionalError& error) {
    main.async([callback, what, json, response, error] {
      OptionalError failure = error;
      if (!failure) failure = ReplyStatus::check(what, response, json);
      Video video = Video::initWithJson(json && json->is_object() ? *json : Json::object());
      if (callback) callback(video, response, failure);
    });
  };
}

}  // namespace

NembraVideos::NembraVideos(Nembra& application)
    : application_(application),
      operationQueue_(std::make_unique<SerialQueue>("com.nembra.videos")) {}

NembraVideos::~NembraVideos() { *alive_ = false; }

std::string NembraVideos::baseUrl(const std::string& path) {
  return application_.uploadingHandler().getApiUrlWithType(VIDEO, path);
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
          OptionalError failure = error;
          if (!failure) failure = ReplyStatus::check("the index request", response, json);
          std::vector<Video> videos;
          if (json && json->is_array()) {
            for (const Json& element : *json) videos.push_back(Video::initWithJson(element));
          } else if (!failure) {
            failure = Error::parse("the index answer is not a JSON array");
          }
          if (callback) callback(videos, response, failure);
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
      VIDEO, token, data,
      videoOnMain(application_.mainQueue(), std::move(callback), "the get request"));
}

void NembraVideos::download(const std::string& token, DownloadCallback callback) {
  application_.uploadingHandler().downloadWithType(VIDEO, token, std::move(callback));
}

std::string NembraVideos::getVideoUrl(const std::string& token) {
  return application_.uploadingHandler().getPathWithType(VIDEO, token);
}

std::string NembraVideos::getImageUrl(const std::string& token) {
  return application_.config().cdn_api_url + "/v1/applications/" + application_.token() +
         "/videos/" + token + "/image";
}

NembraVideos::TaskHandle NembraVideos::update(const std::string& token, const Json& data,
                                              VideoCallback callback) {
  return application_.uploadingHandler().updateWithType(
      VIDEO, token, std::string(), data,
      videoOnMain(application_.mainQueue(), std::move(callback), "the update request"));
}

NembraVideos::TaskHandle NembraVideos::update(const Video& video, VideoCallback callback) {
  return update(video.token, video.toDictionary(), std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::destroy(const std::string& token,
                                               const std::string& streamToken,
                                               JsonCallback callback) {
  OptionalError refused = MediaToken::check(token, "video token");
  if (!refused && !streamToken.empty()) refused = MediaToken::check(streamToken, "stream token");
  if (refused) {
    application_.mainQueue().async([callback, refused] {
      if (callback) callback(std::nullopt, HttpResponse{}, refused);
    });
    return nullptr;
  }
  std::string path = "/" + token;
  if (!streamToken.empty()) path += "/streams/" + streamToken;
  return application_.connect().deleteJsonWithPath(baseUrl(path), nullptr, std::move(callback));
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
      baseUrl("/" + token + "/streams?create_stream=true"), data, std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::recorderSubmitWithVideoToken(const std::string& token,
                                                                    const std::string& streamToken,
                                                                    const Json& data,
                                                                    JsonCallback callback) {
  return application_.connect().postJsonWithPath(
      baseUrl("/" + token + "/streams/" + streamToken + "/recordersubmit"), data,
      std::move(callback));
}

NembraVideos::TaskHandle NembraVideos::attachCoverWithVideoToken(const std::string& token,
                                                                 const std::string& streamToken,
                                                                 const StillImage& cover,
                                                                 const Json& data,
                                                                 VideoCallback callback) {
  JsonCallback answer = videoOnMain(application_.mainQueue(), std::move(callback),
                                    "the cover request of video " + token);
  std::vector<uint8_t> jpeg;
  // The best JPEG quality: the service makes every smaller size from this one.
  if (auto error = makeImageCodec()->encodeJpeg(cover.data, 2, jpeg)) {
    error->message = "the cover of video " + token + " cannot be sent: " + error->message;
    answer(std::nullopt, HttpResponse{}, error);
    return nullptr;
  }
  Nembra* application = &application_;
  return application_.connect().postRawDataWithPath(
      baseUrl("/" + token + "/streams/" + streamToken + "/imageattach"), jpeg, data,
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
  const std::string url = baseUrl("/" + token + "/streams/" + streamToken + "/videoattach");
  // Names the background transfer.
  const std::string identifier = "/videos/" + token + "/streams/" + streamToken + "/recordersubmit";
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
        if (!failure) failure = ReplyStatus::check("the videoattach request", response, json);
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
      baseUrl("/" + token), nullptr,
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
      OptionalError failure = error;
      if (!failure) failure = ReplyStatus::check("the create request", response, json);
      if (!failure && (token.empty() || stream.empty())) {
        failure = Error::parse("the create answer has no \"video\" or \"stream\" token");
      }
      if (!failure) failure = MediaToken::check(token, "video token");
      if (!failure) failure = MediaToken::check(stream, "stream token");
      if (failure) {
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
        attachAndSubmit(token, stream, data, copy, callback, progress, true);
        return;
      }
      attachCoverWithVideoToken(token, stream, *cover, data,
                                [this, alive, token, stream, data, copy, callback, progress](
                                    const Video&, const HttpResponse&, const OptionalError&) {
                                  // A cover that did not take leaves the service's own; the video
                                  // goes on.
                                  if (alive.lock())
                                    attachAndSubmit(token, stream, data, copy, callback, progress,
                                                    true);
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
  createStreamWithVideoToken(
      token, data,
      [this, alive, token, file, data, callback, progress](const std::optional<Json>& json,
                                                           const HttpResponse& response,
                                                           const OptionalError& error) {
        if (!alive.lock()) return;
        std::string stream =
            json && json->is_object() ? Utils::getStringFromJson(*json, "token") : "";
        OptionalError failure = error;
        if (!failure) failure = ReplyStatus::check("the stream request", response, json);
        if (!failure && stream.empty()) {
          failure = Error::parse("the stream answer has no \"token\"");
        }
        if (!failure) failure = MediaToken::check(stream, "stream token");
        if (failure) {
          application_.log("ERROR: no video or stream object created");
          if (callback) callback(json, response, failure);
          return;
        }
        application_.log("video token: " + token + ", stream: " + stream +
                         ", streamCreatedResponse: " + jsonText(json));
        attachAndSubmit(token, stream, data, file, callback, progress, false);
      });
}

void NembraVideos::attachAndSubmit(const std::string& token, const std::string& streamToken,
                                   const Json& data, const std::string& file, JsonCallback callback,
                                   ProgressCallback progress, bool removeOnFailure) {
  std::weak_ptr<bool> alive = alive_;
  attachVideoWithVideoToken(
      token, streamToken, data, file,
      [this, alive, token, streamToken, data, file, callback, removeOnFailure](
          const std::optional<Json>& json, const HttpResponse& response,
          const OptionalError& error) {
        if (!alive.lock()) return;
        application_.log("video attached with error: " + errorText(error) +
                         ", response: " + std::to_string(response.status) + " " + jsonText(json));
        if (error) {
          // The file did not arrive: nothing to submit.
          if (removeOnFailure) Utils::removeFileWithPath(file);
          if (callback) callback(json, response, error);
          return;
        }
        recorderSubmitWithVideoToken(
            token, streamToken, data,
            [this, alive, token, file, callback](const std::optional<Json>& json,
                                                 const HttpResponse& response,
                                                 const OptionalError& error) {
              if (!alive.lock()) return;
              application_.log("recorder submitted with error: " + errorText(error) +
                               ", response: " + jsonText(json));
              uploadFinished(token, file);
              OptionalError failure = error;
              if (!failure) failure = ReplyStatus::check("the submit request", response, json);
              if (callback) callback(json, response, failure);
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
