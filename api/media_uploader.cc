#include "api/media_uploader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "api/media_urls.h"
#include "api/upload_resumption.h"
#include "api/upload_url_reply.h"
#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/reply_status.h"
#include "nembra/uploading_config.h"

namespace nembra {

namespace {

// The file part and submit path of each type. The extension and MIME pairings are the ones the
// storage side has always received (an "aac" sent as audio/wav, a "jpg" as image/png): kept.
// Another type has none, and its flow never gets that far.
struct TypeUpload {
  const char* extension = "";
  const char* mimeType = "";
  const char* submitFormat = "";  // media token, stream token
};

TypeUpload uploadFor(int type) {
  switch (type) {
    case VIDEO:
      return {"mp4", "video/mp4", "/videos/%s/streams/%s/video_submit"};
    case AUDIO:
      return {"aac", "audio/wav", "/audios/%s/streams/%s/audio_submit"};
    case IMAGE:
      return {"jpg", "image/png", "/images/%s/streams/%s/image_submit"};
    default:
      return {};
  }
}

// |pattern| with its two "%s" replaced by |a| and |b| in turn; "" stays "".
std::string format2(std::string pattern, const std::string& a, const std::string& b) {
  size_t at = pattern.find("%s");
  if (at == std::string::npos) return pattern;
  pattern.replace(at, 2, a);
  at = pattern.find("%s", at + a.size());
  if (at != std::string::npos) pattern.replace(at, 2, b);
  return pattern;
}

std::string lastPathComponent(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

// Why the file at |path| cannot be uploaded, if it cannot.
OptionalError checkUploadable(const std::string& path) {
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

Error cancelledError(const std::string& path) {
  return Error::cancelled("the upload of " + path + " was cancelled");
}

}  // namespace

MediaUploader::MediaUploader(Nembra& application, const std::string& journalDirectory,
                             std::function<void()> stopTimer)
    : application_(application),
      stopTimer_(std::move(stopTimer)),
      journal_(journalDirectory.empty()
                   ? UploadJournal::directoryFor(FileSystem::shared(), application.token())
                   : journalDirectory),
      hold_(application, [this](int status) { onReachabilityChanged(status); }) {}

MediaUploader::~MediaUploader() { *alive_ = false; }

void MediaUploader::onMain(std::function<void()> task) {
  std::weak_ptr<bool> alive = alive_;
  application_.mainQueue().async([alive, task = std::move(task)] {
    if (alive.lock()) task();
  });
}

void MediaUploader::setReachability(std::shared_ptr<Reachability> reachability,
                                    NotificationCenter& center) {
  hold_.setReachability(std::move(reachability), center);
}

bool MediaUploader::isUploading(const std::string& path) const {
  return std::any_of(live_.begin(), live_.end(),
                     [&](const TransferPtr& transfer) { return transfer->path == path; });
}

// ---- Starting ---------------------------------------------------------------------------

MediaUploader::TaskHandle MediaUploader::upload(int type, const std::string& path, const Json& data,
                                                JsonCallback callback, ProgressCallback progress,
                                                JsonCallback confirmCallback) {
  return startFlow(newTransfer(type, path, data, std::move(callback), std::move(progress),
                               std::move(confirmCallback)));
}

MediaUploader::TransferPtr MediaUploader::newTransfer(int type, const std::string& path,
                                                      const Json& data, JsonCallback callback,
                                                      ProgressCallback progress,
                                                      JsonCallback confirmCallback) {
  auto transfer = std::make_shared<UploadTransfer>();
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

MediaUploader::TaskHandle MediaUploader::startFlow(const TransferPtr& transfer) {
  if (application_.uploadingConfig().shouldTurnOffUploader()) {
    // A reload waiting for its turn ends quietly too.
    live_.remove(transfer);
    return nullptr;
  }
  (void)transfer->flow.transit(UploadEvent::Start);
  return requestUploadUrl(transfer);
}

MediaUploader::TaskHandle MediaUploader::requestUploadUrl(const TransferPtr& transfer) {
  // An unknown type asks "": the connection answers with its error.
  const std::string url = MediaUrls::of(application_).uploadUrl(transfer->type);
  stopTimer_();
  onMain([this, path = transfer->path] {
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->preparingToUploadWithPath) delegate->preparingToUploadWithPath(path);
  });
  if (auto error = checkUploadable(transfer->path)) {
    failBeforeRequest(transfer, std::move(*error));
    return nullptr;
  }
  if (!transfer->claim) {
    transfer->record.id = journal_.newId();
    transfer->record.createdUnix = std::chrono::duration_cast<std::chrono::seconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count();
    OptionalError claimError;
    transfer->claim = journal_.claim(transfer->record.id, &claimError);
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

void MediaUploader::failBeforeRequest(const TransferPtr& transfer, Error error) {
  (void)transfer->flow.transit(UploadEvent::Fail);
  onMain([this, transfer, error] {
    if (transfer->callback) transfer->callback(std::nullopt, HttpResponse{}, error);
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->errorWithError) delegate->errorWithError(error);
  });
  finish(transfer, /*keepRecord=*/false);
}

void MediaUploader::onUploadUrlReply(const TransferPtr& transfer, const std::optional<Json>& json,
                                     const HttpResponse& response, const OptionalError& error) {
  // Why the flow cannot go on: the connection's error, a cancel, or an answer with no storage
  // form in it. Only the first reaches the caller's callback.
  OptionalError stop = error;
  if (!stop && transfer->cancelRequested) stop = cancelledError(transfer->path);
  if (!stop) stop = ReplyStatus::check("the upload URL request", response, json);
  UploadUrlReply reply;
  if (!stop) stop = UploadUrlReply::parse(transfer->type, json, reply);
  // The caller hears the answer first, whatever it holds.
  if (transfer->callback) transfer->callback(json, response, error);
  if (stop) {
    (void)transfer->flow.transit(transfer->cancelRequested ? UploadEvent::Cancel
                                                           : UploadEvent::Fail);
    finish(transfer, /*keepRecord=*/false);
    auto delegate = application_.getUploadingDelegate();
    if (delegate && delegate->errorWithError) delegate->errorWithError(*stop);
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

// ---- The transfer -----------------------------------------------------------------------

void MediaUploader::startTransfer(const TransferPtr& transfer) {
  transfer->record.stage = UploadJournalEntry::Stage::Transferring;
  writeRecord(transfer);
  hold_.watch();
  if (hold_.waitsForWifi(hold_.status())) {
    // Started later, by the reachability change that brings Wi-Fi back.
    transfer->held = true;
    application_.log("holding the upload of " + transfer->path + " until Wi-Fi is reachable");
    return;
  }
  launchTransfer(transfer);
}

void MediaUploader::launchTransfer(const TransferPtr& transfer) {
  transfer->held = false;
  const UploadJournalEntry& record = transfer->record;
  TypeUpload upload = uploadFor(transfer->type);
  // Taken before the body is copied: a file that differs at the end changed while it was sent.
  if (auto stamp = UploadFileStamp::of(transfer->path)) transfer->stamp = *stamp;
  transfer->record.fileSize = transfer->stamp.size;
  transfer->record.fileModifiedNs = transfer->stamp.modifiedNs;

  std::weak_ptr<bool> alive = alive_;
  MainQueue& main = application_.mainQueue();
  std::weak_ptr<UploadTransfer> weakTransfer = transfer;
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

void MediaUploader::onTransferProgress(const TransferPtr& transfer) {
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

void MediaUploader::onTransferEnded(const TransferPtr& transfer, const HttpResponse& response,
                                    OptionalError error) {
  if (transfer->flow.stage() != UploadStage::Transferring) return;
  if (!error && transfer->cancelRequested) error = cancelledError(transfer->path);
  // Storage that refuses the form has not taken the file: that is the transfer's failure.
  if (!error) error = ReplyStatus::check("storage", response);
  if (!error) {
    auto now = UploadFileStamp::of(transfer->path);
    if (!now || !(*now == transfer->stamp)) {
      transfer->fileChanged = true;
      error = Error::file(transfer->path +
                          " changed while it was being uploaded; it is kept and was not "
                          "confirmed, upload it again once it is complete");
    }
  }
  if (error) return endTransferWithError(transfer, *error);

  (void)transfer->flow.transit(UploadEvent::BodySent);
  unwatchIfIdle();
  transfer->record.stage = UploadJournalEntry::Stage::Transferred;
  writeRecord(transfer);
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->uploadFinishedWithPath) {
    delegate->uploadFinishedWithPath(transfer->path, transfer->record.mediaToken,
                                     transfer->record.streamToken);
  }
  sendConfirm(transfer);
}

void MediaUploader::endTransferWithError(const TransferPtr& transfer, const Error& failure) {
  stopTimer_();
  const bool cancelled = transfer->cancelRequested || failure.kind == ErrorKind::Cancelled;
  // A form kept from an earlier process that storage now refuses (its policy expired): ask for
  // a new upload URL once.
  if (!cancelled && transfer->resumed && !transfer->formRefused &&
      failure.kind == ErrorKind::Http && failure.code >= 400 && failure.code < 500) {
    transfer->formRefused = true;
    (void)transfer->flow.transit(UploadEvent::FormRefused);
    live_.remove(transfer);
    unwatchIfIdle();
    application_.log("storage refused the kept form of " + transfer->path +
                     "; asking for a new upload URL");
    requestUploadUrl(transfer);
    return;
  }
  (void)transfer->flow.transit(cancelled ? UploadEvent::Cancel : UploadEvent::Fail);
  const int32_t action = application_.uploadingConfig().lostConnectionAction();
  // A cancelled upload is not resumed later; a continued one keeps its record for that.
  bool keepRecord = false;
  // A file that changed under its transfer is the caller's to send again once complete; no
  // action may touch it.
  if (!transfer->fileChanged) {
    switch (action) {
      case UPLOADING_ERROR_ACTION_RELOAD_MEDIA:
        reload(transfer);
        break;
      case UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION:
        application_.sendLocalNotification("Failed to upload " + lastPathComponent(transfer->path) +
                                           ".");
        break;
      case UPLOADING_ERROR_ACTION_DELETE_MEDIA:
        Utils::removeFileWithPath(transfer->path);
        break;
      default:
        keepRecord = !cancelled;
        break;
    }
  }
  finish(transfer, keepRecord);
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->errorWithInfo) delegate->errorWithInfo(std::nullopt, failure, action);
}

void MediaUploader::reload(const TransferPtr& transfer) {
  auto again = newTransfer(transfer->type, transfer->path, transfer->data, transfer->callback,
                           transfer->progress, transfer->confirmCallback);
  again->reloads = transfer->reloads + 1;
  // No cap: a storage that keeps failing is tried again and again, less and less often.
  auto delay = reloadDelay_;
  for (int i = 1; i < again->reloads && delay < kMaxReloadDelay; ++i) delay *= 2;
  delay = std::min(delay, kMaxReloadDelay);
  application_.log("uploading " + transfer->path + " again in " + std::to_string(delay.count()) +
                   " ms (attempt " + std::to_string(again->reloads + 1) + ")");
  live_.push_back(again);
  std::weak_ptr<bool> alive = alive_;
  std::weak_ptr<UploadTransfer> weakAgain = again;
  again->reloadTimer = Timer::oneShot(application_.mainQueue(), delay, [this, alive, weakAgain] {
    auto pending = weakAgain.lock();
    if (!alive.lock() || !pending) return;
    if (std::find(live_.begin(), live_.end(), pending) == live_.end()) return;
    startFlow(pending);
  });
}

// ---- Confirm ----------------------------------------------------------------------------

void MediaUploader::sendConfirm(const TransferPtr& transfer) {
  std::weak_ptr<bool> alive = alive_;
  MainQueue& main = application_.mainQueue();
  const UploadJournalEntry& record = transfer->record;
  application_.connect().postJsonWithPath(
      MediaUrls::of(application_).confirmUrl(transfer->type, record.mediaToken, record.streamToken),
      Json::object(),
      [this, alive, &main, transfer](const std::optional<Json>& json, const HttpResponse& response,
                                     const OptionalError& error) {
        main.async([this, alive, transfer, json, response, error] {
          if (alive.lock()) onConfirmReply(transfer, json, response, error);
        });
      });
}

void MediaUploader::onConfirmReply(const TransferPtr& transfer, const std::optional<Json>& json,
                                   const HttpResponse& response, const OptionalError& error) {
  if (!transfer->flow.transit(UploadEvent::Confirmed)) return;
  uploadCompleted(transfer, json, response, error);
  // The file is gone either way. A confirm that may pass later stays recorded, to be sent again
  // by a later resume; one already taken is finished, and a final refusal (an unplayable file)
  // ends here with its error, once.
  const bool taken = (!error && ReplyStatus::isSuccess(response.status)) ||
                     (!error && ReplyStatus::isAlreadyConfirmed(response, json));
  finish(transfer, /*keepRecord=*/!taken && ReplyStatus::mayPassLater(response, error));
  if (transfer->confirmCallback) transfer->confirmCallback(json, response, error);
}

void MediaUploader::uploadCompleted(const TransferPtr& transfer, const std::optional<Json>& json,
                                    const HttpResponse& response, const OptionalError& error) {
  stopTimer_();
  const UploadJournalEntry& record = transfer->record;
  auto delegate = application_.getUploadingDelegate();
  if (delegate && delegate->uploadVerifiedWithPath) {
    delegate->uploadVerifiedWithPath(transfer->path, record.mediaToken, record.streamToken,
                                     response, error, json);
  }
  // A confirm error does not keep the file: storage already holds it.
  if (!record.mediaToken.empty()) application_.cacheManager().removeFile(transfer->path);
}

// ---- Cancel -----------------------------------------------------------------------------

void MediaUploader::cancel(const std::string& path, bool deleteFile) {
  stopTimer_();
  TransferPtr found;
  for (auto it = live_.rbegin(); it != live_.rend() && !found; ++it) {
    if ((*it)->path == path && (*it)->flow.stage() != UploadStage::Confirming) found = *it;
  }
  if (found) {
    found->cancelRequested = true;
    if (found->flow.stage() == UploadStage::Idle) {
      // A reload waiting for its turn: nothing runs yet, so it just ends.
      found->reloadTimer.reset();
      finish(found, false);
      const Error error = cancelledError(path);
      const int32_t action = application_.uploadingConfig().lostConnectionAction();
      onMain([this, error, action] {
        auto delegate = application_.getUploadingDelegate();
        if (delegate && delegate->errorWithInfo)
          delegate->errorWithInfo(std::nullopt, error, action);
      });
    } else if (found->held) {
      // No task would end it: its end-of-transfer step runs from the main queue, unless Wi-Fi
      // came back first and its task now runs.
      onMain([this, found, path] {
        if (found->flow.stage() != UploadStage::Transferring) return;
        if (found->held) {
          endTransferWithError(found, cancelledError(path));
        } else if (found->task) {
          found->task->cancel();
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

// ---- Journaled uploads ------------------------------------------------------------------

void MediaUploader::adopt(UploadJournalEntry record, std::unique_ptr<FileLock> claim) {
  auto transfer = newTransfer(record.type, record.path, record.data, nullptr, nullptr, nullptr);
  transfer->record = std::move(record);
  transfer->claim = std::move(claim);
  transfer->resumed = true;
  live_.push_back(transfer);
  // Started from the main queue, so the delegate never hears of it on the caller's stack.
  onMain([this, transfer] { restart(transfer); });
}

void MediaUploader::restart(const TransferPtr& transfer) {
  const UploadJournalEntry& record = transfer->record;
  application_.log("restarting the upload of " + record.path + " (" +
                   UploadJournalEntry::stageName(record.stage) + ")");
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  switch (UploadResumption::plan(record, now, FileSystem::fileExists(record.path))) {
    case UploadResumption::Step::Confirm:
      (void)transfer->flow.transit(UploadEvent::ResumeConfirm);
      sendConfirm(transfer);
      return;
    case UploadResumption::Step::FileMissing: {
      Error error = Error::file("the upload of " + record.path +
                                " cannot be restarted: the file no longer exists");
      (void)transfer->flow.transit(UploadEvent::Cancel);
      finish(transfer, false);
      auto delegate = application_.getUploadingDelegate();
      if (delegate && delegate->errorWithError) delegate->errorWithError(error);
      return;
    }
    case UploadResumption::Step::Transfer: {
      (void)transfer->flow.transit(UploadEvent::ResumeTransfer);
      stopTimer_();
      auto delegate = application_.getUploadingDelegate();
      if (delegate && delegate->preparingToUploadWithPath) {
        delegate->preparingToUploadWithPath(record.path);
      }
      startTransfer(transfer);
      return;
    }
    case UploadResumption::Step::AskForUrl:
      (void)transfer->flow.transit(UploadEvent::Start);
      requestUploadUrl(transfer);
      return;
  }
}

void MediaUploader::finish(const TransferPtr& transfer, bool keepRecord) {
  live_.remove(transfer);
  unwatchIfIdle();
  if (!keepRecord && !transfer->record.id.empty()) {
    if (auto error = journal_.remove(transfer->record.id)) {
      application_.log("cannot forget the upload record of " + transfer->path + ": " +
                       error->message);
    }
  }
  if (transfer->claim && !keepRecord) transfer->claim->removeFileOnRelease();
  transfer->claim.reset();
}

void MediaUploader::writeRecord(const TransferPtr& transfer) {
  if (!transfer->claim) return;
  if (auto error = journal_.write(transfer->record)) {
    application_.log("cannot journal the upload of " + transfer->path + ": " + error->message);
  }
}

// ---- Reachability -----------------------------------------------------------------------

void MediaUploader::unwatchIfIdle() {
  bool transferring = std::any_of(live_.begin(), live_.end(), [](const TransferPtr& t) {
    return t->flow.stage() == UploadStage::Transferring;
  });
  if (!transferring) hold_.unwatch();
}

void MediaUploader::onReachabilityChanged(int status) {
  const bool hold = hold_.suspends(status);
  // A copy: launching a held transfer may call out to the delegate, which may cancel others.
  std::list<TransferPtr> transfers = live_;
  for (const TransferPtr& transfer : transfers) {
    if (transfer->flow.stage() != UploadStage::Transferring) continue;
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

}  // namespace nembra
