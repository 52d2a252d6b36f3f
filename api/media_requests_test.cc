#include "api/media_requests.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/testing/upload_service_fixture.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::formFields;
using nembra::testing::links;
using std::chrono::milliseconds;
using std::chrono::seconds;

// The per-media requests and their paths.
class RequestsTest : public nembra::testing::UploadServiceTest {};

// ---- Per-media requests -----------------------------------------------------------------

struct ItemCase {
  const char* name;
  bool remove;
  std::optional<std::string> stream;
  const char* target;
};

class ItemPathTest : public RequestsTest, public ::testing::WithParamInterface<ItemCase> {};

TEST_P(ItemPathTest, FollowsTheStreamTokenRule) {
  const ItemCase& c = GetParam();
  int answers = 0;
  auto callback = [&](const std::optional<Json>&, const HttpResponse&, const OptionalError&) {
    main_.async([&] { ++answers; });
  };
  if (c.remove) {
    handler().deleteWithType(VIDEO, "v1", c.stream, callback);
  } else {
    handler().updateWithType(AUDIO, "a1", c.stream, Json::object(), callback);
  }
  ASSERT_TRUE(pumpUntil([&] { return answers == 1; }));
  EXPECT_EQ(targets(), std::vector<std::string>{c.target});
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ItemPathTest,
    ::testing::Values(
        ItemCase{"UpdateMedia", false, "", "POST /embed/v1/applications/app1/audios/a1"},
        ItemCase{"UpdateStream", false, "s1",
                 "POST /embed/v1/applications/app1/audios/a1/streams/s1"},
        ItemCase{"UpdateAbsentStream", false, std::nullopt,
                 "POST /embed/v1/applications/app1/audios/a1/streams/(null)"},
        ItemCase{"DeleteMedia", true, "", "DELETE /v1/applications/app1/videos/v1"},
        ItemCase{"DeleteStream", true, "s1", "DELETE /v1/applications/app1/videos/v1/streams/s1"}),
    [](const auto& info) { return info.param.name; });

TEST_F(RequestsTest, GetReadsTheTypesMemberAndDeleteTellsTheDelegate) {
  std::optional<Json> audio;
  std::optional<Json> stream;
  int answers = 0;
  std::string deleted;
  delegate_->deleteWithToken = [&](const std::string& token, const std::string&,
                                   const HttpResponse&, const OptionalError&,
                                   const std::optional<Json>&) { deleted = token; };
  handler().getWithType(
      AUDIO, "a1", nullptr,
      [&](const std::optional<Json>& json, const HttpResponse&, const OptionalError&) {
        main_.async([&, json] {
          audio = json;
          ++answers;
        });
      });
  handler().getOriginalStreamDescriptionForVideoByToken(
      "v1", [&](const std::optional<Json>& json, const HttpResponse&, const OptionalError&) {
        main_.async([&, json] {
          stream = json;
          ++answers;
        });
      });
  handler().deleteWithType(IMAGE, "i1", "", nullptr);
  ASSERT_TRUE(pumpUntil([&] { return answers == 2 && !deleted.empty(); }));
  EXPECT_EQ(audio, (Json{{"token", "a1"}, {"title", "t"}}));
  EXPECT_EQ(stream, (Json{{"token", "o1"}}));
  EXPECT_EQ(deleted, "i1");
}

TEST_F(RequestsTest, UnsafeTokensAreRefusedWithoutARequest) {
  int refused = 0;
  auto count = [&](const std::optional<Json>&, const HttpResponse&, const OptionalError& e) {
    EXPECT_TRUE(e && e->kind == ErrorKind::InvalidArgument);
    ++refused;
  };
  handler().getWithType(VIDEO, "../../etc", nullptr, count);
  handler().deleteWithType(VIDEO, "v1", "s%2f1", count);
  handler().updateWithType(IMAGE, std::string("i\0x", 3), "", Json::object(), count);
  handler().downloadWithType(AUDIO, "a/b", [&](const auto& path, const OptionalError& e) {
    EXPECT_FALSE(path);
    EXPECT_TRUE(e && e->kind == ErrorKind::InvalidArgument);
    ++refused;
  });
  ASSERT_TRUE(pumpUntil([&] { return refused == 4; }));
  EXPECT_TRUE(server_.requests().empty());
}

}  // namespace
}  // namespace nembra
