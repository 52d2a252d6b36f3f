// The caching loader: every byte the player wants of a remote video comes through it. It turns
// each loading request into one HTTP range request, answers with exactly the bytes asked for
// (cut out of the body when the server ignores the range), keeps every range received for the
// life of the loader (datasForSavingToCache, in a file-backed SpanStore), and hands the whole
// file to its delegate as soon as the ranges cover it. A network failure is remembered for
// networkTimeout seconds so that, offline, new requests fail at once instead of waiting.
//
// Threading: the loading-request operations may be called from any thread and the session's
// events arrive on the HTTP client's callback queue; all of them run under one lock, so the
// three parallel lists and the ranges are touched by one thread at a time. Delegate calls are
// made under that lock on whichever thread caused them: a delegate must only hand work on
// (post it) and never call back into the loader from them.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "nembra/http_task.h"
#include "platform/http/http_client.h"
#include "playback/asset_loading_request.h"
#include "playback/nembra_asset_loader_helpers.h"
#include "playback/span_store.h"

namespace nembra {

class NembraAssetLoaderDelegate;

// Bytes the loader received, as they sit in its store: |length| bytes of the file at |path|
// from |offset|. The whole file (offset 0) is the delegate's to move away (rename it); what is
// left in the store is removed with the loader.
struct LoadedData {
  std::string path;
  uint64_t offset = 0;
  uint64_t length = 0;
};

// A remembered network failure and when it happened.
struct NembraAssetLoaderError {
  static NembraAssetLoaderError loaderErrorWithError(Error error);
  Error error;
  std::chrono::steady_clock::time_point date;
};

// The loader's delegate (the player). Each callback is optional; the misspelt "Recieve" is the
// name delegates implement and is kept.
struct NembraAssetLoaderDelegatesDelegate {
  virtual ~NembraAssetLoaderDelegatesDelegate() = default;

  // A new range arrived.
  std::function<void(NembraAssetLoaderDelegate& loader, const LoadedData& data,
                     const LoaderRange& range, const std::string& url)>
      didLoadDataForRange;
  // The whole file is available (handed over once).
  std::function<void(NembraAssetLoaderDelegate& loader, const LoadedData& data,
                     const std::string& url)>
      didLoadDataForURL;
  std::function<void(NembraAssetLoaderDelegate& loader, const LoadedData& data,
                     const std::string& url, const std::string& mimeType)>
      didLoadDataForURLWithMIMEType;
  // A failure; |task| may be null.
  std::function<void(NembraAssetLoaderDelegate& loader, const Error& error,
                     std::shared_ptr<HttpTask> task, std::shared_ptr<AssetLoadingRequest> request)>
      didRecieveLoadingErrorWithDataTaskForRequest;
};

class NembraAssetLoaderDelegate : public std::enable_shared_from_this<NembraAssetLoaderDelegate> {
 public:
  struct Options {
    // The session; null for defaultSession(). A client given here must outlive every loader
    // made on it: a loader may be released on the client's own callback queue.
    std::shared_ptr<HttpClient> session;
    // Where the span store's directory goes (the player's video cache directory).
    std::string storeParentDirectory;
    // Whether the network is up; by default the reachability of a well-known host.
    std::function<bool()> isNetworkReachable;
  };

  // The private scheme of the loader's asset URLs, its class name.
  static const char* scheme() { return NembraAssetLoaderHelpers::kScheme; }

  // The loaders' shared session: one network thread for every player, kept for the life of
  // the process (so no loader ever releases it from one of its callbacks).
  static std::shared_ptr<HttpClient> defaultSession();

  // Null with |error| set when the span store cannot be made.
  static std::shared_ptr<NembraAssetLoaderDelegate> initWithURL(const std::string& url,
                                                                Options options,
                                                                OptionalError& error);
  ~NembraAssetLoaderDelegate();

  void setDelegate(std::weak_ptr<NembraAssetLoaderDelegatesDelegate> delegate);
  // Forgets |delegate| if it is the current one. Waits for a call to it in progress: once this
  // returns, the loader never calls it again.
  void removeDelegate(const NembraAssetLoaderDelegatesDelegate& delegate);
  double networkTimeout() const;
  void setNetworkTimeout(double seconds);
  const std::string& originalURL() const { return originalURL_; }
  const std::string& originalScheme() const { return originalScheme_; }

  // Whether the loader answers |request|: false for a foreign scheme, a duplicate of a pending
  // request, a request without a data request, or a stale remembered network error.
  bool shouldWaitForLoadingOfRequestedResource(std::shared_ptr<AssetLoadingRequest> request);
  void didCancelLoadingRequest(const std::shared_ptr<AssetLoadingRequest>& request);
  // Cancels every task and drops the session; nothing is loaded afterwards.
  void cancelRequests();

  // The session's events (wired to the tasks the loader starts; public for the tests' fakes).
  void didReceiveResponse(HttpTask& task, const HttpResponse& response);
  void didReceiveData(HttpTask& task, std::vector<uint8_t> data);
  void didCompleteWithError(HttpTask& task, const OptionalError& error);

  const SpanStore& store() const { return *store_; }
  // The stored ranges (datasForSavingToCache's keys).
  std::vector<LoaderRange> datasForSavingToCache() const;
  size_t pendingRequestCount() const;
  // Total body bytes received from the network, for the benchmarks.
  uint64_t bytesReceived() const;

 private:
  struct Entry {
    std::shared_ptr<AssetLoadingRequest> request;
    std::shared_ptr<HttpTask> task;
    SpanStore::SpanId span = 0;
    HttpResponse response;
    bool haveResponse = false;
    uint64_t received = 0;  // body bytes of the response so far
  };

  NembraAssetLoaderDelegate(std::string url, Options options, std::unique_ptr<SpanStore> store);
  std::optional<size_t> indexOfTask(const HttpTask& task) const;
  void removeEntry(size_t index);
  void processData(const Entry& entry, uint64_t fullLength, const std::string& mimeType);
  void reportError(const Error& error, std::shared_ptr<HttpTask> task,
                   std::shared_ptr<AssetLoadingRequest> request);
  bool isNetworkReachable();

  const std::string originalURL_;
  const std::string originalScheme_;
  std::function<bool()> isNetworkReachable_;
  const std::unique_ptr<SpanStore> store_;

  mutable std::recursive_mutex mutex_;
  std::shared_ptr<HttpClient> session_;  // guarded by mutex_
  std::weak_ptr<NembraAssetLoaderDelegatesDelegate> delegate_;
  double networkTimeout_ = 15.0;
  std::optional<NembraAssetLoaderError> networkError_;
  // pendingRequests, dataTasks and datas of one entry, kept together.
  std::vector<Entry> entries_;
  bool wholeFileHandedOver_ = false;
  uint64_t bytesReceived_ = 0;
};

}  // namespace nembra
