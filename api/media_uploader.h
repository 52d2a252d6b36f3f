// The three-step upload of a local file: ask the service for a storage URL, post the file to
// storage as a multipart form, confirm. It journals every upload (UploadJournal) from its start
// until the service has answered its confirm, holds transfers while the network does not allow
// them (UploadNetworkHold), and carries out the configured lost-connection action when a
// transfer ends with an error, a cancelled one included.
//
// The caller's callbacks get the answers as the connection delivers them (an HTTP error status
// is an ordinary answer with no error); the flow itself stops on an answer it cannot use and
// tells the delegate's errorWithError why.
//
// Threading: call from the main queue. Delegate calls and the callbacks (upload-URL answer,
// progress, confirm answer) run on the main queue.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "api/upload_journal.h"
#include "api/upload_network_hold.h"
#include "api/upload_transfer.h"
#include "nembra/media_callbacks.h"

namespace nembra {

class Nembra;

class MediaUploader {
 public:
  using TaskHandle = MediaCallbacks::TaskHandle;
  using JsonCallback = MediaCallbacks::JsonCallback;
  using ProgressCallback = MediaCallbacks::ProgressCallback;

  // Action 552 waits this long before its first new attempt, twice as long before each next
  // one, and never longer than kMaxReloadDelay.
  static constexpr std::chrono::milliseconds kDefaultReloadDelay{1000};
  static constexpr std::chrono::milliseconds kMaxReloadDelay{60000};

  // |journalDirectory| "" is UploadJournal::directoryFor the application's token. |stopTimer|
  // runs at the start and end of each upload. The owner must outlive this object.
  MediaUploader(Nembra& application, const std::string& journalDirectory,
                std::function<void()> stopTimer);
  ~MediaUploader();

  MediaUploader(const MediaUploader&) = delete;
  MediaUploader& operator=(const MediaUploader&) = delete;

  // Starts the flow for the file at |path| (a plain path) with |data| as the upload-URL
  // request's parameters. Returns that request's task; nothing when the uploader is turned off
  // (then nothing at all happens) or when the file is refused before any request (the callback
  // and the delegate's errorWithError then say why).
  TaskHandle upload(int type, const std::string& path, const Json& data, JsonCallback callback,
                    ProgressCallback progress, JsonCallback confirmCallback);
  // Cancels the transfer of |path| (the last transfer started when none of |path| runs): it ends
  // with a Cancelled error and its end-of-transfer step, the lost-connection action included.
  // With |deleteFile| also deletes |path|.
  void cancel(const std::string& path, bool deleteFile);
  // Takes over a journaled upload claimed by |claim|; it restarts from the main queue.
  void adopt(UploadJournalEntry record, std::unique_ptr<FileLock> claim);

  void setReachability(std::shared_ptr<Reachability> reachability, NotificationCenter& center);
  void setReloadDelay(std::chrono::milliseconds first) { reloadDelay_ = first; }

  TaskHandle uploadTask() const { return uploadTask_; }
  size_t activeUploadCount() const { return live_.size(); }
  bool isUploading(const std::string& path) const;
  UploadJournal& journal() { return journal_; }

 private:
  using TransferPtr = std::shared_ptr<UploadTransfer>;

  TransferPtr newTransfer(int type, const std::string& path, const Json& data,
                          JsonCallback callback, ProgressCallback progress,
                          JsonCallback confirmCallback);
  TaskHandle startFlow(const TransferPtr& transfer);
  TaskHandle requestUploadUrl(const TransferPtr& transfer);
  void onUploadUrlReply(const TransferPtr& transfer, const std::optional<Json>& json,
                        const HttpResponse& response, const OptionalError& error);
  void startTransfer(const TransferPtr& transfer);
  void launchTransfer(const TransferPtr& transfer);
  void onTransferProgress(const TransferPtr& transfer);
  void onTransferEnded(const TransferPtr& transfer, const HttpResponse& response,
                       OptionalError error);
  void endTransferWithError(const TransferPtr& transfer, const Error& failure);
  void reload(const TransferPtr& transfer);
  void sendConfirm(const TransferPtr& transfer);
  void onConfirmReply(const TransferPtr& transfer, const std::optional<Json>& json,
                      const HttpResponse& response, const OptionalError& error);
  void uploadCompleted(const TransferPtr& transfer, const std::optional<Json>& json,
                       const HttpResponse& response, const OptionalError& error);
  void restart(const TransferPtr& transfer);
  void failBeforeRequest(const TransferPtr& transfer, Error error);
  void finish(const TransferPtr& transfer, bool keepRecord);
  void writeRecord(const TransferPtr& transfer);
  void onReachabilityChanged(int status);
  void unwatchIfIdle();
  void onMain(std::function<void()> task);

  Nembra& application_;
  std::function<void()> stopTimer_;
  UploadJournal journal_;
  UploadNetworkHold hold_;
  std::chrono::milliseconds reloadDelay_ = kDefaultReloadDelay;
  TaskHandle uploadTask_;
  // Every unfinished flow, oldest first, a reload waiting for its turn included.
  std::list<TransferPtr> live_;
  // Main-queue tasks hold it weakly and do nothing once it is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
