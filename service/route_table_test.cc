#include "service/route_table.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace nembra {
namespace {

class RouteTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    routes_.add("POST", "/v1/applications/:app/videos/videos-upload-url", record("upload-url"));
    routes_.add("GET", "/v1/applications/:app/videos/:video", record("get"));
    routes_.add("POST", "/v1/applications/:app/videos/:video", record("update"));
    routes_.add("DELETE", "/v1/applications/:app/videos/:video/streams/:stream",
                record("delete-stream"));
  }

  RouteTable::Handler record(std::string name) {
    return [this, name](RestRequest& request) {
      hit_ = name;
      params_ = request.pathParams;
    };
  }

  int dispatch(const std::string& method, const std::string& path) {
    httplib::Request request;
    request.method = method;
    request.path = path;
    response_ = httplib::Response();
    hit_.clear();
    routes_.dispatch(request, response_, nullptr);
    return response_.status;
  }

  std::string message() const { return nlohmann::json::parse(response_.body)["message"]; }

  RouteTable routes_;
  httplib::Response response_;
  std::string hit_;
  std::vector<std::pair<std::string, std::string>> params_;
};

TEST_F(RouteTableTest, MatchesLiteralsBeforeTokensAndCollectsParameters) {
  dispatch("POST", "/v1/applications/app1/videos/videos-upload-url");
  EXPECT_EQ(hit_, "upload-url");
  dispatch("POST", "/v1/applications/app1/videos/vi123");
  EXPECT_EQ(hit_, "update");
  dispatch("HEAD", "/v1/applications/app1/videos/vi123");
  EXPECT_EQ(hit_, "get");
  dispatch("DELETE", "/v1/applications/a/videos/v/streams/s");
  EXPECT_EQ(hit_, "delete-stream");
  EXPECT_EQ(params_, (std::vector<std::pair<std::string, std::string>>{
                         {"app", "a"}, {"video", "v"}, {"stream", "s"}}));
}

TEST_F(RouteTableTest, AnswersUnknownPathsAndMethods) {
  EXPECT_EQ(dispatch("GET", "/v1/applications/a/audios/x"), 404);
  EXPECT_EQ(dispatch("GET", "relative"), 404);
  EXPECT_EQ(dispatch("DELETE", "/v1/applications/a/videos/v"), 405);
  EXPECT_EQ(response_.get_header_value("Allow"), "GET, POST");
  EXPECT_TRUE(hit_.empty());
}

class RouteTableTokenTest : public RouteTableTest,
                            public ::testing::WithParamInterface<std::string> {};

// Paths arrive percent-decoded, so "%2e%2e" and "%00" show up here as ".." and a NUL.
TEST_P(RouteTableTokenTest, RefusesUnsafeTokensBeforeAnyRouteRuns) {
  EXPECT_EQ(dispatch("GET", GetParam()), 400);
  EXPECT_TRUE(hit_.empty());
  EXPECT_NE(message().find("is not a valid"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Paths, RouteTableTokenTest,
                         ::testing::Values("/v1/applications/../videos/v",
                                           "/v1/applications/a/videos/..",
                                           "/v1/applications/a/videos/",
                                           std::string("/v1/applications/a/videos/v\0x", 28),
                                           "/v1/applications/a.b/videos/v",
                                           "/v1/applications/" + std::string(129, 'a') +
                                               "/videos/v"));

}  // namespace
}  // namespace nembra
