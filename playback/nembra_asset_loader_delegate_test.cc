#include "playback/nembra_asset_loader_delegate.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <thread>

#include "platform/http/http_curl_client.h"
#include "playback/asset_byte_source.h"
#include "playback/nembra_url_asset.h"
#include "playback/testing/range_server.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using testing::RangeMode;
using testing::RangeServer;
namespace H = NembraAssetLoaderHelpers;

TEST(NembraAssetLoaderHelpersTest, HeaderRanges) {
  HttpRequest request{"GET", "u", {{"Range", "bytes=100-199"}}, std::nullopt};
  EXPECT_EQ(H::rangeFromRequest(request), "100-199");
  request.headers = {{"Range", "bytes=100-"}};
  EXPECT_EQ(H::rangeFromRequest(request), "100-");
  HttpResponse response{206, "u", {{"Content-Range", "bytes 100-199/5000"}}};
  EXPECT_EQ(H::rangeFromResponse(response), "100-199");
  EXPECT_EQ(H::fullLengthFromResponse(response), 5000u);
  EXPECT_EQ(H::responseStart(response), 100u);

  EXPECT_TRUE(H::isRangeOfRequestEqualsToRangeOfResponse("100-", "100-4999", true));
  EXPECT_FALSE(H::isRangeOfRequestEqualsToRangeOfResponse("100-", "0-4999", true));
  EXPECT_TRUE(H::isRangeOfRequestEqualsToRangeOfResponse("100-199", "100-199", false));
  EXPECT_FALSE(H::isRangeOfRequestEqualsToRangeOfResponse("100-199", "100-4999", false));

  EXPECT_EQ(H::urlWithScheme("https://h/videos/t/video.mp4", "NembraAssetLoaderDelegate"),
            "NembraAssetLoaderDelegate://h/videos/t/video.mp4");
}

TEST(NembraAssetLoaderHelpersTest, CutsTheWantedBytesOutOfAWholeFileAnswer) {
  // Request 200..299 answered with the whole file (0..4999) in pieces of 1000.
  auto first = H::subdataFromData(0, 1000, 0, 200, 299);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->from, 200u);
  EXPECT_EQ(first->count, 100u);
  auto later = H::subdataFromData(1000, 1000, 0, 200, 299);
  ASSERT_TRUE(later);
  EXPECT_EQ(later->count, 0u);
  // To the end from 1500: the second piece from its middle, the third whole.
  EXPECT_EQ(H::subdataFromData(1000, 1000, 0, 1500, std::nullopt)->from, 500u);
  EXPECT_EQ(H::subdataFromData(2000, 1000, 0, 1500, std::nullopt)->count, 1000u);
  // A response that starts after the request cannot serve it.
  EXPECT_FALSE(H::subdataFromData(300, 100, 300, 200, 299));
  // An empty request (offset 200, length 0: its end is 199) takes nothing from any piece.
  for (uint64_t pieceStart : {0u, 150u, 199u, 200u}) {
    auto none = H::subdataFromData(pieceStart, 1000, 0, 200, 199);
    ASSERT_TRUE(none);
    EXPECT_EQ(none->count, 0u) << pieceStart;
  }
}

struct ConcatCase {
  const char* name;
  std::vector<LoaderRange> ranges;
  uint64_t fullLength;
  bool whole;
};

class ConcatTest : public ::testing::TestWithParam<ConcatCase> {};

TEST_P(ConcatTest, WholeFileOnlyWithoutGaps) {
  const ConcatCase& c = GetParam();
  const std::string file = testing::patternBytes(c.fullLength);
  std::map<LoaderRange, std::vector<uint8_t>> stored;
  for (const LoaderRange& range : c.ranges) {
    stored[range] = std::vector<uint8_t>(file.begin() + range.location, file.begin() + range.end());
  }
  auto data = H::concatedDataFromRanges(stored, c.fullLength);
  ASSERT_EQ(data.has_value(), c.whole);
  if (c.whole) {
    EXPECT_TRUE(std::string(data->begin(), data->end()) == file);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, ConcatTest,
    ::testing::Values(
        ConcatCase{"Overlapping", {{0, 100}, {50, 150}, {200, 100}}, 300, true},
        ConcatCase{"Gap", {{0, 100}, {150, 150}}, 300, false},
        ConcatCase{"OutOfOrderWithContainedRange", {{200, 100}, {10, 20}, {0, 250}}, 300, true},
        ConcatCase{"MissingStart", {{1, 299}}, 300, false}),
    [](const auto& info) { return std::string(info.param.name); });

// The loader against a real HTTP server, with the loader's events recorded.
class LoaderTest : public ::testing::Test {
 protected:
  struct Recorder : NembraAssetLoaderDelegatesDelegate {
    std::mutex mutex;
    std::vector<LoaderRange> ranges;
    std::vector<std::string> wholeFiles;  // contents
    std::string mimeType;
    std::vector<Error> errors;
  };

  void SetUp() override {
    recorder_ = std::make_shared<Recorder>();
    recorder_->didLoadDataForRange = [r = recorder_.get()](auto&, const LoadedData&,
                                                           const LoaderRange& range, auto&) {
      std::lock_guard lock(r->mutex);
      r->ranges.push_back(range);
    };
    recorder_->didLoadDataForURL = [r = recorder_.get()](auto&, const LoadedData& data, auto&) {
      std::ifstream in(data.path, std::ios::binary);
      std::string contents((std::istreambuf_iterator<char>(in)), {});
      std::lock_guard lock(r->mutex);
      r->wholeFiles.push_back(contents);
    };
    recorder_->didLoadDataForURLWithMIMEType = [r = recorder_.get()](auto&, auto&, auto&,
                                                                     const std::string& type) {
      std::lock_guard lock(r->mutex);
      r->mimeType = type;
    };
    recorder_->didRecieveLoadingErrorWithDataTaskForRequest =
        [r = recorder_.get()](auto&, const Error& error, auto, auto) {
          std::lock_guard lock(r->mutex);
          r->errors.push_back(error);
        };
  }

  std::shared_ptr<NembraAssetLoaderDelegate> makeLoader(const std::string& url) {
    NembraAssetLoaderDelegate::Options options;
    options.session = client_;
    options.storeParentDirectory = scratch_.path() + "/video-cache";
    options.isNetworkReachable = [this] { return reachable_.load(); };
    OptionalError error;
    auto loader = NembraAssetLoaderDelegate::initWithURL(url, options, error);
    EXPECT_TRUE(loader);
    loader->setDelegate(recorder_);
    return loader;
  }

  static std::shared_ptr<AssetLoadingRequest> dataRequest(const std::string& url, int64_t offset,
                                                          int64_t length, bool toEnd = false) {
    return std::make_shared<AssetLoadingRequest>(
        HttpRequest{"GET", H::urlWithScheme(url, H::kScheme), {}, std::nullopt}, false,
        DataRequest{offset, length, toEnd});
  }

  static bool finish(const AssetLoadingRequest& request) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!request.isFinished() && std::chrono::steady_clock::now() < deadline) {
      request.waitUntilFinished(50ms);
    }
    return request.isFinished();
  }

  bool waitFor(const std::function<bool()>& done) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

  testing::ScratchDirectory scratch_;
  std::shared_ptr<HttpClient> client_ = NembraAssetLoaderDelegate::defaultSession();
  std::shared_ptr<Recorder> recorder_;
  std::atomic<bool> reachable_{true};
};

TEST_F(LoaderTest, BoundedRequestIsSentAsAnInclusiveRangeAndAnsweredExactly) {
  const std::string file = testing::patternBytes(5000);
  RangeServer server(file);
  const std::string url = server.url("/videos/tok/video.mp4");
  auto loader = makeLoader(url);
  auto request = dataRequest(url, 200, 100);
  ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(request));
  ASSERT_TRUE(finish(*request));
  EXPECT_FALSE(request->error());
  EXPECT_EQ(server.ranges(), std::vector<std::string>{"bytes=200-299"});
  EXPECT_EQ(request->currentOffset(), 300);
  ASSERT_TRUE(waitFor([&] { return loader->pendingRequestCount() == 0; }));
  EXPECT_EQ(loader->store().bytesOf({200, 100}),
            std::vector<uint8_t>(file.begin() + 200, file.begin() + 300));
  EXPECT_EQ(loader->datasForSavingToCache(), (std::vector<LoaderRange>{{200, 100}}));
  EXPECT_TRUE(recorder_->wholeFiles.empty());
}

TEST_F(LoaderTest, ServerIgnoringTheRangeIsAnsweredWithTheWantedBytesOnly) {
  for (RangeMode mode : {RangeMode::WholeAs206, RangeMode::WholeAs200}) {
    const std::string file = testing::patternBytes(2 << 20);
    RangeServer server(file, mode);
    server.setPieceDelay(1ms);
    const std::string url = server.url("/videos/tok/video.mp4");
    auto loader = makeLoader(url);
    auto request = dataRequest(url, 70000, 100);
    ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(request));
    ASSERT_TRUE(finish(*request));
    EXPECT_EQ(request->currentOffset(), 70100);
    ASSERT_TRUE(waitFor([&] { return loader->pendingRequestCount() == 0; }));
    EXPECT_EQ(loader->store().bytesOf({70000, 100}),
              std::vector<uint8_t>(file.begin() + 70000, file.begin() + 70100));
    EXPECT_EQ(loader->datasForSavingToCache(), (std::vector<LoaderRange>{{70000, 100}}));
    // Once it had what it wanted the loader stopped the download.
    EXPECT_LT(server.bytesSent(), file.size());
  }
}

TEST_F(LoaderTest, ContentInformationAsksForTwoBytes) {
  RangeServer server(testing::patternBytes(5000));
  const std::string url = server.url("/videos/tok/video.mp4");
  auto loader = makeLoader(url);
  auto request = std::make_shared<AssetLoadingRequest>(
      HttpRequest{"GET", H::urlWithScheme(url, H::kScheme), {}, std::nullopt}, true,
      DataRequest{0, 2, false});
  ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(request));
  ASSERT_TRUE(finish(*request));
  EXPECT_EQ(server.ranges(), std::vector<std::string>{"bytes=0-1"});
  auto information = request->contentInformation();
  ASSERT_TRUE(information);
  EXPECT_EQ(information->contentLength, 5000);
  EXPECT_TRUE(information->byteRangeAccessSupported);
  EXPECT_EQ(information->contentType, "video/mp4");
  EXPECT_EQ(loader->pendingRequestCount(), 0u);
}

TEST_F(LoaderTest, DuplicateRequestIsDeclinedAndForeignSchemesAreNotAnswered) {
  RangeServer server(testing::patternBytes(400000));
  server.setPieceDelay(20ms);
  const std::string url = server.url("/videos/tok/video.mp4");
  auto loader = makeLoader(url);
  auto first = dataRequest(url, 0, 0, true);
  ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(first));
  EXPECT_FALSE(loader->shouldWaitForLoadingOfRequestedResource(dataRequest(url, 0, 0, true)));
  auto plain = std::make_shared<AssetLoadingRequest>(HttpRequest{"GET", url, {}, std::nullopt},
                                                     false, DataRequest{0, 10, false});
  EXPECT_FALSE(loader->shouldWaitForLoadingOfRequestedResource(plain));
  ASSERT_TRUE(waitFor([&] { return server.requests().size() == 1; }));
  loader->didCancelLoadingRequest(first);
  ASSERT_TRUE(finish(*first));
  EXPECT_EQ(server.requests().size(), 1u);
  ASSERT_TRUE(first->error());
  EXPECT_EQ(first->error()->kind, ErrorKind::Cancelled);
  EXPECT_TRUE(recorder_->errors.empty());  // a cancellation is never reported
}

TEST_F(LoaderTest, PiecesCoveringTheFileAreHandedOverOnceAsTheWholeFile) {
  const std::string file = testing::patternBytes(300000);
  RangeServer server(file);
  const std::string url = server.url("/videos/tok/video.mp4");
  auto loader = makeLoader(url);
  for (auto [offset, length] : {std::pair{0, 100000}, {50000, 150000}, {200000, 100000}}) {
    auto request = dataRequest(url, offset, length);
    ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(request));
    ASSERT_TRUE(finish(*request));
  }
  ASSERT_TRUE(waitFor([&] {
    std::lock_guard lock(recorder_->mutex);
    return recorder_->wholeFiles.size() == 1;
  }));
  EXPECT_TRUE(recorder_->wholeFiles[0] == file);
  EXPECT_EQ(recorder_->mimeType, "video/mp4");
  EXPECT_EQ(recorder_->ranges.size(), 3u);
}

TEST_F(LoaderTest, FailuresReachTheDelegateAndNothingWholeIsHandedOver) {
  struct Case {
    RangeMode mode;
    ErrorKind kind;
  };
  for (Case c : {Case{RangeMode::NotFound, ErrorKind::Http},
                 Case{RangeMode::CloseMidBody, ErrorKind::Transport}}) {
    recorder_->errors.clear();
    const std::string file = testing::patternBytes(100000);
    RangeServer server(file, c.mode);
    const std::string url = server.url("/videos/tok/video.mp4");
    auto loader = makeLoader(url);
    auto request = dataRequest(url, 0, 0, true);
    ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(request));
    ASSERT_TRUE(finish(*request));
    ASSERT_TRUE(request->error());
    EXPECT_EQ(request->error()->kind, c.kind);
    EXPECT_TRUE(recorder_->wholeFiles.empty());
    if (c.mode == RangeMode::NotFound) {
      ASSERT_TRUE(waitFor([&] { return loader->pendingRequestCount() == 0; }));
      ASSERT_EQ(recorder_->errors.size(), 1u);
      EXPECT_EQ(recorder_->errors[0].message, "Server returned failure status code");
      EXPECT_EQ(recorder_->errors[0].code, 404);
    }
  }
}

TEST_F(LoaderTest, NetworkErrorIsRememberedWhileOfflineForNetworkTimeout) {
  const std::string url =
      "http://127.0.0.1:" + std::to_string(testing::HttpTestServer::closedPort()) +
      "/videos/tok/video.mp4";
  auto loader = makeLoader(url);
  auto first = dataRequest(url, 0, 100);
  ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(first));
  ASSERT_TRUE(finish(*first));
  ASSERT_TRUE(first->error());
  EXPECT_EQ(first->error()->kind, ErrorKind::Transport);

  // Offline, the remembered error fails a new request at once, without a request.
  reachable_ = false;
  auto second = dataRequest(url, 100, 100);
  EXPECT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(second));
  EXPECT_TRUE(second->isFinished());
  ASSERT_TRUE(second->error());
  EXPECT_TRUE(recorder_->errors.empty());

  // Once stale, the delegate hears of it and the request is declined.
  loader->setNetworkTimeout(0.0);
  std::this_thread::sleep_for(5ms);
  EXPECT_FALSE(loader->shouldWaitForLoadingOfRequestedResource(dataRequest(url, 200, 100)));
  EXPECT_EQ(recorder_->errors.size(), 1u);

  // Back online the error is forgotten and requests go out again.
  reachable_ = true;
  auto fourth = dataRequest(url, 300, 100);
  EXPECT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(fourth));
  EXPECT_FALSE(fourth->isFinished() && fourth->error() &&
               fourth->error()->message == first->error()->message && fourth.get() == second.get());
  ASSERT_TRUE(finish(*fourth));
}

TEST_F(LoaderTest, ByteSourceReadsWithSeeksFetchNothingTwice) {
  const std::string file = testing::patternBytes(3 << 20);
  RangeServer server(file);
  const std::string url = server.url("/videos/tok/video.mp4");
  OptionalError error;
  NembraAssetLoaderDelegate::Options options;
  options.session = client_;
  options.storeParentDirectory = scratch_.path() + "/video-cache";
  auto asset = NembraURLAsset::initWithURL(url, options, error);
  ASSERT_TRUE(asset);
  asset->resourceLoaderDelegate()->setDelegate(recorder_);
  MediaPlayerItem item = asset->playerItem();
  ASSERT_TRUE(item.source);
  MediaByteSource& source = *item.source;
  ASSERT_EQ(source.size(), static_cast<int64_t>(file.size()));

  auto readAt = [&](int64_t offset, size_t length) {
    EXPECT_TRUE(source.seek(offset));
    std::string out(length, '\0');
    size_t done = 0;
    while (done < length) {
      int64_t n = source.read(reinterpret_cast<uint8_t*>(out.data()) + done, length - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    out.resize(done);
    return out;
  };
  // The end first (where an index may sit), then the start, then the whole file in order.
  EXPECT_TRUE(readAt(file.size() - 1000, 1000) == file.substr(file.size() - 1000));
  EXPECT_TRUE(readAt(0, 4096) == file.substr(0, 4096));
  EXPECT_TRUE(readAt(0, file.size()) == file);
  EXPECT_TRUE(readAt(1 << 20, 10) == file.substr(1 << 20, 10));

  ASSERT_TRUE(waitFor([&] {
    std::lock_guard lock(recorder_->mutex);
    return recorder_->wholeFiles.size() == 1;
  }));
  EXPECT_TRUE(recorder_->wholeFiles[0] == file);
  // What was fetched twice is at most the bytes in flight when the reads jumped.
  EXPECT_LE(asset->resourceLoaderDelegate()->bytesReceived(), file.size() + (1 << 20));
}

TEST(NembraURLAssetTest, LocalFilesNeverReachTheLoader) {
  OptionalError error;
  for (const char* url : {"file:///tmp/clip.mp4", "/tmp/clip.mp4"}) {
    auto asset = NembraURLAsset::initWithURL(url, {}, error);
    ASSERT_TRUE(asset);
    EXPECT_FALSE(asset->resourceLoaderDelegate());
    EXPECT_EQ(asset->url(), "/tmp/clip.mp4");
    EXPECT_FALSE(asset->playerItem().source);
  }
}

TEST_F(LoaderTest, ARemovedDelegateIsNeitherCalledAgainNorStillInACallWhenRemovalReturns) {
  const std::string file = testing::patternBytes(5000);
  RangeServer server(file);
  const std::string url = server.url("/videos/tok/video.mp4");
  auto loader = makeLoader(url);
  // The first range report is held inside the delegate until released.
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<int> calls{0};
  std::atomic<bool> callEnded{false};
  recorder_->didLoadDataForRange = [&](auto&, const LoadedData&, const LoaderRange&, auto&) {
    if (calls.fetch_add(1) == 0) {
      entered.set_value();
      released.wait();
    }
    callEnded.store(true);
  };
  ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(dataRequest(url, 0, 100)));
  entered.get_future().wait();
  auto removal = std::async(std::launch::async, [&] {
    loader->removeDelegate(*recorder_);
    return callEnded.load();
  });
  std::this_thread::sleep_for(50ms);  // gives a removal that does not wait the chance to return
  release.set_value();
  EXPECT_TRUE(removal.get()) << "removal returned while the delegate was still being called";

  auto later = dataRequest(url, 100, 100);
  ASSERT_TRUE(loader->shouldWaitForLoadingOfRequestedResource(later));
  ASSERT_TRUE(finish(*later));
  ASSERT_TRUE(waitFor([&] { return loader->pendingRequestCount() == 0; }));
  EXPECT_EQ(calls.load(), 1);
}

}  // namespace
}  // namespace nembra
