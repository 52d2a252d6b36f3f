#include "api/media_downloader.h"

#include <filesystem>
#include <future>

#include "api/media_token.h"
#include "api/media_urls.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/reply_status.h"
#include "platform/files/file_system.h"
#include "platform/http/http_curl_client.h"
#include "platform/http/url_redaction.h"

namespace nembra {

MediaDownloader::MediaDownloader(Nembra& application, std::unique_ptr<HttpClient> client)
    : application_(application), client_(std::move(client)) {}

MediaDownloader::~MediaDownloader() { *alive_ = false; }

void MediaDownloader::onMain(std::function<void()> task) {
  std::weak_ptr<bool> alive = alive_;
  application_.mainQueue().async([alive, task = std::move(task)] {
    if (alive.lock()) task();
  });
}

HttpClient& MediaDownloader::client() {
  if (!client_) client_ = std::make_unique<CurlHttpClient>();
  return *client_;
}

void MediaDownloader::download(int type, const std::string& token, DownloadCallback callback) {
  auto fail = [this, callback](Error error) {
    onMain([callback, error] {
      if (callback) callback(std::nullopt, error);
    });
  };
  const std::string kind = *mediaTypeName(type) ? mediaTypeName(type) : "media";
  if (auto error = MediaToken::check(token, kind + " token")) return fail(*error);
  NembraCacheManager& cache = application_.cacheManager();
  const std::string cachePath = cache.getCacheFilePathWithType(type, token);
  if (cachePath.empty()) {
    return fail(
        Error::file("there is no cache directory for " + kind + " type " + std::to_string(type)));
  }
  // A download always fetches afresh.
  if (cache.fileExists(cachePath)) cache.removeFile(cachePath);
  application_.config();  // made here, read on the background queue below
  background_.async([this, type, token, cachePath, callback] {
    std::string url = MediaUrls::of(application_).mediaUrl(type, token);
    onMain([this, type, url, cachePath, callback] { fetch(type, url, cachePath, callback); });
  });
}

void MediaDownloader::fetch(int type, const std::string& url, const std::string& cachePath,
                            const DownloadCallback& callback) {
  // Read whole and at once on the main queue: kept so, hosts call this expecting the main queue
  // to be held until the file is in place.
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
  auto task = client().dataTask(request, std::move(events));
  task->resume();
  Result result = done->get_future().get();
  OptionalError error = result.error;
  // An error page is not the media file: nothing of it is cached.
  if (!error) error = ReplyStatus::check("the download of " + redactUrl(url), result.response);
  if (!error && result.body.empty()) {
    error = Error::http(result.response.status, redactUrl(url) + " sent no data");
  }
  if (!error) {
    auto parent = std::filesystem::path(cachePath).parent_path().string();
    error = FileSystem::createDirectories(parent);
    if (!error) {
      error = FileSystem::writeFileAtomically(
          cachePath,
          std::string_view(reinterpret_cast<const char*>(result.body.data()), result.body.size()));
    }
  }
  if (error) {
    if (callback) callback(std::nullopt, error);
    return;
  }
  NembraCacheManager& cache = application_.cacheManager();
  cache.trimCacheWithType(type);
  if (!cache.fileExists(cachePath)) {
    error = Error::file(redactUrl(url) + " is larger than the cache's limit of " +
                        std::to_string(application_.cacheConfig().maxCacheSize()) +
                        " bytes and was not kept");
    if (callback) callback(std::nullopt, error);
    return;
  }
  if (callback) callback(cachePath, std::nullopt);
}

}  // namespace nembra
