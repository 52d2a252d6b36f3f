// Fetches a media file afresh into the local cache (a cached copy is deleted first), trims the
// type's cache and hands back the cached path.
//
// Threading: call from the main queue. The URL is built on a background queue, the blocking read
// runs on the main queue, and the callback runs on the main queue.
#pragma once

#include <memory>
#include <string>

#include "nembra/media_callbacks.h"
#include "platform/dispatch/concurrent_queue.h"
#include "platform/http/http_client.h"

namespace nembra {

class Nembra;

class MediaDownloader {
 public:
  using DownloadCallback = MediaCallbacks::DownloadCallback;

  // An empty |client| gets the platform one when first needed. The owner must outlive this.
  MediaDownloader(Nembra& application, std::unique_ptr<HttpClient> client);
  ~MediaDownloader();

  MediaDownloader(const MediaDownloader&) = delete;
  MediaDownloader& operator=(const MediaDownloader&) = delete;

  void download(int type, const std::string& token, DownloadCallback callback);

 private:
  // Runs |task| on the main queue unless this object is gone by then.
  void onMain(std::function<void()> task);
  void fetch(int type, const std::string& url, const std::string& cachePath,
             const DownloadCallback& callback);
  HttpClient& client();

  Nembra& application_;
  std::unique_ptr<HttpClient> client_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  // Last: destroyed first, running what is posted to it while the members above still live.
  ConcurrentQueue background_{"com.nembra.downloads.background", 1};
};

}  // namespace nembra
