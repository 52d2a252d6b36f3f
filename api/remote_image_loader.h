// Loads pictures for screens: a local path or file:// URI is read from disk; an http(s) URL is
// taken from the image cache directory of the players' cache manager when there, otherwise
// downloaded (transport failures and timeouts are retried; an HTTP error status is not) and
// stored there. The bytes are decoded by the media plug-in within the size asked for, and kept
// in a memory cache bounded by bytes. When a decode of the same picture at another size is in
// memory it is handed over first as a preview, before the full one.
//
// Threading: any thread may call. Reading, downloading and decoding run on the concurrent
// queue "com.nembra.imageLoader"; results arrive on the application's main queue.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "api/image_memory_cache.h"
#include "nembra/error.h"
#include "platform/media/picture.h"

namespace nembra {

class ConcurrentQueue;
class HttpClient;
class ImageCodec;
class Nembra;

struct ImageLoadResult {
  SharedPicture picture;
  // A lower-resolution picture already at hand; the full one follows.
  bool preview = false;
  // Where the bytes came from: "memory", "disk" (a local file or the disk cache), "network".
  std::string source;
  int64_t bytes = 0;
  // The download's speed; 0 when nothing was downloaded.
  double bytesPerSecond = 0;
};

class RemoteImageLoader {
 public:
  struct Options {
    int retries = 2;  // extra attempts after a transport failure
    std::chrono::milliseconds retryDelay{300};
    size_t memoryCacheBytes = 96u << 20;
  };

  // A load in flight; cancel() stops its callbacks.
  class Ticket {
   public:
    void cancel() { cancelled_ = true; }
    bool cancelled() const { return cancelled_; }

   private:
    std::atomic<bool> cancelled_{false};
  };

  // Called once with the full result or an error, after at most one preview.
  using Handler = std::function<void(const ImageLoadResult& result, const OptionalError& error)>;

  // |application| must outlive the loader; |client| null for the platform's HTTP client.
  RemoteImageLoader(Nembra& application, std::unique_ptr<HttpClient> client, Options options);
  explicit RemoteImageLoader(Nembra& application);
  ~RemoteImageLoader();

  RemoteImageLoader(const RemoteImageLoader&) = delete;
  RemoteImageLoader& operator=(const RemoteImageLoader&) = delete;

  std::shared_ptr<Ticket> load(const std::string& uri, const PictureLimits& limits,
                               Handler handler);

  // The speed of the most recent download, bytes per second (0 before any).
  double downloadSpeed() const { return lastSpeed_.load(); }
  ImageMemoryCache& memoryCache() { return memory_; }
  // Where a remote |uri| is kept on disk.
  std::string diskCachePath(const std::string& uri);

 private:
  struct Job;
  void fetch(std::shared_ptr<Job> job);
  void download(std::shared_ptr<Job> job, int attempt);
  void decode(std::shared_ptr<Job> job, std::string bytes, std::string source,
              std::string contentType);
  void finish(std::shared_ptr<Job> job, ImageLoadResult result, OptionalError error);

  Nembra& application_;
  Options options_;
  std::unique_ptr<HttpClient> client_;
  std::unique_ptr<ImageCodec> codec_;
  ImageMemoryCache memory_;
  std::atomic<double> lastSpeed_{0};
  std::unique_ptr<ConcurrentQueue> work_;
  // Work posted to the queues checks it: the loader may be gone when it runs.
  std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
  // Held by a download's completion (on the HTTP client's thread) while it uses the loader, and
  // by the destructor while it clears alive_: a completion that saw the loader alive finishes
  // with it before the queues go.
  std::shared_ptr<std::mutex> completing_ = std::make_shared<std::mutex>();
};

}  // namespace nembra
