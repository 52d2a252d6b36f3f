#include "service/upload_file_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "service/background_data_flusher.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;

class UploadFileWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() /
            ("nembra-writer-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  fs::path root_;
};

// Pieces of every size class: tiny ones gathered into blocks, large ones written directly,
// enough of them to go past the write-behind and the background flush thresholds.
TEST_F(UploadFileWriterTest, LargeUploadsArriveWholeThroughBlocksWritesBehindAndFlushes) {
  const std::string path = (root_ / "upload.part").string();
  UploadFileWriter writer;
  ASSERT_TRUE(writer.open(path)) << writer.error();
  const std::vector<size_t> sizes = {1, 4096, UploadFileWriter::kDirectBytes + 3, 100,
                                     UploadFileWriter::kBlockBytes * 3};
  std::string piece(UploadFileWriter::kBlockBytes * 3, '\0');
  for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<char>(i * 7 + i / 4093);
  uint64_t total = 0;
  uint64_t checksum = 0;
  for (int round = 0; total < UploadFileWriter::kFlushAfterBytes + (8u << 20); ++round) {
    size_t size = sizes[round % sizes.size()];
    ASSERT_TRUE(writer.write(piece.data(), size)) << writer.error();
    for (size_t i = 0; i < size; ++i) checksum = checksum * 31 + static_cast<uint8_t>(piece[i]);
    total += size;
  }
  ASSERT_TRUE(writer.close()) << writer.error();

  ASSERT_EQ(fs::file_size(path), total);
  std::ifstream in(path, std::ios::binary);
  uint64_t readBack = 0;
  std::vector<char> block(1 << 20);
  while (in.read(block.data(), block.size()) || in.gcount() > 0) {
    for (std::streamsize i = 0; i < in.gcount(); ++i) {
      readBack = readBack * 31 + static_cast<uint8_t>(block[i]);
    }
  }
  EXPECT_EQ(readBack, checksum);
}

TEST_F(UploadFileWriterTest, ReopeningOrDroppingAWriterMidUploadLeavesNoThreadBehind) {
  std::string piece(UploadFileWriter::kBlockBytes, 'x');
  for (int drop = 0; drop < 2; ++drop) {
    auto writer = std::make_unique<UploadFileWriter>();
    ASSERT_TRUE(writer->open((root_ / "first").string()));
    for (uint64_t n = 0; n < UploadFileWriter::kFlushAfterBytes + (16u << 20); n += piece.size()) {
      ASSERT_TRUE(writer->write(piece.data(), piece.size()));
    }
    if (drop == 0) {
      ASSERT_TRUE(writer->open((root_ / "second").string()));
      ASSERT_TRUE(writer->write("abc", 3));
      ASSERT_TRUE(writer->close()) << writer->error();
      EXPECT_EQ(fs::file_size(root_ / "second"), 3u);
    }
    writer.reset();  // a flusher still running would now touch a closed descriptor
  }
}

TEST(BackgroundDataFlusherTest, ReportsTheFirstFailedFlushOnceStopped) {
  char name[] = "/tmp/nembra-flusher-XXXXXX";
  int file = ::mkstemp(name);
  ASSERT_GE(file, 0);
  ::unlink(name);
  ASSERT_EQ(::write(file, "data", 4), 4);
  BackgroundDataFlusher good(file);
  good.progress();
  good.progress();
  EXPECT_EQ(good.stop(), 0);
  EXPECT_EQ(good.stop(), 0);
  ::close(file);

  int pipeEnds[2];
  ASSERT_EQ(::pipe(pipeEnds), 0);
  BackgroundDataFlusher pipe(pipeEnds[1]);  // a pipe cannot be flushed
  pipe.progress();
  pipe.progress();
  EXPECT_EQ(pipe.stop(), EINVAL);
  ::close(pipeEnds[0]);
  ::close(pipeEnds[1]);
}

}  // namespace
}  // namespace nembra
