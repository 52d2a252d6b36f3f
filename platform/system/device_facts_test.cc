#include "platform/system/device_facts.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace nembra {
namespace {

namespace fs = std::filesystem;

struct OsReleaseCase {
  const char* text;
  const char* name;
  const char* versionId;
  const char* prettyName;
};

class ParseOsReleaseTest : public testing::TestWithParam<OsReleaseCase> {};

TEST_P(ParseOsReleaseTest, ReadsNameVersionAndPrettyName) {
  OsRelease release = DeviceFacts::parseOsRelease(GetParam().text);
  EXPECT_EQ(release.name, GetParam().name);
  EXPECT_EQ(release.versionId, GetParam().versionId);
  EXPECT_EQ(release.prettyName, GetParam().prettyName);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseOsReleaseTest,
    testing::Values(
        OsReleaseCase{"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\n"
                      "VERSION_ID=\"12\"\nID=debian\n",
                      "Debian GNU/Linux", "12", "Debian GNU/Linux 12 (bookworm)"},
        OsReleaseCase{"NAME=Fedora\nVERSION_ID=40", "Fedora", "40", ""},
        OsReleaseCase{"NAME='Single $quoted'\n", "Single $quoted", "", ""},
        OsReleaseCase{"NAME=\"A \\\"quoted\\\" \\$name\"\n", "A \"quoted\" $name", "", ""},
        OsReleaseCase{"# NAME=commented\n\n  NAME=Arch Linux  \r\nnot a line\n", "Arch Linux", "",
                      ""},
        OsReleaseCase{"", "", "", ""}));

TEST(ParseMeminfoTest, ReadsTotalAndAvailableInBytes) {
  auto info = DeviceFacts::parseMeminfo(
      "MemTotal:       16314216 kB\nMemFree:         1000 kB\nMemAvailable:   8000000 kB\n");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->totalBytes, 16314216ull * 1024);
  EXPECT_EQ(info->availableBytes, 8000000ull * 1024);
  // Kernels older than MemAvailable: free memory stands in.
  EXPECT_EQ(DeviceFacts::parseMeminfo("MemTotal: 2048 kB\nMemFree: 512 kB\n")->availableBytes,
            512u * 1024);
  EXPECT_FALSE(DeviceFacts::parseMeminfo("MemFree: 512 kB\n"));
  EXPECT_FALSE(DeviceFacts::parseMeminfo("MemTotal: lots kB\n"));
}

TEST(ParseDrmModeTest, TakesTheFirstModeOnly) {
  auto size = DeviceFacts::parseDrmMode("2560x1440\n1920x1080\n");
  ASSERT_TRUE(size);
  EXPECT_EQ(size->width, 2560);
  EXPECT_EQ(size->height, 1440);
  auto interlaced = DeviceFacts::parseDrmMode("1920x1080i\n");
  ASSERT_TRUE(interlaced);
  EXPECT_EQ(interlaced->height, 1080);
  EXPECT_FALSE(DeviceFacts::parseDrmMode(""));
  EXPECT_FALSE(DeviceFacts::parseDrmMode("0x0\n"));
  EXPECT_FALSE(DeviceFacts::parseDrmMode("widexhigh\n"));
}

class DeviceFactsFilesTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "nembra-facts-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string write(const std::string& name, const std::string& text) {
    fs::create_directories((dir_ / name).parent_path());
    std::ofstream(dir_ / name) << text;
    return (dir_ / name).string();
  }
  DeviceFacts::Sources sources() {
    DeviceFacts::Sources s;
    s.osReleaseFiles = {(dir_ / "etc-os-release").string(), (dir_ / "lib-os-release").string()};
    s.meminfoFile = (dir_ / "meminfo").string();
    s.drmDirectory = (dir_ / "drm").string();
    return s;
  }

  fs::path dir_;
};

TEST_F(DeviceFactsFilesTest, DescriptionFromOsReleaseElseFromTheKernel) {
  DeviceFacts facts(sources());
  const KernelInfo kernel = DeviceFacts::kernel();
  OptionalError error;
  EXPECT_FALSE(facts.osRelease(&error));
  EXPECT_TRUE(error);
  EXPECT_EQ(facts.describe().systemName, kernel.sysname);
  EXPECT_EQ(facts.describe().systemVersion, kernel.release);

  write("lib-os-release", "NAME=Fallback\nVERSION_ID=1\n");
  DeviceDescription description = facts.describe();
  EXPECT_EQ(description.systemName, "Fallback");
  EXPECT_EQ(description.systemVersion, "1");
  EXPECT_EQ(description.model, kernel.machine);
  EXPECT_EQ(description.name, kernel.nodename);
}

TEST_F(DeviceFactsFilesTest, MainDisplayIsTheFirstConnectedConnector) {
  EXPECT_FALSE(DeviceFacts(sources()).mainDisplaySize());
  write("drm/card0/dev", "226:0\n");
  write("drm/card0-DP-1/status", "disconnected\n");
  write("drm/card0-DP-1/modes", "3840x2160\n");
  write("drm/card0-HDMI-A-1/status", "connected\n");
  write("drm/card0-HDMI-A-1/modes", "1280x1024\n1024x768\n");
  write("drm/card0-HDMI-A-2/status", "connected\n");
  write("drm/card0-HDMI-A-2/modes", "1920x1080\n");
  auto size = DeviceFacts(sources()).mainDisplaySize();
  ASSERT_TRUE(size);
  EXPECT_EQ(size->width, 1280);
  EXPECT_EQ(size->height, 1024);
}

TEST(DeviceFactsTest, DiskSpaceOfAPath) {
  auto space = DeviceFacts::diskSpace(fs::temp_directory_path().string());
  ASSERT_TRUE(space);
  EXPECT_LE(space->availableBytes, space->totalBytes);
  EXPECT_FALSE(DeviceFacts::diskSpace("/nonexistent/nembra"));
}

}  // namespace
}  // namespace nembra
