#include "platform/system/user_defaults.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/files/file_system.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;

class UserDefaultsTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "nembra-defaults-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    file_ = (dir_ / "Preferences" / "defaults.json").string();
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::vector<std::string> preferenceFiles() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir_ / "Preferences")) {
      names.push_back(e.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  void writeFile(const std::string& text) {
    fs::create_directories(dir_ / "Preferences");
    std::ofstream(file_) << text;
  }

  fs::path dir_;
  std::string file_;
};

TEST_F(UserDefaultsTest, ValuesPersistAcrossInstances) {
  {
    UserDefaults defaults(file_);
    EXPECT_FALSE(defaults.setValue("group.demo", "AppGroup"));
    EXPECT_FALSE(defaults.setValue(Json{{"a", 1}}, "Nested"));
    // Not valid UTF-8: stored with a replacement character instead of failing the whole file.
    EXPECT_FALSE(defaults.setValue(std::string("\xff"), "Bytes"));
  }
  UserDefaults reread(file_);
  EXPECT_EQ(reread.stringForKey("AppGroup"), "group.demo");
  EXPECT_EQ(reread.objectForKey("Nested"), (Json{{"a", 1}}));
  // A value that is not a string has no string form here.
  EXPECT_FALSE(reread.stringForKey("Nested"));
  EXPECT_FALSE(reread.stringForKey("Missing"));
  EXPECT_EQ(reread.stringForKey("Bytes"), "\xEF\xBF\xBD");
  EXPECT_EQ(preferenceFiles(), std::vector<std::string>{"defaults.json"});
}

TEST_F(UserDefaultsTest, NullValueAndRemoveDeleteTheKeyOnDisk) {
  UserDefaults defaults(file_);
  defaults.setValue("x", "a");
  defaults.setValue("y", "b");
  defaults.setValue(nullptr, "a");
  defaults.removeObjectForKey("b");
  UserDefaults reread(file_);
  EXPECT_FALSE(reread.objectForKey("a"));
  EXPECT_FALSE(reread.objectForKey("b"));
}

class CorruptFileTest : public UserDefaultsTest, public testing::WithParamInterface<std::string> {};

TEST_P(CorruptFileTest, IsReportedMovedAsideAndTreatedAsEmpty) {
  writeFile(GetParam());
  UserDefaults defaults(file_);
  std::vector<std::string> lines;
  defaults.setReporter([&](const std::string& line) { lines.push_back(line); });

  EXPECT_FALSE(defaults.objectForKey("AppGroup"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("moved to " + file_ + ".corrupt"), std::string::npos) << lines[0];
  std::ifstream aside(file_ + ".corrupt");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(aside), {}), GetParam());

  EXPECT_FALSE(defaults.setValue("g", "AppGroup"));
  EXPECT_EQ(UserDefaults(file_).stringForKey("AppGroup"), "g");
}

INSTANTIATE_TEST_SUITE_P(Contents, CorruptFileTest,
                         testing::Values("{\"AppGroup\": ", "not json", "[1, 2]", "\"text\"",
                                         std::string("{\"a\":\"\xff\"}")));

TEST_F(UserDefaultsTest, FailedWriteKeepsTheValueAndSynchronizeRetries) {
  fs::create_directories(dir_);
  std::ofstream(dir_ / "Preferences") << "a file where the directory should be";
  UserDefaults defaults(file_);
  std::vector<std::string> lines;
  defaults.setReporter([&](const std::string& line) { lines.push_back(line); });

  EXPECT_TRUE(defaults.setValue("g", "AppGroup"));
  EXPECT_EQ(defaults.stringForKey("AppGroup"), "g");
  EXPECT_EQ(lines.size(), 1u);
  EXPECT_TRUE(defaults.synchronize());

  fs::remove(dir_ / "Preferences");
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_EQ(UserDefaults(file_).stringForKey("AppGroup"), "g");
}

TEST_F(UserDefaultsTest, SynchronizeSeesAnotherWritersChanges) {
  UserDefaults mine(file_);
  UserDefaults theirs(file_);
  EXPECT_FALSE(mine.stringForKey("AppGroup"));
  theirs.setValue("from-elsewhere", "AppGroup");
  EXPECT_FALSE(mine.stringForKey("AppGroup"));
  EXPECT_FALSE(mine.synchronize());
  EXPECT_EQ(mine.stringForKey("AppGroup"), "from-elsewhere");
}

TEST_F(UserDefaultsTest, ConcurrentWritersLoseNothing) {
  UserDefaults defaults(file_);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&defaults, t] {
      for (int i = 0; i < 10; ++i)
        defaults.setValue(i, std::to_string(t) + "-" + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  UserDefaults reread(file_);
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(reread.objectForKey(std::to_string(t) + "-" + std::to_string(i)), Json(i));
    }
  }
  EXPECT_EQ(preferenceFiles(), std::vector<std::string>{"defaults.json"});
}

}  // namespace
}  // namespace nembra
