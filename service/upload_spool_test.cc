#include "service/upload_spool.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "service/data_directory.h"
#include "service/fault_injection.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;

class UploadSpoolTest : public ::testing::Test {
 protected:
  UploadSpoolTest()
      : root_(fs::temp_directory_path() / ("nembra-spool-" + std::to_string(::getpid()))),
        directory_(root_.string()) {
    fs::remove_all(root_);
    EXPECT_FALSE(directory_.prepare());
  }
  ~UploadSpoolTest() override { fs::remove_all(root_); }

  UploadSpool::Outcome receive(UploadSpool& spool, const std::string& body) {
    return spool.receive(
        [&](const UploadSpool::BodyReceiver& receiver) {
          return receiver(body.data(), body.size());
        },
        "b", "file", nullptr);
  }

  static std::string part(const std::string& disposition, const std::string& content) {
    return "--b\r\nContent-Disposition: form-data; " + disposition + "\r\n\r\n" + content + "\r\n";
  }

  fs::path root_;
  DataDirectory directory_;
  FaultInjection faults_{FaultOptions{}};
};

TEST_F(UploadSpoolTest, KeepsTheFieldsBeforeItsOneFile) {
  UploadSpool spool(directory_, faults_);
  ASSERT_EQ(
      receive(spool, part("name=\"key\"", "k") + part("name=\"file\"; filename=\"a\"", "DATA") +
                         part("name=\"after\"", "x") + "--b--\r\n"),
      UploadSpool::Outcome::Stored);
  EXPECT_EQ(spool.fields(), (std::vector<std::pair<std::string, std::string>>{{"key", "k"}}));
  EXPECT_EQ(fs::file_size(spool.filePath()), 4u);
}

TEST_F(UploadSpoolTest, RefusesASecondFileAndKeepsNeither) {
  UploadSpool spool(directory_, faults_);
  EXPECT_EQ(receive(spool, part("name=\"file\"; filename=\"a\"", "ONE") +
                               part("name=\"file\"; filename=\"b\"", "TWO") + "--b--\r\n"),
            UploadSpool::Outcome::Malformed);
  EXPECT_EQ(spool.message(), "the form has more than one file part");
  EXPECT_TRUE(fs::is_empty(directory_.temporaryDirectory()));
}

}  // namespace
}  // namespace nembra
