// The SDK as a host gets it: `cmake --install` of this build into a scratch prefix, examples/
// built out of tree against that prefix (with find_package, and with pkg-config) and run against
// the installed `nembra serve`. Nothing is rebuilt: the install copies what the build made.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "api/sdk_version.h"
#include "platform/media/media_sample_writer.h"
#include "platform/media/testing/media_test_files.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using testing::CommandResult;
using testing::findProgram;
using testing::runCommand;
using testing::ServeProcess;
using testing::TempDir;

// nginx's RTMP module for the service's ingest, and ffmpeg to make a file only the plug-in reads.
bool canPublishLive() {
  return findProgram("nginx") && fs::exists("/usr/lib/nginx/modules/ngx_rtmp_module.so") &&
         testing::MediaTestFiles::haveFfmpeg();
}

class InstallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CommandResult installed =
        runCommand({NEMBRA_CMAKE_COMMAND, "--install", NEMBRA_BUILD_DIR, "--prefix", prefix()});
    ASSERT_EQ(installed.exitCode, 0) << installed.output;
  }

  std::string prefix() const { return scratch_.file("prefix"); }
  std::string libDir() const { return prefix() + "/" + NEMBRA_INSTALL_LIBDIR; }

  // Configures and builds examples/ out of tree in |name| with |extraArgs|; the build directory.
  std::string buildExamples(const std::string& name, const std::vector<std::string>& environment,
                            const std::vector<std::string>& extraArgs) {
    const std::string build = scratch_.file(name);
    // The compiler cache finds the same relative paths in every scratch directory.
    std::vector<std::string> env = {"/usr/bin/env", "CCACHE_BASEDIR=" + scratch_.path(),
                                    "CCACHE_NOHASHDIR=1"};
    env.insert(env.end(), environment.begin(), environment.end());
    std::vector<std::string> configure = env;
    configure.insert(
        configure.end(),
        {NEMBRA_CMAKE_COMMAND, "-S", std::string(NEMBRA_SOURCE_DIR) + "/examples", "-B", build,
         "-G", NEMBRA_CMAKE_GENERATOR, "-DCMAKE_MAKE_PROGRAM=" NEMBRA_MAKE_PROGRAM,
         "-DCMAKE_CXX_COMPILER=" NEMBRA_CXX_COMPILER});
    if (!std::string(NEMBRA_COMPILER_LAUNCHER).empty()) {
      configure.push_back("-DCMAKE_CXX_COMPILER_LAUNCHER=" NEMBRA_COMPILER_LAUNCHER);
    }
    configure.insert(configure.end(), extraArgs.begin(), extraArgs.end());
    CommandResult configured = runCommand(configure);
    EXPECT_EQ(configured.exitCode, 0) << configured.output;
    std::vector<std::string> compile = env;
    compile.insert(compile.end(), {NEMBRA_CMAKE_COMMAND, "--build", build});
    CommandResult built = runCommand(compile);
    EXPECT_EQ(built.exitCode, 0) << built.output;
    return build;
  }

  // Runs the installed `nembra serve` and the examples in |build| against it: an upload with
  // progress, the list that shows it, and (with an RTMP ingest on this machine) a live publish.
  void runExamples(const std::string& build, bool live) {
    ServeProcess::Options options;
    options.program = prefix() + "/bin/nembra";
    options.dataDir = scratch_.file("service-" + fs::path(build).filename().string());
    if (live && canPublishLive()) options.rtmpPort = testing::freeTcpPort();
    std::string error;
    auto serve = ServeProcess::start(options, error);
    ASSERT_TRUE(serve) << error;
    const std::string server = serve->baseUrl();
    // The examples keep the SDK's files (the upload journal) here. They find libnembra by the
    // run path their build gave them.
    const std::vector<std::string> env = {"/usr/bin/env", "NEMBRA_HOME=" + scratch_.file("home")};
    auto run = [&](const std::string& example, std::vector<std::string> args) {
      std::vector<std::string> argv = env;
      argv.push_back(build + "/example_" + example);
      argv.insert(argv.end(), args.begin(), args.end());
      return runCommand(argv, std::chrono::seconds(60));
    };

    const std::string clip = scratch_.file("clip.mp4");
    ASSERT_FALSE(MediaSampleWriter::writeVideo(clip, 1.0, 160, 120));
    CommandResult uploaded = run("upload_with_progress", {server, "app1", clip});
    ASSERT_EQ(uploaded.exitCode, 0) << uploaded.output << serve->output();
    std::smatch token;
    const std::string uploadOutput = uploaded.output;
    ASSERT_TRUE(std::regex_search(uploadOutput, token, std::regex("uploaded as video (\\S+)")))
        << uploadOutput;
    EXPECT_NE(uploadOutput.find(" bytes sent"), std::string::npos) << uploadOutput;

    CommandResult listed = run("list_videos", {server, "app1"});
    ASSERT_EQ(listed.exitCode, 0) << listed.output << serve->output();
    EXPECT_NE(listed.output.find(token[1].str()), std::string::npos) << listed.output;

    // The screens come with the library: the viewer shows a picture (no UI here) and closes.
    const std::string picture = scratch_.file("picture.ppm");
    {
      std::ofstream out(picture, std::ios::binary);
      out << "P6\n2 2\n255\n" << std::string(12, '\x7f');
    }
    CommandResult shown = run("show_image", {picture, "0.5", "none"});
    EXPECT_EQ(shown.exitCode, 0) << shown.output;
    EXPECT_NE(shown.output.find("closed"), std::string::npos) << shown.output;

    if (options.rtmpPort == 0) return;
    // Not an MP4: read through the FFmpeg plug-in, which the installed library finds beside it
    // (an installed copy never takes the build's).
    testing::MediaTestFiles media;
    const std::string source = media.video("live.mkv", "160x120", 1.0);
    ASSERT_FALSE(source.empty());
    CommandResult published = run("live_publish_file", {server, "app1", source});
    ASSERT_EQ(published.exitCode, 0) << published.output << serve->output();
    EXPECT_NE(published.output.find("submitted video"), std::string::npos) << published.output;
  }

  TempDir scratch_{"nembra-install"};
};

TEST_F(InstallTest, InstallsTheLibrariesHeadersToolPluginAndPackageFiles) {
  const std::string p = prefix();
  for (const std::string& file :
       {libDir() + "/libnembra.so", libDir() + "/libnembra.so.0", libDir() + "/libnembra.a",
        libDir() + "/nembra/libnembra_media_ffmpeg.so", libDir() + "/pkgconfig/nembra.pc",
        libDir() + "/cmake/nembra/nembraConfig.cmake",
        libDir() + "/cmake/nembra/nembraConfigVersion.cmake", p + "/include/nembra/nembra.h",
        p + "/bin/nembra"}) {
    EXPECT_TRUE(fs::exists(file)) << file;
  }
  EXPECT_TRUE(fs::is_symlink(libDir() + "/libnembra.so"));
  CommandResult dynamic = runCommand({"readelf", "-d", libDir() + "/libnembra.so"});
  EXPECT_NE(dynamic.output.find("Library soname: [libnembra.so.0]"), std::string::npos)
      << dynamic.output;

  // The public headers include one another, the standard library and nlohmann-json only.
  const std::regex include("^\\s*#\\s*include\\s*[<\"]([^>\"]+)[>\"]");
  for (const auto& entry : fs::directory_iterator(p + "/include/nembra")) {
    std::ifstream in(entry.path());
    for (std::string line; std::getline(in, line);) {
      std::smatch match;
      if (!std::regex_search(line, match, include)) continue;
      const std::string header = match[1];
      const bool allowed = header.rfind("nembra/", 0) == 0 || header.rfind("nlohmann/", 0) == 0 ||
                           header.find('/') == std::string::npos;  // <string>, <cstdint>, ...
      EXPECT_TRUE(allowed) << entry.path() << " includes " << header;
      if (header.rfind("nembra/", 0) == 0) {
        EXPECT_TRUE(fs::exists(p + "/include/" + header)) << entry.path() << ": " << header;
      }
    }
  }

  CommandResult version = runCommand({p + "/bin/nembra", "--version"});
  EXPECT_EQ(version.exitCode, 0) << version.output;
  EXPECT_EQ(version.output, std::string("nembra ") + kNembraSdkVersion + "\n");
}

TEST_F(InstallTest, ExamplesBuiltWithFindPackageRunAgainstTheService) {
  const std::string build =
      buildExamples("examples-cmake", {}, {"-DCMAKE_PREFIX_PATH=" + prefix()});
  ASSERT_FALSE(HasFailure());
  runExamples(build, true);
}

TEST_F(InstallTest, ExamplesBuiltWithPkgConfigRunAgainstTheService) {
  const std::string build =
      buildExamples("examples-pkg-config", {"PKG_CONFIG_PATH=" + libDir() + "/pkgconfig"},
                    {"-DNEMBRA_EXAMPLES_WITH_PKG_CONFIG=ON"});
  ASSERT_FALSE(HasFailure());
  runExamples(build, false);
}

}  // namespace
}  // namespace nembra
