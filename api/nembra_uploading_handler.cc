#include "nembra/nembra_uploading_handler.h"

#include "api/media_downloader.h"
#include "api/media_requests.h"
#include "api/media_uploader.h"
#include "api/media_urls.h"
#include "api/upload_resumption.h"
#include "api/video_conversion.h"
#include "api/video_covers.h"
#include "nembra/application.h"
#include "nembra/media_type.h"

namespace nembra {

namespace {

std::string removeAll(std::string text, const std::string& what) {
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
    text.erase(at, what.size());
  }
  return text;
}

}  // namespace

NembraUploadingHandler::NembraUploadingHandler(Nembra& application)
    : NembraUploadingHandler(application, Seams{}) {}

NembraUploadingHandler::NembraUploadingHandler(Nembra& application, Seams seams)
    : application_(application),
      requests_(std::make_unique<MediaRequests>(application)),
      downloader_(std::make_unique<MediaDownloader>(application, std::move(seams.downloadClient))),
      covers_(std::make_unique<VideoCovers>(application, std::move(seams.frameGrabber),
                                            std::move(seams.imageCodec))),
      uploader_(std::make_unique<MediaUploader>(application, seams.journalDirectory,
                                                [this] { stopTimer(); })),
      resumption_(std::make_unique<UploadResumption>(application, *uploader_)),
      conversion_(std::make_unique<VideoConversion>(application, std::move(seams.converter))) {}

NembraUploadingHandler::~NembraUploadingHandler() { *alive_ = false; }

std::string NembraUploadingHandler::getApiUrlWithType(int type, const std::string& path) {
  return MediaUrls::of(application_).apiUrl(type, path);
}

std::string NembraUploadingHandler::getPathWithType(int type, const std::string& token) {
  return MediaUrls::of(application_).mediaUrl(type, token);
}

void NembraUploadingHandler::uploadWithType(int type, const std::string& path, const Json& data) {
  uploadWithType(type, path, data, nullptr, nullptr, nullptr);
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::uploadWithType(
    int type, const std::string& path, const Json& data, JsonCallback callback,
    ProgressCallback progress, JsonCallback confirmCallback) {
  return uploadUrlWithType(type, removeAll(path, "file://"), data, std::move(callback),
                           std::move(progress), std::move(confirmCallback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::uploadUrlWithType(
    int type, const std::string& path, const Json& data, JsonCallback callback,
    ProgressCallback progress, JsonCallback confirmCallback) {
  return uploader_->upload(type, path, data, std::move(callback), std::move(progress),
                           std::move(confirmCallback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::indexWithType(int type, const Json& data,
                                                                         JsonCallback callback) {
  return requests_->index(type, data, std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::indexWithType(
    int type, const Json& data, StringCallback stringCallback) {
  return requests_->index(type, data, std::move(stringCallback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::getWithType(int type,
                                                                       const std::string& token,
                                                                       const Json& data,
                                                                       JsonCallback callback) {
  return requests_->get(type, token, data, std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::updateWithType(
    int type, const std::string& token, const std::optional<std::string>& streamToken,
    const Json& data, JsonCallback callback) {
  return requests_->update(type, token, streamToken, data, std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::deleteWithType(
    int type, const std::string& token, const std::optional<std::string>& streamToken,
    JsonCallback callback) {
  return requests_->remove(type, token, streamToken, std::move(callback));
}

void NembraUploadingHandler::downloadWithType(int type, const std::string& token,
                                              DownloadCallback callback) {
  downloader_->download(type, token, std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::getImageForVideoByToken(
    const std::string& token, const Json& data, ImageCallback callback) {
  return covers_->fetch(token, data, thumbCache_, std::move(callback));
}

void NembraUploadingHandler::getImageForVideoByPath(const std::string& path,
                                                    LocalImageCallback callback) {
  covers_->grab(path, thumbCache_, std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::fetchCover(const std::string& token,
                                                                      const Json& data,
                                                                      ThumbnailCache& cache,
                                                                      ImageCallback callback) {
  return covers_->fetch(token, data, cache, std::move(callback));
}

void NembraUploadingHandler::grabCover(const std::string& path, ThumbnailCache& cache,
                                       LocalImageCallback callback) {
  covers_->grab(path, cache, std::move(callback));
}

NembraUploadingHandler::TaskHandle
NembraUploadingHandler::getOriginalStreamDescriptionForVideoByToken(const std::string& token,
                                                                    JsonCallback callback) {
  return requests_->originalStreamDescription(token, std::move(callback));
}

void NembraUploadingHandler::convertToMp4WithPath(const std::string& path, const Json& data,
                                                  JsonCallback callback, ProgressCallback progress,
                                                  JsonCallback confirmCallback) {
  conversion_->convertThenUpload(
      path, [this, data, callback, progress, confirmCallback](const std::string& chosen) {
        uploadWithType(VIDEO, chosen, data, callback, progress, confirmCallback);
      });
}

void NembraUploadingHandler::cancelUpload(const std::string& path, bool deleteFile) {
  uploader_->cancel(path, deleteFile);
}

void NembraUploadingHandler::stopTimer() {
  // Invalidated on the main queue, where the host arms it.
  if (application_.mainQueue().isCurrent()) {
    if (uploadTimer && uploadTimer->isValid()) uploadTimer->cancel();
    return;
  }
  std::weak_ptr<bool> alive = alive_;
  application_.mainQueue().async([this, alive] {
    if (alive.lock() && uploadTimer && uploadTimer->isValid()) uploadTimer->cancel();
  });
}

size_t NembraUploadingHandler::resumeUnfinishedUploads() {
  return resumption_->resumeUnfinishedUploads();
}

void NembraUploadingHandler::setReachability(std::shared_ptr<Reachability> reachability,
                                             NotificationCenter& center) {
  uploader_->setReachability(std::move(reachability), center);
}

void NembraUploadingHandler::setReloadDelay(std::chrono::milliseconds first) {
  uploader_->setReloadDelay(first);
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::uploadTask() const {
  return uploader_->uploadTask();
}

size_t NembraUploadingHandler::activeUploadCount() const { return uploader_->activeUploadCount(); }

bool NembraUploadingHandler::isUploading(const std::string& path) const {
  return uploader_->isUploading(path);
}

UploadJournal& NembraUploadingHandler::journal() { return uploader_->journal(); }

}  // namespace nembra
