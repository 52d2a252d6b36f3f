#include "platform/http/http_body_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "platform/http/testing/http_test_support.h"

namespace nembra {
namespace {

std::string patternOf(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251) & 0xFF);
  return bytes;
}

// Reads everything |body| yields, |capacity| bytes at most per read.
std::string drain(HttpBodyFile& body, size_t capacity, OptionalError& error) {
  std::string out;
  std::string buffer(capacity, '\0');
  while (size_t got = body.read(buffer.data(), capacity, error)) out.append(buffer.data(), got);
  return out;
}

class HttpBodyFileTest : public ::testing::Test {
 protected:
  std::string write(const std::string& bytes) {
    std::string path = scratch_.path() + "/file";
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  testing::ScratchDirectory scratch_;
};

TEST_F(HttpBodyFileTest, FramedFileReadsAsHeadFileTailAcrossEveryBlockBoundary) {
  const std::string head(70000, 'h');  // longer than a block: a block can hold head alone
  const std::string file = patternOf(3 * HttpBodyFile::kBlockSize + 17);
  const std::string tail = "\r\n--end--\r\n";
  const std::string path = write(file);
  for (size_t capacity : {size_t{1000}, HttpBodyFile::kBlockSize, 4 * HttpBodyFile::kBlockSize}) {
    OptionalError error;
    auto body = HttpBodyFile::open(path, error, head, tail);
    ASSERT_TRUE(body) << error->message;
    EXPECT_EQ(body->size(), static_cast<int64_t>(head.size() + file.size() + tail.size()));
    std::string sent = drain(*body, capacity, error);
    EXPECT_FALSE(error);
    EXPECT_EQ(sent, head + file + tail) << "capacity " << capacity;
  }
}

TEST_F(HttpBodyFileTest, SeekingBackResendsTheSameBytes) {
  const std::string path = write(patternOf(100000));
  OptionalError error;
  auto body = HttpBodyFile::open(path, error, "head", "tail");
  ASSERT_TRUE(body);
  std::string first = drain(*body, 4096, error);
  ASSERT_TRUE(body->seek(2));
  EXPECT_EQ(drain(*body, 4096, error), first.substr(2));
  EXPECT_FALSE(body->seek(body->size() + 1));
  EXPECT_FALSE(body->seek(-1));
  EXPECT_FALSE(error);
}

TEST_F(HttpBodyFileTest, AFileThatShrinksWhileSentFailsInsteadOfSendingAShortBody) {
  const std::string path = write(patternOf(200000));
  OptionalError error;
  auto body = HttpBodyFile::open(path, error, "head", "tail");
  ASSERT_TRUE(body);
  char buffer[HttpBodyFile::kBlockSize];
  ASSERT_GT(body->read(buffer, sizeof(buffer), error), 0u);
  ASSERT_EQ(::truncate(path.c_str(), 100000), 0);
  std::string rest = drain(*body, sizeof(buffer), error);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::File);
  EXPECT_NE(error->message.find("ended after 100000 of 200000 bytes"), std::string::npos)
      << error->message;
}

TEST_F(HttpBodyFileTest, MissingFilesAndDirectoriesAreFileErrors) {
  OptionalError missing;
  EXPECT_FALSE(HttpBodyFile::open(scratch_.path() + "/none", missing));
  ASSERT_TRUE(missing);
  EXPECT_NE(missing->message.find("does not exist"), std::string::npos);
  OptionalError directory;
  EXPECT_FALSE(HttpBodyFile::open(scratch_.path(), directory));
  ASSERT_TRUE(directory);
  EXPECT_NE(directory->message.find("is not a regular file"), std::string::npos);
}

}  // namespace
}  // namespace nembra
