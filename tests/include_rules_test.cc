// The source tree keeps its dependencies one way: a wrong-way #include fails here.
#include "tests/include_rules.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace nembra {
namespace {

struct IncludeCase {
  const char* file;
  const char* included;
  bool angled;
  bool allowed;
};

class IncludeRuleTest : public ::testing::TestWithParam<IncludeCase> {};

TEST_P(IncludeRuleTest, AllowsOnlyTheOneWayDependencies) {
  const IncludeCase& c = GetParam();
  const auto reasons = IncludeRules::check(c.file, c.included, c.angled);
  EXPECT_EQ(reasons.empty(), c.allowed)
      << c.file << " includes " << c.included << (reasons.empty() ? "" : ": " + reasons[0]);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, IncludeRuleTest,
    ::testing::Values(
        // Downward is fine.
        IncludeCase{"cli/main.cc", "recorder/recorder.h", false, true},
        IncludeCase{"cli/main.cc", "service/local_service.h", false, true},
        IncludeCase{"recorder/session.cc", "streaming/live_streamer.h", false, true},
        IncludeCase{"recorder/session.cc", "api/nembra.h", false, true},
        IncludeCase{"playback/player.cc", "api/video.h", false, true},
        IncludeCase{"api/video.cc", "platform/files/file_system.h", false, true},
        IncludeCase{"api/video.cc", "nembra/json.h", false, true},
        IncludeCase{"service/media_json.cc", "api/video.h", false, true},
        IncludeCase{"streaming/avcc_parser.cc", "platform/media/media_source.h", false, true},
        IncludeCase{"platform/ffmpeg/ffmpeg_x264_encoder.cc", "platform/media/media_log.h", false,
                    true},
        IncludeCase{"platform/ffmpeg/ffmpeg_av_support.cc", "libavcodec/avcodec.h", true, true},
        IncludeCase{"include/nembra/nembra.h", "nembra/error.h", false, true},
        IncludeCase{"include/nembra/json.h", "nlohmann/json.hpp", true, true},
        IncludeCase{"include/nembra/error.h", "string", true, true},
        IncludeCase{"tests/local_service_test.cc", "service/local_service.h", false, true},
        IncludeCase{"bench/wire_bench.cc", "platform/ffmpeg/ffmpeg_av_support.h", false, true},
        IncludeCase{"platform/http/http_client_test.cc",
                    "platform/http/testing/http_test_support.h", false, true},
        IncludeCase{"platform/media/mp4/mp4_demuxer_test.cc",
                    "platform/ffmpeg/ffmpeg_file_source.h", false, true},
        // Upward or sideways is not.
        IncludeCase{"api/video.cc", "service/media_json.h", false, false},
        IncludeCase{"api/nembra.cc", "recorder/recorder.h", false, false},
        IncludeCase{"api/nembra.cc", "streaming/live_streamer.h", false, false},
        IncludeCase{"api/nembra.cc", "cli/cli_context.h", false, false},
        IncludeCase{"platform/files/file_system.cc", "api/utils.h", false, false},
        IncludeCase{"platform/net/tcp_socket_posix.cc", "streaming/uri.h", false, false},
        IncludeCase{"platform/http/http_client.cc", "service/http_text.h", false, false},
        IncludeCase{"streaming/rtmp_client.cc", "api/nembra.h", false, false},
        IncludeCase{"streaming/rtmp_client.cc", "service/rtmp_ingest.h", false, false},
        IncludeCase{"playback/player.cc", "recorder/recorder.h", false, false},
        IncludeCase{"playback/player.cc", "streaming/flv_muxer.h", false, false},
        IncludeCase{"service/media_json.cc", "streaming/uri.h", false, false},
        IncludeCase{"service/media_json.cc", "cli/cli_context.h", false, false},
        IncludeCase{"recorder/session.cc", "cli/cli_context.h", false, false},
        IncludeCase{"api/nembra.cc", "tests/test_support.h", false, false},
        IncludeCase{"include/nembra/nembra.h", "api/nembra.h", false, false},
        IncludeCase{"include/nembra/nembra.h", "curl/curl.h", true, false},
        IncludeCase{"include/nembra/nembra.h", "sys/socket.h", true, false},
        // The plug-in stays behind its seam.
        IncludeCase{"platform/media/media_backend.cc", "platform/ffmpeg/ffmpeg_media_backend.h",
                    false, false},
        IncludeCase{"platform/media/media_file_source.cc", "libavformat/avformat.h", true, false},
        IncludeCase{"streaming/h264_encoder.cc", "libavcodec/avcodec.h", true, false},
        // Test helpers stay out of production code.
        IncludeCase{"platform/http/http_client.cc", "platform/http/testing/http_test_support.h",
                    false, false},
        IncludeCase{"api/nembra.cc", "platform/net/testing/fake_network_interfaces.h", false,
                    false},
        // Paths start at the root.
        IncludeCase{"api/video.cc", "video.h", false, false}));

// The violations of the real tree, split by whether the including file is a public header.
std::string Report(bool publicHeaders) {
  std::ostringstream report;
  for (const auto& v : IncludeRules::scan(NEMBRA_SOURCE_DIR)) {
    if ((IncludeRules::moduleOf(v.file) == "include/nembra") != publicHeaders) continue;
    report << v.file << ":" << v.line << " includes " << v.included << ": " << v.reason << "\n";
  }
  return report.str();
}

TEST(IncludeRulesTest, SourceTreeFollowsTheRules) { EXPECT_EQ(Report(false), ""); }

TEST(IncludeRulesTest, PublicHeadersStandAlone) { EXPECT_EQ(Report(true), ""); }

TEST(IncludeRulesTest, ScanReportsTheLineOfAWrongWayInclude) {
  namespace fs = std::filesystem;
  const fs::path root = fs::temp_directory_path() / ("include_rules_" + std::to_string(getpid()));
  fs::create_directories(root / "api");
  fs::create_directories(root / "build" / "api");
  std::ofstream(root / "api" / "video.cc") << "#include \"api/video.h\"\n\n"
                                              "  #  include \"service/media_json.h\"\n";
  std::ofstream(root / "build" / "api" / "generated.cc") << "#include \"cli/main.h\"\n";
  const auto violations = IncludeRules::scan(root);
  fs::remove_all(root);
  ASSERT_EQ(violations.size(), 1u);
  EXPECT_EQ(violations[0].file, "api/video.cc");
  EXPECT_EQ(violations[0].line, 3);
  EXPECT_EQ(violations[0].included, "service/media_json.h");
}

}  // namespace
}  // namespace nembra
