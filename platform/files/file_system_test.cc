#include "platform/files/file_system.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace nembra {
namespace {

namespace fs = std::filesystem;

class FileSystemTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "nembra-fs-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }
  std::string read(const std::string& name) const {
    return FileSystem::readFile(path(name)).value_or("<missing>");
  }
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir_)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path dir_;
};

TEST_F(FileSystemTest, DirectoriesLiveUnderTheRootAndAreCreatedOnDemand) {
  FileSystem files(path("root"));
  EXPECT_EQ(files.documentsDirectory(), path("root/Documents"));
  EXPECT_EQ(files.temporaryDirectory(), path("root/tmp"));
  EXPECT_EQ(files.containerForAppGroup("group.demo"), path("root/AppGroups/group.demo"));
  for (const char* dir : {"root/Documents", "root/tmp", "root/AppGroups/group.demo"}) {
    EXPECT_TRUE(fs::is_directory(path(dir))) << dir;
  }
  files.setRoot(path("other"));
  EXPECT_EQ(files.documentsDirectory(), path("other/Documents"));

  write("blocker", "a file where the root should be");
  OptionalError error;
  EXPECT_EQ(FileSystem(path("blocker")).documentsDirectory(&error), path("blocker/Documents"));
  EXPECT_TRUE(error);
}

class AppGroupNameTest : public testing::TestWithParam<std::string> {};

TEST_P(AppGroupNameTest, NameThatIsNotOnePathComponentIsRefused) {
  FileSystem files("/nonexistent-root");
  OptionalError error;
  EXPECT_FALSE(files.containerForAppGroup(GetParam(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::InvalidArgument);
}

INSTANTIATE_TEST_SUITE_P(Names, AppGroupNameTest,
                         testing::Values("", ".", "..", "a/b", "../escape",
                                         std::string("nul\0byte", 8)));

struct RootCase {
  const char* nembraHome;
  const char* xdgDataHome;
  const char* expected;
};

class DefaultRootTest : public testing::TestWithParam<RootCase> {
 protected:
  static void set(const char* name, const char* value) {
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  void SetUp() override {
    for (const char* name : {"NEMBRA_HOME", "XDG_DATA_HOME", "HOME"}) {
      const char* value = std::getenv(name);
      saved_.emplace_back(name, value ? value : "");
    }
  }
  void TearDown() override {
    for (const auto& [name, value] : saved_) set(name, value.empty() ? nullptr : value.c_str());
  }
  std::vector<std::pair<const char*, std::string>> saved_;
};

TEST_P(DefaultRootTest, FollowsTheEnvironmentInOrder) {
  set("NEMBRA_HOME", GetParam().nembraHome);
  set("XDG_DATA_HOME", GetParam().xdgDataHome);
  set("HOME", "/h");
  EXPECT_EQ(FileSystem::defaultRoot(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Environment, DefaultRootTest,
                         testing::Values(RootCase{"/n", "/x", "/n"},
                                         RootCase{"", "/x", "/x/nembra"},
                                         RootCase{nullptr, "/x", "/x/nembra"},
                                         RootCase{nullptr, "relative", "/h/.local/share/nembra"},
                                         RootCase{nullptr, nullptr, "/h/.local/share/nembra"}));

TEST_F(FileSystemTest, CopyRefusesAnExistingDestinationAndLeavesItAlone) {
  write("a", "new");
  write("b", "old");
  OptionalError error = FileSystem::copyItem(path("a"), path("b"));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, EEXIST);
  EXPECT_EQ(read("b"), "old");
  EXPECT_FALSE(FileSystem::copyItem(path("a"), path("c")));
  EXPECT_EQ(read("c"), "new");
  EXPECT_EQ(FileSystem::copyItem(path("missing"), path("d"))->code, ENOENT);
  EXPECT_EQ(entries(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(FileSystemTest, MoveRefusesAnExistingDestinationAndKeepsBothFiles) {
  write("a", "source");
  write("b", "target");
  ASSERT_TRUE(FileSystem::moveItem(path("a"), path("b")));
  EXPECT_EQ(read("a"), "source");
  EXPECT_EQ(read("b"), "target");

  EXPECT_FALSE(FileSystem::moveItem(path("a"), path("c")));
  EXPECT_EQ(read("c"), "source");
  EXPECT_FALSE(FileSystem::fileExists(path("a")));
}

TEST_F(FileSystemTest, RemoveSizeAndCreationDate) {
  auto before = std::chrono::system_clock::now() - std::chrono::seconds(2);
  fs::create_directories(path("tree/inner"));
  write("tree/inner/f", std::string(1234, 'x'));
  EXPECT_EQ(FileSystem::fileSize(path("tree/inner/f")), 1234u);
  auto created = FileSystem::creationDate(path("tree/inner/f"));
  ASSERT_TRUE(created);
  EXPECT_GE(*created, before);

  EXPECT_FALSE(FileSystem::removeItem(path("tree")));
  EXPECT_FALSE(FileSystem::fileExists(path("tree")));
  EXPECT_EQ(FileSystem::removeItem(path("tree"))->code, ENOENT);
  OptionalError error;
  EXPECT_FALSE(FileSystem::fileSize(path("tree"), &error));
  EXPECT_TRUE(error);
  EXPECT_FALSE(FileSystem::creationDate(path("tree")));
}

TEST_F(FileSystemTest, AtomicWriteReplacesContentsAndLeavesOnlyTheFile) {
  write("settings", "old contents that are longer than the new");
  chmod(path("settings").c_str(), 0640);
  EXPECT_FALSE(FileSystem::writeFileAtomically(path("settings"), "new"));
  EXPECT_EQ(read("settings"), "new");
  EXPECT_EQ(entries(), std::vector<std::string>{"settings"});
  struct stat st {};
  ASSERT_EQ(stat(path("settings").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  EXPECT_FALSE(FileSystem::writeFileAtomically(path("fresh"), ""));
  EXPECT_EQ(read("fresh"), "");
}

TEST_F(FileSystemTest, FailedAtomicWriteLeavesNoTemporaryFileBehind) {
  // A non-empty directory cannot be replaced by a file: the rename fails after the data was
  // written, which is the last moment a temporary file exists.
  fs::create_directories(path("target/inner"));
  OptionalError error = FileSystem::writeFileAtomically(path("target"), "data");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::File);
  EXPECT_EQ(entries(), std::vector<std::string>{"target"});
  EXPECT_TRUE(fs::is_directory(path("target/inner")));

  EXPECT_TRUE(FileSystem::writeFileAtomically(path("no-such-dir/file"), "data"));
  EXPECT_EQ(entries(), std::vector<std::string>{"target"});
}

}  // namespace
}  // namespace nembra
