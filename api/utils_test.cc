#include "api/utils.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/console_log.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;

// One JSON value under "v" and what every getter reads from it.
struct ReadingCase {
  const char* json;
  const char* string;
  int32_t int32;
  int64_t int64;
  double real;
  bool boolean;
};

class ReadingRulesTest : public testing::TestWithParam<ReadingCase> {};

TEST_P(ReadingRulesTest, EveryGetterFollowsTheTextualForm) {
  const ReadingCase& c = GetParam();
  Json json = Json::parse(std::string("{\"v\":") + c.json + "}");
  EXPECT_EQ(Utils::getStringFromJson(json, "v"), c.string);
  EXPECT_EQ(Utils::getIntFromJson(json, "v"), c.int32);
  EXPECT_EQ(Utils::getLongFromJson(json, "v"), c.int64);
  EXPECT_DOUBLE_EQ(Utils::getDoubleFromJson(json, "v"), c.real);
  EXPECT_EQ(Utils::getBoolFromJson(json, "v"), c.boolean);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ReadingRulesTest,
    testing::Values(
        ReadingCase{"\"text\"", "text", 0, 0, 0.0, false},
        ReadingCase{"\"true\"", "true", 0, 0, 0.0, true},
        ReadingCase{"\"TRUE\"", "TRUE", 0, 0, 0.0, false},
        // A JSON true reads as "1", which is not "true": deliberate.
        ReadingCase{"true", "1", 1, 1, 1.0, false}, ReadingCase{"false", "0", 0, 0, 0.0, false},
        ReadingCase{"1", "1", 1, 1, 1.0, false}, ReadingCase{"12", "12", 12, 12, 12.0, false},
        ReadingCase{"5.0", "5", 5, 5, 5.0, false}, ReadingCase{"2.5", "2.5", 2, 2, 2.5, false},
        ReadingCase{"0.1", "0.1", 0, 0, 0.1, false},
        ReadingCase{"-7.9", "-7.9", -7, -7, -7.9, false},
        ReadingCase{"\"7\"", "7", 7, 7, 7.0, false},
        ReadingCase{"\" -12abc\"", " -12abc", -12, -12, -12.0, false},
        ReadingCase{"\"+3.5e2x\"", "+3.5e2x", 3, 3, 350.0, false},
        ReadingCase{"\"inf\"", "inf", 0, 0, 0.0, false},
        ReadingCase{"4294967296", "4294967296", 2147483647, 4294967296, 4294967296.0, false},
        ReadingCase{"\"-99999999999999999999\"", "-99999999999999999999", -2147483647 - 1,
                    INT64_MIN, -1e20, false},
        ReadingCase{"18446744073709551615", "18446744073709551615", 2147483647, INT64_MAX,
                    18446744073709551615.0, false},
        ReadingCase{"1e300", "1e+300", 2147483647, INT64_MAX, 1e300, false},
        ReadingCase{"null", "", 0, 0, 0.0, false}, ReadingCase{"\"null\"", "", 0, 0, 0.0, false},
        ReadingCase{"\"<null>\"", "", 0, 0, 0.0, false},
        ReadingCase{"[1,2]", "[1,2]", 0, 0, 0.0, false},
        ReadingCase{"{\"b\":1}", "{\"b\":1}", 0, 0, 0.0, false}));

TEST(UtilsJsonTest, ValueBuiltWithInvalidUtf8StillHasATextualForm) {
  EXPECT_EQ(Utils::textualForm(Json::array({std::string("\xff")})), "[\"\xEF\xBF\xBD\"]");
}

TEST(UtilsJsonTest, MissingKeyAndNonObjectGiveDefaults) {
  for (const Json& json : {Json::object(), Json::array({1}), Json("v"), Json()}) {
    EXPECT_EQ(Utils::getStringFromJson(json, "v"), "");
    EXPECT_EQ(Utils::getIntFromJson(json, "v"), 0);
    EXPECT_FALSE(Utils::getObjectFromJson(json, "v"));
    EXPECT_FALSE(Utils::isNsNull(json, "v"));
  }
}

TEST(UtilsJsonTest, RawGettersAreAbsentForNullAndForTheWrongKind) {
  Json json = Json::parse(R"({"a":[1],"d":{"x":1},"n":null,"s":"null","t":"text"})");
  EXPECT_EQ(Utils::getArrayFromJson(json, "a"), Json::parse("[1]"));
  EXPECT_FALSE(Utils::getArrayFromJson(json, "d"));
  EXPECT_EQ(Utils::getDictionaryFromJson(json, "d"), Json::parse(R"({"x":1})"));
  EXPECT_FALSE(Utils::getDictionaryFromJson(json, "a"));
  EXPECT_EQ(Utils::getObjectFromJson(json, "t"), Json("text"));
  EXPECT_FALSE(Utils::getObjectFromJson(json, "n"));
  EXPECT_FALSE(Utils::getObjectFromJson(json, "s"));
  EXPECT_TRUE(Utils::isNsNull(json, "n"));
  EXPECT_TRUE(Utils::isNsNull(json, "s"));
  EXPECT_FALSE(Utils::isNsNull(json, "t"));
  EXPECT_TRUE(is_array(json["a"]));
  EXPECT_FALSE(is_array(json["d"]));
  EXPECT_TRUE(is_dictionary(json["d"]));
  EXPECT_FALSE(is_dictionary(json["a"]));
}

struct FileUrlCase {
  const char* url;
  std::optional<std::string> path;
};

class FileUrlTest : public testing::TestWithParam<FileUrlCase> {};

TEST_P(FileUrlTest, OnlyLocalFileUrlsGiveAPath) {
  EXPECT_EQ(Utils::pathFromFileUrl(GetParam().url), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(Urls, FileUrlTest,
                         testing::Values(FileUrlCase{"file:///tmp/a%20b.mp4", "/tmp/a b.mp4"},
                                         FileUrlCase{"FILE://localhost/tmp/x", "/tmp/x"},
                                         FileUrlCase{"file:///tmp/x?query#frag", "/tmp/x"},
                                         FileUrlCase{"file:///tmp/100%", "/tmp/100%"},
                                         FileUrlCase{"file://server/share/x", std::nullopt},
                                         FileUrlCase{"https://example.com/x", std::nullopt},
                                         FileUrlCase{"/tmp/plain/path", std::nullopt}));

class UtilsFilesTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "nembra-utils-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    files_.setRoot((dir_ / "root").string());
    setConsoleLogSink([this](const std::string& line) { lines_.push_back(line); });
  }
  void TearDown() override {
    setConsoleLogSink(nullptr);
    fs::remove_all(dir_);
  }
  std::string write(const std::string& name, const std::string& text) {
    std::ofstream((dir_ / name).string(), std::ios::binary) << text;
    return (dir_ / name).string();
  }

  fs::path dir_;
  FileSystem files_{""};
  std::vector<std::string> lines_;
};

TEST_F(UtilsFilesTest, SharedDirectoriesOfAnAppGroup) {
  const std::string root = (dir_ / "root").string();
  EXPECT_EQ(Utils::getDocumentsDirectory(files_), root + "/Documents");
  EXPECT_EQ(Utils::getSharedDirectoryForAppGroup("group.demo", files_),
            root + "/AppGroups/group.demo");
  EXPECT_EQ(Utils::getWritableSharedDirectoryForAppGroup("group.demo", files_),
            root + "/AppGroups/group.demo/Library/Caches");
  const std::string recordings =
      root + "/AppGroups/group.demo/Library/Caches/com.nembra.screen-recording";
  EXPECT_EQ(Utils::getSharedScreenRecordingDirectoryForAppGroup("group.demo", files_), recordings);
  EXPECT_TRUE(fs::is_directory(recordings));
  EXPECT_FALSE(Utils::getSharedScreenRecordingDirectoryForAppGroup("../escape", files_));
}

TEST_F(UtilsFilesTest, CopyToTemporaryDirectoryNamesTheCopyByTimeAndRandomNumber) {
  const std::string source = write("clip.mov", "movie bytes");
  const auto unixNow = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
  std::optional<std::string> copy = Utils::copyFileToTemporaryDirectory(source, "mp4", files_);
  ASSERT_TRUE(copy);
  EXPECT_EQ(FileSystem::readFile(*copy), "movie bytes");
  EXPECT_EQ(fs::path(*copy).parent_path(), dir_ / "root" / "tmp");

  // "<seconds>_<random>.mp4"
  const std::string name = fs::path(*copy).filename();
  const size_t underscore = name.find('_');
  ASSERT_NE(underscore, std::string::npos) << name;
  ASSERT_TRUE(name.ends_with(".mp4")) << name;
  const std::string seconds = name.substr(0, underscore);
  const std::string random = name.substr(underscore + 1, name.size() - underscore - 5);
  ASSERT_EQ(seconds.find_first_not_of("0123456789"), std::string::npos) << name;
  ASSERT_EQ(random.find_first_not_of("0123456789"), std::string::npos) << name;
  // Whole seconds of absolute time, which starts at 2001-01-01 UTC.
  EXPECT_NEAR(std::stoll(seconds), unixNow - 978307200, 2);
  EXPECT_LT(std::stoull(random), 4294967295ull);
  EXPECT_EQ(lines_,
            std::vector<std::string>{"Copied file " + source + " to temporary file " + *copy});
  EXPECT_NE(Utils::copyFileToTemporaryDirectory(source, "mp4", files_), copy);
}

TEST_F(UtilsFilesTest, FailedCopyLogsAndGivesNothing) {
  const std::string missing = (dir_ / "missing.mov").string();
  EXPECT_FALSE(Utils::copyFileToTemporaryDirectory(missing, "mp4", files_));
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_TRUE(lines_[0].starts_with("Failed to copy file " + missing + " to temporary file " +
                                    (dir_ / "root" / "tmp").string() + "/"))
      << lines_[0];
  EXPECT_NE(lines_[0].find(".mp4: cannot copy"), std::string::npos) << lines_[0];
  EXPECT_TRUE(fs::is_empty(dir_ / "root" / "tmp"));
}

TEST_F(UtilsFilesTest, MoveKeepsTheFileNameAndReportsFailure) {
  const std::string source = write("take.mp4", "x");
  fs::create_directories(dir_ / "dest");
  EXPECT_FALSE(Utils::moveFileWithSource(source, (dir_ / "dest").string()));
  EXPECT_TRUE(fs::exists(dir_ / "dest" / "take.mp4"));
  EXPECT_TRUE(lines_.empty());

  EXPECT_TRUE(Utils::moveFileWithSource(source, (dir_ / "dest").string()));
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_TRUE(lines_[0].starts_with("Unexpected error: cannot move " + source));
  EXPECT_TRUE(lines_[0].ends_with("."));
}

TEST_F(UtilsFilesTest, RemoveByUrlAndPathAndFileAttributes) {
  const std::string a = write("a b.txt", "12345");
  const std::string b = write("b.txt", "1");
  EXPECT_EQ(Utils::fileSize(a), 5u);
  EXPECT_EQ(getFileSize(a), 5u);
  const auto fallback = std::chrono::system_clock::time_point(std::chrono::seconds(42));
  EXPECT_NE(getFileCreationDateWithDefaultDate(a, fallback), fallback);

  Utils::removeFileWithUrl("https://example.com" + a);
  EXPECT_TRUE(fs::exists(a));
  Utils::removeFileWithUrl("file://" + (dir_ / "a%20b.txt").string());
  EXPECT_FALSE(fs::exists(a));
  Utils::removeFileWithPath(b);
  Utils::removeFileWithPath(b);
  EXPECT_FALSE(fs::exists(b));

  EXPECT_EQ(Utils::fileSize(a), 0u);
  EXPECT_EQ(getFileCreationDateWithDefaultDate(a, fallback), fallback);
}

}  // namespace
}  // namespace nembra
