#include "api/remote_image_loader.h"

#include <cstdio>

#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "platform/dispatch/concurrent_queue.h"
#include "platform/files/file_system.h"
#include "platform/http/http_client.h"
#include "platform/http/http_curl_client.h"
#include "platform/media/image_codec.h"

namespace nembra {
namespace {

using Clock = std::chrono::steady_clock;

bool isRemote(const std::string& uri) {
  return uri.rfind("http://", 0) == 0 || uri.rfind("https://", 0) == 0;
}

std::string localPath(const std::string& uri) {
  return uri.rfind("file://", 0) == 0 ? uri.substr(7) : uri;
}

// A stable file-name-safe key for a URL: FNV-1a, 64 bits, in hex.
std::string urlKey(const std::string& uri) {
  uint64_t hash = 1469598103934665603ull;
  for (unsigned char c : uri) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  char text[24];
  std::snprintf(text, sizeof text, "u%016llx", static_cast<unsigned long long>(hash));
  return text;
}

std::string sizeKey(const std::string& uri, const PictureLimits& limits) {
  return uri + "#" + std::to_string(limits.maxWidth) + "x" + std::to_string(limits.maxHeight);
}

}  // namespace

struct RemoteImageLoader::Job {
  std::string uri;
  PictureLimits limits;
  Handler handler;
  std::shared_ptr<Ticket> ticket;
  int64_t downloaded = 0;
  double bytesPerSecond = 0;
};

RemoteImageLoader::RemoteImageLoader(Nembra& application, std::unique_ptr<HttpClient> client,
                                     Options options)
    : application_(application),
      options_(options),
      client_(client ? std::move(client) : std::make_unique<CurlHttpClient>()),
      memory_(options.memoryCacheBytes),
      work_(std::make_unique<ConcurrentQueue>("com.nembra.imageLoader", 2)) {}

RemoteImageLoader::RemoteImageLoader(Nembra& application)
    : RemoteImageLoader(application, nullptr, Options{}) {}

RemoteImageLoader::~RemoteImageLoader() {
  {
    std::lock_guard lock(*completing_);
    *alive_ = false;
  }
  // Joins the workers; downloads still running complete into a dead flag.
  work_.reset();
  client_.reset();
}

std::string RemoteImageLoader::diskCachePath(const std::string& uri) {
  return application_.playerCacheManager().getCacheFilePathWithType(IMAGE, urlKey(uri));
}

std::shared_ptr<RemoteImageLoader::Ticket> RemoteImageLoader::load(const std::string& uri,
                                                                   const PictureLimits& limits,
                                                                   Handler handler) {
  auto job = std::make_shared<Job>();
  job->uri = uri;
  job->limits = limits;
  job->handler = std::move(handler);
  job->ticket = std::make_shared<Ticket>();
  auto ticket = job->ticket;
  if (SharedPicture hit = memory_.get(sizeKey(uri, limits))) {
    finish(job, ImageLoadResult{hit, false, "memory", 0, 0}, std::nullopt);
    return ticket;
  }
  if (SharedPicture other = memory_.findByPrefix(uri + "#")) {
    auto preview = job->handler;
    application_.mainQueue().async([preview, other, ticket, alive = alive_] {
      if (*alive && !ticket->cancelled()) {
        preview(ImageLoadResult{other, true, "memory", 0, 0}, std::nullopt);
      }
    });
  }
  work_->async([this, job, alive = alive_] {
    if (*alive && !job->ticket->cancelled()) fetch(job);
  });
  return ticket;
}

void RemoteImageLoader::fetch(std::shared_ptr<Job> job) {
  if (!isRemote(job->uri)) {
    OptionalError error;
    auto bytes = FileSystem::readFile(localPath(job->uri), &error);
    if (!bytes) {
      finish(job, {},
             Error::file(job->uri + ": cannot read the picture" +
                         (error ? ": " + error->message : std::string())));
      return;
    }
    decode(job, std::move(*bytes), "disk", "");
    return;
  }
  const std::string cached = diskCachePath(job->uri);
  if (!cached.empty() && FileSystem::fileExists(cached)) {
    if (auto bytes = FileSystem::readFile(cached)) {
      decode(job, std::move(*bytes), "disk", "");
      return;
    }
  }
  download(job, 0);
}

void RemoteImageLoader::download(std::shared_ptr<Job> job, int attempt) {
  HttpRequest request;
  request.url = job->uri;
  const auto started = Clock::now();
  HttpTaskEvents events;
  events.completion = [this, job, attempt, started, alive = alive_, completing = completing_](
                          HttpTask&, std::vector<uint8_t> body, const HttpResponse& response,
                          const OptionalError& error) {
    std::lock_guard lock(*completing);
    if (!*alive || job->ticket->cancelled()) return;
    if (error) {
      const bool retry =
          (error->kind == ErrorKind::Transport || error->kind == ErrorKind::Timeout) &&
          attempt < options_.retries;
      if (retry) {
        work_->asyncAfter(options_.retryDelay, [this, job, attempt, alive] {
          if (*alive && !job->ticket->cancelled()) download(job, attempt + 1);
        });
        return;
      }
      Error failed = *error;
      failed.message = job->uri + ": " + failed.message;
      finish(job, {}, failed);
      return;
    }
    if (response.status < 200 || response.status > 299) {
      finish(job, {},
             Error::http(response.status, job->uri + ": the server answered HTTP " +
                                              std::to_string(response.status)));
      return;
    }
    const double seconds =
        std::max(1e-6, std::chrono::duration<double>(Clock::now() - started).count());
    job->downloaded = static_cast<int64_t>(body.size());
    job->bytesPerSecond = double(body.size()) / seconds;
    lastSpeed_ = job->bytesPerSecond;
    std::string bytes(body.begin(), body.end());
    std::string contentType = response.header("Content-Type").value_or("");
    work_->async([this, job, bytes = std::move(bytes), contentType, alive]() mutable {
      if (*alive && !job->ticket->cancelled()) {
        decode(job, std::move(bytes), "network", std::move(contentType));
      }
    });
  };
  client_->dataTask(std::move(request), std::move(events))->resume();
}

void RemoteImageLoader::decode(std::shared_ptr<Job> job, std::string bytes, std::string source,
                               std::string contentType) {
  if (!codec_) {
    // Made once; the codec keeps no state, so both workers may use it.
    static std::mutex creating;
    std::lock_guard lock(creating);
    if (!codec_) codec_ = makeImageCodec();
  }
  auto picture = std::make_shared<Picture>();
  std::span<const uint8_t> view(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  if (auto error = codec_->decodePicture(view, job->limits, *picture)) {
    if (contentType.rfind("text/", 0) == 0) {
      error->message = "the answer is " + contentType + ", not a picture";
    }
    error->message = job->uri + ": " + error->message;
    finish(job, {}, *error);
    return;
  }
  if (source == "network") {
    // Only pictures that decode are worth keeping on disk.
    const std::string path = diskCachePath(job->uri);
    if (!path.empty() &&
        !FileSystem::writeFileAtomically(path, bytes, FileSystem::Durability::ProcessSafe)) {
      application_.playerCacheManager().trimCacheWithType(IMAGE);
    }
  }
  SharedPicture shared = picture;
  memory_.put(sizeKey(job->uri, job->limits), shared);
  finish(job,
         ImageLoadResult{shared, false, source, static_cast<int64_t>(bytes.size()),
                         job->bytesPerSecond},
         std::nullopt);
}

void RemoteImageLoader::finish(std::shared_ptr<Job> job, ImageLoadResult result,
                               OptionalError error) {
  application_.mainQueue().async(
      [job, result = std::move(result), error = std::move(error), alive = alive_] {
        if (*alive && !job->ticket->cancelled()) job->handler(result, error);
      });
}

}  // namespace nembra
