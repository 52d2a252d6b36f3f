#include "platform/http/http_curl_client.h"

#include <cstdlib>

#include "platform/http/http_body_file.h"
#include "platform/http/http_ca_bundle.h"
#include "platform/http/http_curl_loop.h"
#include "platform/http/http_curl_transfer.h"

namespace nembra {

namespace {

// The bundle file curl was built to trust; empty when it has none.
std::string systemBundlePath() {
  CURL* probe = curl_easy_init();
  if (!probe) return {};
  char* path = nullptr;
  curl_easy_getinfo(probe, CURLINFO_CAINFO, &path);
  std::string result = path ? path : "";
  curl_easy_cleanup(probe);
  return result;
}

}  // namespace

CurlHttpClient::Options CurlHttpClient::Options::fromEnvironment() {
  Options options;
  if (const char* path = std::getenv("NEMBRA_CA_BUNDLE"); path && *path) {
    options.extraRootsPath = path;
  }
  return options;
}

CurlHttpClient::CurlHttpClient(Options options) : loop_(std::make_shared<CurlMultiLoop>()) {
  auto settings = std::make_shared<CurlTransferSettings>();
  settings->connectTimeout = options.connectTimeout;
  settings->firstByteTimeout = options.firstByteTimeout;
  settings->lowSpeedLimit = options.lowSpeedLimit;
  settings->lowSpeedTime = options.lowSpeedTime;
  if (options.extraRootsPath) {
    settings->caBundle = HttpCaBundle::withExtraRoots(systemBundlePath(), *options.extraRootsPath,
                                                      configurationError_);
  }
  settings_ = std::move(settings);
}

CurlHttpClient::~CurlHttpClient() { loop_->shutdown(); }

std::shared_ptr<HttpTask> CurlHttpClient::dataTask(HttpRequest request, HttpTaskEvents events) {
  return makeTask(std::move(request), std::move(events), nullptr, configurationError_);
}

std::shared_ptr<HttpTask> CurlHttpClient::uploadTask(HttpRequest request,
                                                     std::unique_ptr<HttpBodyFile> body,
                                                     HttpTaskEvents events) {
  return makeTask(std::move(request), std::move(events), std::move(body), configurationError_);
}

std::shared_ptr<HttpTask> CurlHttpClient::failedTask(HttpRequest request, Error error,
                                                     HttpTaskEvents events) {
  return makeTask(std::move(request), std::move(events), nullptr, std::move(error));
}

std::shared_ptr<HttpTask> CurlHttpClient::makeTask(HttpRequest request, HttpTaskEvents events,
                                                   std::unique_ptr<HttpBodyFile> body,
                                                   OptionalError presetError) {
  return std::make_shared<CurlTransfer>(nextIdentifier_++, std::move(request), std::move(events),
                                        loop_, settings_, std::move(body), std::move(presetError));
}

}  // namespace nembra
