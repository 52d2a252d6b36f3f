#include "nembra/nembra_uploading_handler.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>

#include "api/media_token.h"
#include "api/reachability.h"
#include "api/reachability_manager.h"
#include "api/upload_flow.h"
#include "api/upload_journal.h"
#include "api/upload_url_reply.h"
#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/reply_status.h"
#include "nembra/uploading_config.h"
#include "platform/dispatch/concurrent_queue.h"
#include "platform/dispatch/timer.h"
#include "platform/http/http_curl_client.h"
#include "platform/media/frame_grabber.h"
#include "platform/media/image_codec.h"
#include "platform/media/media_converter.h"
#include "platform/system/notification_center.h"

namespace nembra {

static_assert(std::is_same_v<NotificationCenter::Token, uint64_t>,
              "the header keeps the observer token as a uint64_t");

namespace {

// The file part and follow-up paths of each type. The extension and MIME pairings are the ones
// the storage side has always received (an "aac" sent as audio/wav, a "jpg" as image/png): kept.
struct TypeUpload {
  const char* extension;
  const char* mimeType;
  const char* submitFormat;  // media token, stream token
};

std::optional<TypeUpload> uploadFor(int type) {
  switch (type) {
    case VIDEO:
      return TypeUpload{"mp4", "video/mp4", "/videos/%s/streams/%s/video_submit"};
    case AUDIO:
      return TypeUpload{"aac", "audio/wav", "/audios/%s/streams/%s/audio_submit"};
    case IMAGE:
      return TypeUpload{"jpg", "image/png", "/images/%s/streams/%s/image_submit"};
    default:
      return std::nullopt;
  }
}

// |pattern| with its two "%s" replaced by |a| and |b| in turn.
std::string format2(std::string pattern, const std::string& a, const std::string& b) {
  size_t at = pattern.find("%s");
  pattern.replace(at, 2, a);
  at = pattern.find("%s", at + a.size());
  pattern.replace(at, 2, b);
  return pattern;
}

std::string lastPathComponent(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string removeAll(std::string text, const std::string& what) {
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
    text.erase(at, what.size());
  }
  return text;
}

// Size and modification time: a file that differs at the end changed while it was sent.
struct FileStamp {
  uint64_t size = 0;
  int64_t modifiedNs = 0;
  bool operator==(const FileStamp&) const = default;
};

std::optional<FileStamp> stampOf(const std::string& path) {
  std::error_code ec;
  uint64_t size = std::filesystem::file_size(path, ec);
  if (ec) return std::nullopt;
  auto written = std::filesystem::last_write_time(path, ec);
  if (ec) return std::nullopt;
  return FileStamp{
      size,
      std::chrono::duration_cast<std::chrono::nanoseconds>(written.time_since_epoch()).count()};
}

// Why |path| cannot be uploaded as |type|, if it cannot.
OptionalError checkUploadable(int type, const std::string& path) {
  if (!uploadFor(type)) {
    return Error::invalidArgument("cannot upload " + path + ": media type " + std::to_string(type) +
                                  " is not video (1), audio (2) or image (5)");
  }
  if (path.empty()) return Error::invalidArgument("cannot upload: the file path is empty");
  std::error_code ec;
  auto status = std::filesystem::status(path, ec);
  if (ec || !std::filesystem::exists(status)) {
    return Error::file("cannot upload " + path + ": no such file", ENOENT);
  }
  if (!std::filesystem::is_regular_file(status)) {
    return Error::file("cannot upload " + path + ": not a regular file");
  }
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int code = errno;
    return Error::file("cannot upload " + path + ": " + std::strerror(code), code);
  }
  ::close(fd);
  if (std::filesystem::file_size(path, ec) == 0 && !ec) {
    return Error::file("cannot upload " + path + ": the file is empty");
  }
  return std::nullopt;
}

// The path rule of update and delete: the empty stream token means the media itself.
std::string itemPath(const std::string& token, const std::optional<std::string>& streamToken) {
  if (streamToken && streamToken->empty()) return "/" + token;
  return "/" + token + "/streams/" + streamToken.value_or("(null)");
}

OptionalError checkItem(int type, const std::string& token,
                        const std::optional<std::string>& streamToken) {
  std::string kind = *mediaTypeName(type) ? mediaTypeName(type) : "media";
  if (auto error = MediaToken::check(token, kind + " token")) return error;
  if (streamToken && !streamToken->empty()) return MediaToken::check(*streamToken, "stream token");
  return std::nullopt;
}

}  // namespace

struct NembraUploadingHandler::Transfer {
  int type = 0;
  std::string path;
  Json data;
  JsonCallback callback;
  ProgressCallback progress;
  JsonCallback confirmCallback;

  UploadFlow flow;
  UploadJournalEntry record;
  std::unique_ptr<FileLock> claim;
  TaskHandle task;
  FileStamp stamp;
  bool resumed = false;      // restarted from the journal
  bool formRefused = false;  // a journaled form was turned down once already
  bool held = false;         // waiting for Wi-Fi before its transfer starts
  bool cancelRequested = false;
  bool fileChanged = false;  // the file differed after its transfer from before it
  int reloads = 0;

  // Progress is coalesced: the network reports far more often than anyone needs to hear.
  std::atomic<bool> progressPosted{false};
  std::atomic<int64_t> sent{0};
  std::atomic<int64_t> expected{0};
};

NembraUploadingHandler::NembraUploadingHandler(Nembra& application)
    : NembraUploadingHandler(application, Seams{}) {}

NembraUploadingHandler::NembraUploadingHandler(Nembra& application, Seams seams)
    : application_(application),
      fs_(FileSystem::shared()),
      seams_(std::move(seams)),
      journal_(std::make_unique<UploadJournal>(
          seams_.journalDirectory.empty() ? UploadJournal::directoryFor(fs_, application.token())
                                          : seams_.journalDirectory)),
      reachability_(ReachabilityManager::shared().reachability().shared_from_this()),
      center_(&NotificationCenter::defaultCenter()),
      background_(std::make_unique<ConcurrentQueue>("com.nembra.uploads.background", 2)) {}

NembraUploadingHandler::~NembraUploadingHandler() {
  *alive_ = false;
  if (reachabilityObserver_) center_->removeObserver(*reachabilityObserver_);
}

void NembraUploadingHandler::onMain(std::function<void()> task) {
  std::weak_ptr<bool> alive = alive_;
  application_.mainQueue().async([alive, task = std::move(task)] {
    if (alive.lock()) task();
  });
}

std::string NembraUploadingHandler::getApiUrlWithType(int type, const std::string& path) {
  NembraConfig& config = application_.config();
  const std::string& token = application_.token();
  switch (type) {
    case VIDEO:
      return config.server_api_url + "/v1/applications/" + token + "/videos" + path;
    case AUDIO:
      return config.dev_server_api_url + "/v1/applications/" + token + "/audios" + path;
    case IMAGE:
      return config.dev_server_api_url + "/v1/applications/" + token + "/images" + path;
    default:
      return "";
  }
}

std::string NembraUploadingHandler::getPathWithType(int type, const std::string& token) {
  NembraConfig& config = application_.config();
  const std::string& app = application_.token();
  switch (type) {
    case VIDEO:
      return config.cdn_api_url + "/v1/applications/" + app + "/videos/" + token + "/video.mp4";
    case AUDIO:
      return config.file_server_url + "/v1/applications/" + app + "/audios/" + token + "/audio.aac";
    case IMAGE:
      return config.file_server_url + "/v1/applications/" + app + "/images/" + token + "/image.jpg";
    default:
      return "";
  }
}

std::string NembraUploadingHandler::uploadUrlFor(int type) {
  if (type == VIDEO) return getApiUrlWithType(VIDEO, "/videos-upload-url?create_stream=true");
  return getApiUrlWithType(type, "");
}

std::string NembraUploadingHandler::confirmUrlFor(const Transfer& transfer) {
  const UploadJournalEntry& record = transfer.record;
  if (transfer.type == VIDEO) {
    return getApiUrlWithType(
        VIDEO, "/" + record.mediaToken + "/streams/" + record.streamToken + "/confirm-video");
  }
  return getApiUrlWithType(transfer.type, "/" + record.mediaToken + "/confirm");
}

// ---- The upload flow --------------------------------------------------------------------

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
  return startFlow(newTransfer(type, path, data, std::move(callback), std::move(progress),
                               std::move(confirmCallback)));
}

NembraUploadingHandler::TransferPtr NembraUploadingHandler::newTransfer(
    int type, const std::string& path, const Json& data, JsonCallback callback,
    ProgressCallback progress, JsonCallback confirmCallback) {
  auto transfer = std::make_shared<Transfer>();
  transfer->type = type;
  transfer->path = path;
  transfer->data = data;
  transfer->callback = std::move(callback);
  transfer->progress = std::move(progress);
  transfer->confirmCallback = std::move(confirmCallback);
  transfer->record.type = type;
  transfer->record.path = path;
  transfer->record.data = data.is_object() ? data : Json::object();
  return transfer;
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::startFlow(const TransferPtr& transfer) {
  if (application_.uploadingConfig().shouldTurnOffUploader()) return nullptr;
  (void)transfer->flow.transit(UploadEvent::Start);
  return requestUploadUrl(transfer);
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::requestUploadUrl(
    const TransferPtr& transfer) {
  const std::string url = uploadUrlFor(transfer->type);
  stopTimer();
  onMain([this, path = transfer->path] {
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->preparingToUploadWithPath) delegate->preparingToUploadWithPath(path);
  });
  if (auto error = checkUploadable(transfer->type, transfer->path)) {
    failBeforeRequest(transfer, std::move(*error));
    return nullptr;
  }
  if (!transfer->claim) {
    transfer->record.id = journal_->newId();
    transfer->record.createdUnix = std::chrono::duration_cast<std::chrono::seconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count();
    OptionalError claimError;
    transfer->claim = journal_->claim(transfer->record.id, &claimError);
    if (!transfer->claim) {
      application_.log("the upload of " + transfer->path + " is not journaled: " +
                       (claimError ? claimError->message : "its record is locked"));
    }
  }
  transfer->record.stage = UploadJournalEntry::Stage::RequestingUrl;
  writeRecord(transfer);
  if (std::find(live_.begin(), live_.end(), transfer) == live_.end()) live_.push_back(transfer);

  std::weak_ptr<bool> alive = alive_;
  MainQueue& main = application_.mainQueue();
  return application_.connect().postJsonWithPath(
      url, transfer->data,
      [this, alive, &main, transfer](const std::optional<Json>& json, const HttpResponse& response,
                                     const OptionalError& error) {
        main.async([this, alive, transfer, json, response, error] {
          if (alive.lock()) onUploadUrlReply(transfer, json, response, error);
        });
      });
}

void NembraUploadingHandler::failBeforeRequest(const TransferPtr& transfer, Error error) {
  (void)transfer->flow.transit(UploadEvent::Fail);
  onMain([this, transfer, error] {
    if (transfer->callback) transfer->callback(std::nullopt, HttpResponse{}, error);
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->errorWithError) delegate->errorWithError(error);
  });
  finish(transfer, /*keepRecord=*/false);
}

void NembraUploadingHandler::onUploadUrlReply(const TransferPtr& transfer,
                                              const std::optional<Json>& json,
                                              const HttpResponse& response, OptionalError error) {
  if (transfer->cancelRequested) {
    error = Error::cancelled("the upload of " + transfer->path + " was cancelled");
  }
  if (!error) error = ReplyStatus::check("the upload URL request", response, json);
  UploadUrlReply reply;
  if (!error) error = UploadUrlReply::parse(transfer->type, json, reply);
  // The caller hears the answer first, whatever it holds.
  if (transfer->callback) transfer->callback(json, response, error);
  if (error) {
    (void)transfer->flow.transit(transfer->cancelRequested ? UploadEvent::Cancel
                                                           : UploadEvent::Fail);
    finish(transfer, /*keepRecord=*/false);
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->errorWithError) delegate->errorWithError(*error);
    return;
  }
  (void)transfer->flow.transit(UploadEvent::UrlReceived);
  UploadJournalEntry& record = transfer->record;
  record.mediaToken = reply.mediaToken;
  record.streamToken = reply.streamToken;
  record.uploadUrl = reply.url;
  record.fields = reply.fields;
  startTransfer(transfer);
}

void NembraUploadingHandler::startTransfer(const TransferPtr& transfer) {
  transfer->record.stage = UploadJournalEntry::Stage::Transferring;
  writeRecord(transfer);
  watchReachability();
  if (holdsForWifi(reachability_->currentReachabilityStatus())) {
    // Started later, by the reachability change that brings Wi-Fi back.
    transfer->held = true;
    application_.log("holding the upload of " + transfer->path + " until Wi-Fi is reachable");
    return;
  }
  launchTransfer(transfer);
}

void NembraUploadingHandler::launchTransfer(const TransferPtr& transfer) {
  transfer->held = false;
  const UploadJournalEntry& record = transfer->record;
  TypeUpload upload = *uploadFor(transfer->type);
  // Taken before the body is copied: a file that differs at the end changed while it was sent.
  if (auto stamp = stampOf(transfer->path)) transfer->stamp = *stamp;
  transfer->record.fileSize = transfer->stamp.size;
  transfer->record.fileModifiedNs = transfer->stamp.modifiedNs;

  std::weak_ptr<bool> alive = alive_;
  MainQueue& main = application_.mainQueue();
  std::weak_ptr<Transfer> weakTransfer = transfer;
  transfer->task = application_.connect().uploadFileWithPath(
      record.uploadUrl, record.fields,
      format2(upload.submitFormat, record.mediaToken, record.streamToken), transfer->path, "file",
      upload.mimeType, upload.extension,
      [this, alive, &main, transfer](const std::vector<uint8_t>&, const HttpResponse& response,
                                     const OptionalError& error) {
        main.async([this, alive, transfer, response, error] {
          if (alive.lock()) onTransferEnded(transfer, response, error);
        });
      },
      [this, alive, &main, weakTransfer](int64_t sent, int64_t expected) {
        auto transfer = weakTransfer.lock();
        if (!transfer) return;
        transfer->sent = sent;
        transfer->expected = expected;
        if (transfer->progressPosted.exchange(true)) return;
        main.async([this, alive, transfer] {
          transfer->progressPosted = false;
          if (alive.lock()) onTransferProgress(transfer);
        });
      });
  uploadTask_ = transfer->task;
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->uploadStartedWithPath) {
    delegate->uploadStartedWithPath(transfer->path, record.mediaToken, record.streamToken,
                                    transfer->task);
  }
}

void NembraUploadingHandler::onTransferProgress(const TransferPtr& transfer) {
  if (transfer->flow.stage() != UploadStage::Transferring) return;
  int64_t sent = transfer->sent;
  int64_t expected = transfer->expected;
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->uploadProgressWithPath) {
    delegate->uploadProgressWithPath(transfer->path, transfer->record.mediaToken,
                                     transfer->record.streamToken, sent, expected);
  }
  if (transfer->progress) transfer->progress(sent, expected);
}

void NembraUploadingHandler::onTransferEnded(const TransferPtr& transfer,
                                             const HttpResponse& response, OptionalError error) {
  if (transfer->flow.stage() != UploadStage::Transferring) return;
  if (!error && transfer->cancelRequested) {
    error = Error::cancelled("the upload of " + transfer->path + " was cancelled");
  }
  if (!error) error = ReplyStatus::check("storage", response);
  if (!error) {
    auto now = stampOf(transfer->path);
    if (!now || !(*now == transfer->stamp)) {
      transfer->fileChanged = true;
      error = Error::file(transfer->path +
                          " changed while it was being uploaded; it is kept and was not "
                          "confirmed, upload it again once it is complete");
    }
  }
  if (error) return handleTransferFailure(transfer, *error);

  (void)transfer->flow.transit(UploadEvent::BodySent);
  unwatchReachabilityIfIdle();
  transfer->record.stage = UploadJournalEntry::Stage::Transferred;
  writeRecord(transfer);
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->uploadFinishedWithPath) {
    delegate->uploadFinishedWithPath(transfer->path, transfer->record.mediaToken,
                                     transfer->record.streamToken);
  }
  sendConfirm(transfer);
}

void NembraUploadingHandler::handleTransferFailure(const TransferPtr& transfer,
                                                   const Error& failure) {
  stopTimer();
  const bool cancelled = transfer->cancelRequested || failure.kind == ErrorKind::Cancelled;
  // A form kept from an earlier process that storage now refuses (its policy expired): ask for
  // a new upload URL once.
  if (!cancelled && transfer->resumed && !transfer->formRefused &&
      failure.kind == ErrorKind::Http && failure.code >= 400 && failure.code < 500) {
    transfer->formRefused = true;
    (void)transfer->flow.transit(UploadEvent::FormRefused);
    live_.remove(transfer);
    unwatchReachabilityIfIdle();
    application_.log("storage refused the kept form of " + transfer->path +
                     "; asking for a new upload URL");
    requestUploadUrl(transfer);
    return;
  }
  (void)transfer->flow.transit(cancelled ? UploadEvent::Cancel : UploadEvent::Fail);
  const int32_t action = application_.uploadingConfig().lostConnectionAction();
  bool keepRecord = false;
  // A file that changed under its transfer is the caller's to send again once complete; no
  // action may touch it.
  if (!cancelled && !transfer->fileChanged) {
    switch (action) {
      case UPLOADING_ERROR_ACTION_RELOAD_MEDIA:
        if (transfer->reloads < reloadLimit_) {
          auto again =
              newTransfer(transfer->type, transfer->path, transfer->data, transfer->callback,
                          transfer->progress, transfer->confirmCallback);
          again->reloads = transfer->reloads + 1;
          finish(transfer, false);
          startFlow(again);
        } else {
          application_.log("not reloading " + transfer->path + " again after " +
                           std::to_string(transfer->reloads) + " attempts");
        }
        break;
      case UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION:
        application_.sendLocalNotification("Failed to upload " + lastPathComponent(transfer->path) +
                                           ".");
        break;
      case UPLOADING_ERROR_ACTION_DELETE_MEDIA:
        Utils::removeFileWithPath(transfer->path);
        break;
      default:
        // Continue: the file and its record stay, for resumeUnfinishedUploads to pick up.
        keepRecord = true;
        break;
    }
  }
  finish(transfer, keepRecord);
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->errorWithInfo) delegate->errorWithInfo(std::nullopt, failure, action);
}

void NembraUploadingHandler::sendConfirm(const TransferPtr& transfer) {
  std::weak_ptr<bool> alive = alive_;
  MainQueue& main = application_.mainQueue();
  application_.connect().postJsonWithPath(
      confirmUrlFor(*transfer), Json::object(),
      [this, alive, &main, transfer](const std::optional<Json>& json, const HttpResponse& response,
                                     const OptionalError& error) {
        main.async([this, alive, transfer, json, response, error] {
          if (alive.lock()) onConfirmReply(transfer, json, response, error);
        });
      });
}

void NembraUploadingHandler::onConfirmReply(const TransferPtr& transfer,
                                            const std::optional<Json>& json,
                                            const HttpResponse& response, OptionalError error) {
  if (!transfer->flow.transit(UploadEvent::Confirmed)) return;
  if (!error) error = ReplyStatus::check("the confirm request", response, json);
  const UploadJournalEntry& record = transfer->record;
  uploadCompletedWithType(transfer->type, transfer->path, record.mediaToken, record.streamToken,
                          json, response, error);
  // The file is gone either way; an unanswered confirm stays recorded to be sent again.
  finish(transfer, /*keepRecord=*/error.has_value());
  if (transfer->confirmCallback) transfer->confirmCallback(json, response, error);
}

void NembraUploadingHandler::uploadCompletedWithType(int, const std::string& path,
                                                     const std::string& token,
                                                     const std::string& streamToken,
                                                     const std::optional<Json>& confirmJsonObject,
                                                     const HttpResponse& confirmResponse,
                                                     const OptionalError& confirmError) {
  stopTimer();
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->uploadVerifiedWithPath) {
    delegate->uploadVerifiedWithPath(path, token, streamToken, confirmResponse, confirmError,
                                     confirmJsonObject);
  }
  // A confirm error does not keep the file: storage already holds it.
  if (!token.empty()) application_.cacheManager().removeFile(path);
}

void NembraUploadingHandler::finish(const TransferPtr& transfer, bool keepRecord) {
  live_.remove(transfer);
  unwatchReachabilityIfIdle();
  if (!keepRecord && !transfer->record.id.empty()) {
    if (auto error = journal_->remove(transfer->record.id)) {
      application_.log("cannot forget the upload record of " + transfer->path + ": " +
                       error->message);
    }
  }
  if (transfer->claim && !keepRecord) transfer->claim->removeFileOnRelease();
  transfer->claim.reset();
}

void NembraUploadingHandler::writeRecord(const TransferPtr& transfer) {
  if (!transfer->claim) return;
  if (auto error = journal_->write(transfer->record)) {
    application_.log("cannot journal the upload of " + transfer->path + ": " + error->message);
  }
}

// ---- Conversion -------------------------------------------------------------------------

void NembraUploadingHandler::convertToMp4WithPath(const std::string& path, const Json& data,
                                                  JsonCallback callback, ProgressCallback progress,
                                                  JsonCallback confirmCallback) {
  const std::string target = fs_.documentsDirectory() + "/video.mp4";
  std::error_code ec;
  // Converting a file onto itself would delete it first: it goes as it is.
  const bool sameFile = std::filesystem::equivalent(path, target, ec);
  if (!sameFile && FileSystem::fileExists(target)) FileSystem::removeItem(target);
  MediaConverter* converter = &mediaConverter();
  background_->async(
      [this, converter, path, target, sameFile, data, callback, progress, confirmCallback] {
        std::string upload = path;
        if (!sameFile && converter->canConvert(path)) {
          if (auto error = converter->convert(path, target, ConvertOptions{})) {
            application_.log("conversion of " + path +
                             " failed, uploading it as it is: " + error->message);
          } else {
            upload = target;
          }
        }
        onMain([this, upload, data, callback, progress, confirmCallback] {
          uploadWithType(VIDEO, upload, data, callback, progress, confirmCallback);
        });
      });
}

// ---- Restarting journaled uploads -------------------------------------------------------

size_t NembraUploadingHandler::resumeUnfinishedUploads() {
  if (application_.uploadingConfig().shouldTurnOffUploader()) return 0;
  std::vector<std::string> problems;
  std::vector<UploadJournalEntry> records = journal_->load(&problems);
  for (const std::string& problem : problems) application_.log("upload journal: " + problem);
  size_t restarted = 0;
  for (UploadJournalEntry& record : records) {
    auto claim = journal_->claim(record.id);
    // Another process, or a flow of this one, is on it.
    if (!claim) continue;
    // Finished by its owner between the listing and the claim.
    auto current = journal_->load();
    bool present = std::any_of(current.begin(), current.end(),
                               [&](const UploadJournalEntry& e) { return e.id == record.id; });
    if (!present) {
      claim->removeFileOnRelease();
      continue;
    }
    auto transfer = newTransfer(record.type, record.path, record.data, nullptr, nullptr, nullptr);
    transfer->record = record;
    transfer->claim = std::move(claim);
    transfer->resumed = true;
    ++restarted;
    live_.push_back(transfer);
    // Started from the main queue, so the delegate never hears of it on the caller's stack.
    onMain([this, transfer] { restart(transfer); });
  }
  return restarted;
}

void NembraUploadingHandler::restart(const TransferPtr& transfer) {
  const UploadJournalEntry& record = transfer->record;
  application_.log("restarting the upload of " + record.path + " (" +
                   UploadJournalEntry::stageName(record.stage) + ")");

  if (record.stage == UploadJournalEntry::Stage::Transferred) {
    (void)transfer->flow.transit(UploadEvent::ResumeConfirm);
    sendConfirm(transfer);
    return;
  }
  if (!FileSystem::fileExists(record.path)) {
    Error error = Error::file("the upload of " + record.path +
                              " cannot be restarted: the file no longer exists");
    (void)transfer->flow.transit(UploadEvent::Cancel);
    finish(transfer, false);
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->errorWithError) delegate->errorWithError(error);
    return;
  }
  auto expires = UploadUrlReply::formExpiration(record.fields);
  bool formUsable = record.stage == UploadJournalEntry::Stage::Transferring &&
                    (!expires || *expires > std::chrono::floor<std::chrono::seconds>(
                                                std::chrono::system_clock::now()) +
                                                kFormExpiryMargin);
  if (formUsable) {
    (void)transfer->flow.transit(UploadEvent::ResumeTransfer);
    stopTimer();
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->preparingToUploadWithPath) {
      delegate->preparingToUploadWithPath(record.path);
    }
    startTransfer(transfer);
  } else {
    (void)transfer->flow.transit(UploadEvent::Start);
    requestUploadUrl(transfer);
  }
}

// ---- Reachability -----------------------------------------------------------------------

void NembraUploadingHandler::setReachability(std::shared_ptr<Reachability> reachability,
                                             NotificationCenter& center) {
  if (reachabilityObserver_) {
    center_->removeObserver(*reachabilityObserver_);
    reachabilityObserver_.reset();
  }
  reachability_ = std::move(reachability);
  center_ = &center;
}

bool NembraUploadingHandler::holdsForWifi(int status) const {
  return application_.uploadingConfig().shouldUseWifiOnly() && status != NotReachable &&
         status != ReachableViaWiFi;
}

void NembraUploadingHandler::watchReachability() {
  if (!reachabilityObserver_) {
    std::weak_ptr<bool> alive = alive_;
    MainQueue& main = application_.mainQueue();
    reachabilityObserver_ = center_->addObserver(kNetworkReachabilityChangedNotification,
                                                 [this, alive, &main](const std::any&) {
                                                   main.async([this, alive] {
                                                     if (alive.lock()) onReachabilityChanged();
                                                   });
                                                 });
  }
  reachability_->startNotifier();
}

void NembraUploadingHandler::unwatchReachabilityIfIdle() {
  bool transferring = std::any_of(live_.begin(), live_.end(), [](const TransferPtr& t) {
    return t->flow.stage() == UploadStage::Transferring;
  });
  if (transferring || !reachabilityObserver_) return;
  center_->removeObserver(*reachabilityObserver_);
  reachabilityObserver_.reset();
  reachability_->stopNotifier();
}

void NembraUploadingHandler::onReachabilityChanged() {
  const int status = reachability_->currentReachabilityStatus();
  const bool wifiOnly = application_.uploadingConfig().shouldUseWifiOnly();
  // A copy: launching a held transfer may call out to the delegate, which may cancel others.
  std::list<TransferPtr> transfers = live_;
  for (const TransferPtr& transfer : transfers) {
    if (transfer->flow.stage() != UploadStage::Transferring) continue;
    bool hold = status == NotReachable || (wifiOnly && status != ReachableViaWiFi);
    if (transfer->held) {
      if (!hold) launchTransfer(transfer);
      continue;
    }
    if (!transfer->task) continue;
    if (hold) {
      application_.log("suspending the upload of " + transfer->path + " (reachability " +
                       std::to_string(status) + ")");
      transfer->task->suspend();
    } else {
      transfer->task->resume();
    }
  }
}

bool NembraUploadingHandler::isUploading(const std::string& path) const {
  return std::any_of(live_.begin(), live_.end(),
                     [&](const TransferPtr& transfer) { return transfer->path == path; });
}

// ---- Cancel and timer -------------------------------------------------------------------

void NembraUploadingHandler::cancelUpload(const std::string& path, bool deleteFile) {
  stopTimer();
  TransferPtr found;
  for (auto it = live_.rbegin(); it != live_.rend() && !found; ++it) {
    if ((*it)->path == path && (*it)->flow.stage() != UploadStage::Confirming) found = *it;
  }
  if (found) {
    found->cancelRequested = true;
    if (found->held) {
      // Nothing runs that would end it: it ends here.
      Error error = Error::cancelled("the upload of " + path + " was cancelled");
      (void)found->flow.transit(UploadEvent::Cancel);
      finish(found, false);
      onMain([this, error] {
        auto delegate = application_.getUploadingDelegate();
        if (delegate && delegate->errorWithInfo) {
          delegate->errorWithInfo(std::nullopt, error,
                                  application_.uploadingConfig().lostConnectionAction());
        }
      });
    } else if (found->task) {
      found->task->cancel();
    }
  } else if (uploadTask_) {
    uploadTask_->cancel();
  }
  if (deleteFile && !path.empty()) application_.cacheManager().removeFile(path);
}

void NembraUploadingHandler::stopTimer() {
  // Invalidated on the main queue, where the host arms it.
  if (application_.mainQueue().isCurrent()) {
    if (uploadTimer && uploadTimer->isValid()) uploadTimer->cancel();
    return;
  }
  onMain([this] {
    if (uploadTimer && uploadTimer->isValid()) uploadTimer->cancel();
  });
}

// ---- Per-media requests -----------------------------------------------------------------

NembraUploadingHandler::TaskHandle NembraUploadingHandler::refuse(Error error,
                                                                  JsonCallback callback) {
  onMain([error = std::move(error), callback = std::move(callback)] {
    if (callback) callback(std::nullopt, HttpResponse{}, error);
  });
  return nullptr;
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::indexWithType(int type, const Json& data,
                                                                         JsonCallback callback) {
  return application_.connect().getJsonArrayWithPath(getApiUrlWithType(type, ""), data,
                                                     std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::indexWithType(
    int type, const Json& data, StringCallback stringCallback) {
  return application_.connect().getStringWithPath(getApiUrlWithType(type, ""), data,
                                                  std::move(stringCallback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::getWithType(int type,
                                                                       const std::string& token,
                                                                       const Json& data,
                                                                       JsonCallback callback) {
  if (auto error = checkItem(type, token, std::string())) return refuse(*error, callback);
  return application_.connect().getJsonWithPath(
      getApiUrlWithType(type, "/" + token), data,
      [type, callback = std::move(callback)](const std::optional<Json>& json,
                                             const HttpResponse& response,
                                             const OptionalError& error) {
        if (!callback) return;
        const char* member = type == AUDIO ? "audio" : type == IMAGE ? "image" : nullptr;
        if (!member || !json) return callback(json, response, error);
        std::optional<Json> object;
        if (json->is_object()) {
          auto found = json->find(member);
          if (found != json->end()) object = *found;
        }
        callback(object, response, error);
      });
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::updateWithType(
    int type, const std::string& token, const std::optional<std::string>& streamToken,
    const Json& data, JsonCallback callback) {
  // An empty token is let through: a model never read from the service updates "<base>/".
  if (!token.empty()) {
    if (auto error = checkItem(type, token, streamToken)) return refuse(*error, callback);
  }
  return application_.connect().postJsonWithPath(
      getApiUrlWithType(type, itemPath(token, streamToken)), data, std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::deleteWithType(
    int type, const std::string& token, const std::optional<std::string>& streamToken,
    JsonCallback callback) {
  if (auto error = checkItem(type, token, streamToken)) return refuse(*error, callback);
  std::weak_ptr<bool> alive = alive_;
  MainQueue& main = application_.mainQueue();
  return application_.connect().deleteJsonWithPath(
      getApiUrlWithType(type, itemPath(token, streamToken)), nullptr,
      [this, alive, &main, token, stream = streamToken.value_or(""),
       callback = std::move(callback)](const std::optional<Json>& json,
                                       const HttpResponse& response, const OptionalError& error) {
        if (callback) callback(json, response, error);
        main.async([this, alive, token, stream, json, response, error] {
          if (!alive.lock()) return;
          auto delegate = application_.getUploadingDelegate();
          if (delegate && delegate->deleteWithToken) {
            delegate->deleteWithToken(token, stream, response, error, json);
          }
        });
      });
}

HttpClient& NembraUploadingHandler::downloadClient() {
  if (!seams_.downloadClient) seams_.downloadClient = std::make_unique<CurlHttpClient>();
  return *seams_.downloadClient;
}

// The media seams are made on first use: a process that only moves files never loads the
// media libraries.
FrameGrabber& NembraUploadingHandler::frameGrabber() {
  if (!seams_.frameGrabber) seams_.frameGrabber = makeFrameGrabber();
  return *seams_.frameGrabber;
}

MediaConverter& NembraUploadingHandler::mediaConverter() {
  if (!seams_.converter) seams_.converter = makeMediaConverter();
  return *seams_.converter;
}

ImageCodec& NembraUploadingHandler::imageCodec() {
  if (!seams_.imageCodec) seams_.imageCodec = makeImageCodec();
  return *seams_.imageCodec;
}

void NembraUploadingHandler::downloadWithType(int type, const std::string& token,
                                              DownloadCallback callback) {
  auto fail = [this, callback](Error error) {
    onMain([callback, error] {
      if (callback) callback(std::nullopt, error);
    });
  };
  if (!uploadFor(type)) {
    return fail(Error::invalidArgument("cannot download media type " + std::to_string(type)));
  }
  if (auto error = MediaToken::check(token, std::string(mediaTypeName(type)) + " token")) {
    return fail(*error);
  }
  NembraCacheManager& cache = application_.cacheManager();
  const std::string cachePath = cache.getCacheFilePathWithType(type, token);
  if (cachePath.empty()) {
    return fail(Error::file("there is no cache directory for " + std::string(mediaTypeName(type))));
  }
  // A download always fetches afresh.
  if (cache.fileExists(cachePath)) cache.removeFile(cachePath);
  application_.config();  // made here, read on the background queue below
  std::weak_ptr<bool> alive = alive_;
  background_->async([this, alive, type, token, cachePath, callback] {
    std::string url = getPathWithType(type, token);
    onMain([this, type, url, cachePath, callback] {
      // Read whole and at once on the main queue: kept so, hosts call this expecting the main
      // queue to be held until the file is in place.
      struct Result {
        std::vector<uint8_t> body;
        HttpResponse response;
        OptionalError error;
      };
      auto done = std::make_shared<std::promise<Result>>();
      HttpTaskEvents events;
      events.completion = [done](HttpTask&, std::vector<uint8_t> body, const HttpResponse& response,
                                 const OptionalError& error) {
        done->set_value({std::move(body), response, error});
      };
      HttpRequest request;
      request.url = url;
      auto task = downloadClient().dataTask(request, std::move(events));
      task->resume();
      Result result = done->get_future().get();
      OptionalError error = result.error;
      if (!error) error = ReplyStatus::check("the download of " + url, result.response);
      if (!error && result.body.empty())
        error = Error::http(result.response.status, url + " sent no data");
      if (!error) {
        auto parent = std::filesystem::path(cachePath).parent_path().string();
        error = FileSystem::createDirectories(parent);
        if (!error) {
          error = FileSystem::writeFileAtomically(
              cachePath, std::string_view(reinterpret_cast<const char*>(result.body.data()),
                                          result.body.size()));
        }
      }
      if (error) {
        if (callback) callback(std::nullopt, error);
        return;
      }
      NembraCacheManager& cache = application_.cacheManager();
      cache.trimCacheWithType(type);
      if (!cache.fileExists(cachePath)) {
        error = Error::file(url + " is larger than the cache's limit of " +
                            std::to_string(application_.cacheConfig().maxCacheSize()) +
                            " bytes and was not kept");
        if (callback) callback(std::nullopt, error);
        return;
      }
      if (callback) callback(cachePath, std::nullopt);
    });
  });
}

// ---- Covers -----------------------------------------------------------------------------

NembraUploadingHandler::TaskHandle NembraUploadingHandler::getImageForVideoByToken(
    const std::string& token, const Json& data, ImageCallback callback) {
  return fetchCover(token, data, thumbCache_, std::move(callback));
}

void NembraUploadingHandler::getImageForVideoByPath(const std::string& path,
                                                    LocalImageCallback callback) {
  grabCover(path, thumbCache_, std::move(callback));
}

NembraUploadingHandler::TaskHandle NembraUploadingHandler::fetchCover(const std::string& token,
                                                                      const Json& data,
                                                                      ThumbnailCache& cache,
                                                                      ImageCallback callback) {
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
      getApiUrlWithType(VIDEO, "/" + token + "/image"), data,
      [alive, &main, &cache, codec, token, callback](const std::vector<uint8_t>& body,
                                                     const HttpResponse& response,
                                                     const OptionalError& transportError) {
        OptionalError error = transportError;
        if (!error) error = ReplyStatus::check("the cover request of video " + token, response);
        StillImagePtr image;
        if (!error) {
          // Decoded here, off the main queue; the codec keeps no state.
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

void NembraUploadingHandler::grabCover(const std::string& path, ThumbnailCache& cache,
                                       LocalImageCallback callback) {
  if (auto image = cache.objectForKey(path)) {
    if (callback) callback(image, std::nullopt);
    return;
  }
  std::weak_ptr<bool> alive = alive_;
  FrameGrabber* grabber = &frameGrabber();
  background_->async([this, alive, &cache, grabber, path, callback] {
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

NembraUploadingHandler::TaskHandle
NembraUploadingHandler::getOriginalStreamDescriptionForVideoByToken(const std::string& token,
                                                                    JsonCallback callback) {
  if (auto error = MediaToken::check(token, "video token")) return refuse(*error, callback);
  return application_.connect().getJsonWithPath(
      getApiUrlWithType(VIDEO, "/" + token), nullptr,
      [callback = std::move(callback)](const std::optional<Json>& json,
                                       const HttpResponse& response, const OptionalError& error) {
        if (!callback) return;
        std::optional<Json> stream;
        if (json && json->is_object()) {
          auto found = json->find("original_stream");
          if (found != json->end()) stream = *found;
        }
        callback(stream, response, error);
      });
}

}  // namespace nembra
