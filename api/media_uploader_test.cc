#include "api/media_uploader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/testing/upload_service_fixture.h"
#include "platform/system/local_notifications.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::formFields;
using nembra::testing::links;
using std::chrono::milliseconds;
using std::chrono::seconds;

// The upload flow through the handler, against a real loopback service.
class UploaderTest : public nembra::testing::UploadServiceTest {};

// ---- One upload of each type ------------------------------------------------------------

struct TypeCase {
  const char* name;
  int type;
  const char* urlTarget;
  const char* fileHeaders;
  const char* confirmTarget;
};

class UploadTypeTest : public UploaderTest, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(UploadTypeTest, AsksStoresAndConfirmsThenDeletesTheFile) {
  const TypeCase& c = GetParam();
  std::string path = makeFile("clip.bin", "0123456789");
  auto outcome = std::make_shared<Outcome>();
  ASSERT_TRUE(upload(c.type, path, outcome));
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));

  EXPECT_EQ(targets(), (std::vector<std::string>{c.urlTarget, "POST /storage", c.confirmTarget}));
  auto requests = server_.requests();
  EXPECT_NE(requests[0].body.find("title=t&"), std::string::npos) << requests[0].body;
  const std::string& form = requests[1].body;
  EXPECT_NE(form.find(c.fileHeaders), std::string::npos) << form;
  EXPECT_NE(form.find("\r\n\r\n0123456789\r\n"), std::string::npos);
  EXPECT_LT(form.find("name=\"key\""), form.find("name=\"Policy\""));
  EXPECT_LT(form.find("name=\"Policy\""), form.find("name=\"X-Amz-Signature\""));

  EXPECT_FALSE(outcome->urlError);
  EXPECT_FALSE(outcome->confirmError);
  EXPECT_EQ(events_, (std::vector<std::string>{"preparing", "started m1 s1", "progress",
                                               "finished m1", "verified m1"}));
  EXPECT_FALSE(fs::exists(path)) << "a confirmed upload's file is deleted";
  EXPECT_EQ(journalSize(), 0u);
  EXPECT_EQ(handler().activeUploadCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Types, UploadTypeTest,
    ::testing::Values(
        TypeCase{"Video", VIDEO, "POST /v1/applications/app1/videos/videos-upload-url",
                 "name=\"file\"; filename=\"file.mp4\";\r\nContent-Type: video/mp4\r\n",
                 "POST /v1/applications/app1/videos/m1/streams/s1/confirm-video"},
        TypeCase{"Audio", AUDIO, "POST /embed/v1/applications/app1/audios",
                 "name=\"file\"; filename=\"file.aac\";\r\nContent-Type: audio/wav\r\n",
                 "POST /embed/v1/applications/app1/audios/m1/confirm"},
        TypeCase{"Image", IMAGE, "POST /embed/v1/applications/app1/images",
                 "name=\"file\"; filename=\"file.jpg\";\r\nContent-Type: image/png\r\n",
                 "POST /embed/v1/applications/app1/images/m1/confirm"}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploaderTest, FileUrlsAreUploadedFromTheirPath) {
  std::string path = makeFile("a b.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, "file://" + path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  EXPECT_FALSE(outcome->confirmError);
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(UploaderTest, TurnedOffUploaderDoesNothingAtAll) {
  nembra_->uploadingConfig().setShouldTurnOffUploader(true);
  std::string path = makeFile("a.mp4");
  auto outcome = std::make_shared<Outcome>();
  EXPECT_FALSE(upload(VIDEO, path, outcome));
  main_.runUntil([] { return false; }, milliseconds(200));
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(outcome->callbacks, 0);
}

// ---- Refused before any request ---------------------------------------------------------

struct RefusedCase {
  const char* name;
  int type;
  const char* file;  // made with |content| unless null
  const char* content;
  ErrorKind kind;
};

class RefusedUploadTest : public UploaderTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(RefusedUploadTest, AnswersWithAClearErrorAndSendsNothing) {
  const RefusedCase& c = GetParam();
  std::string path = scratch_.path() + "/" + c.file;
  if (c.content) makeFile(c.file, c.content);
  if (std::string(c.file) == "dir") fs::create_directory(path);
  auto outcome = std::make_shared<Outcome>();
  EXPECT_FALSE(upload(c.type, path, outcome));
  ASSERT_TRUE(pumpUntil([&] { return outcome->callbacks == 1; }));
  ASSERT_TRUE(outcome->urlError);
  EXPECT_EQ(outcome->urlError->kind, c.kind) << outcome->urlError->message;
  EXPECT_NE(outcome->urlError->message.find(path), std::string::npos) << outcome->urlError->message;
  EXPECT_EQ(events_.size(), 2u);
  EXPECT_EQ(events_.back().rfind("errorWithError", 0), 0u);
  EXPECT_TRUE(server_.requests().empty());
  if (c.content) {
    EXPECT_TRUE(fs::exists(path));
  }
  EXPECT_EQ(journalSize(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    BadInput, RefusedUploadTest,
    ::testing::Values(RefusedCase{"Missing", VIDEO, "none.mp4", nullptr, ErrorKind::File},
                      RefusedCase{"Empty", AUDIO, "empty.aac", "", ErrorKind::File},
                      RefusedCase{"Directory", IMAGE, "dir", nullptr, ErrorKind::File}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploaderTest, AnUnknownTypeAsksAnEmptyUrlInsteadOfBeingRefused) {
  EXPECT_EQ(handler().getApiUrlWithType(3, "/x"), "");
  EXPECT_EQ(handler().getPathWithType(3, "x"), "");
  std::string path = makeFile("notes.txt", "text");
  auto outcome = std::make_shared<Outcome>();
  EXPECT_TRUE(upload(3, path, outcome)) << "the request is made";
  ASSERT_TRUE(pumpUntil([&] { return outcome->callbacks == 1; }));
  ASSERT_TRUE(outcome->urlError);
  EXPECT_NE(outcome->urlError->kind, ErrorKind::InvalidArgument) << "the connection's own error";
  EXPECT_EQ(outcome->urlStatus, 0);
  ASSERT_TRUE(pumpUntil([&] { return events_.size() == 2; }));
  EXPECT_EQ(events_.front(), "preparing");
  EXPECT_EQ(events_.back().rfind("errorWithError", 0), 0u);
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(journalSize(), 0u);
}

// ---- Upload-URL answers that cannot be used ---------------------------------------------

struct BadReplyCase {
  const char* name;
  int status;
  std::string body;
  std::optional<ErrorKind> callbackError;  // what the connection itself reports
  const char* mentions;                    // in the delegate's errorWithError
};

class BadUrlReplyTest : public UploaderTest, public ::testing::WithParamInterface<BadReplyCase> {};

TEST_P(BadUrlReplyTest, EndsBeforeStorageWithTheFileKept) {
  const BadReplyCase& c = GetParam();
  {
    std::lock_guard lock(mutex_);
    urlStatus_ = c.status;
    urlBody_ = c.body;
  }
  std::string path = makeFile("kept.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil(
      [&] { return !events_.empty() && events_.back().rfind("errorWithError", 0) == 0; }));
  EXPECT_EQ(outcome->callbacks, 1);
  EXPECT_EQ(outcome->urlStatus, c.status);
  EXPECT_EQ(outcome->urlError ? std::optional(outcome->urlError->kind) : std::nullopt,
            c.callbackError);
  EXPECT_NE(events_.back().find(c.mentions), std::string::npos) << events_.back();
  EXPECT_EQ(count("POST /storage"), 0u);
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(journalSize(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    BadInput, BadUrlReplyTest,
    ::testing::Values(
        BadReplyCase{"NoUrlData", 200, R"({"video":{"token":"m1"},"stream":{"token":"s1"}})",
                     std::nullopt, "url_data"},
        BadReplyCase{"NoToken", 200, R"({"video":{},"stream":{"token":"s1"},"url_data":{}})",
                     std::nullopt, "token"},
        BadReplyCase{"FieldsNotAnObject", 200,
                     R"({"video":{"token":"m1"},"stream":{"token":"s1"},)"
                     R"("url_data":{"url":"http://x/","fields":[1]}})",
                     std::nullopt, "fields"},
        BadReplyCase{"NotHttp", 200,
                     R"({"video":{"token":"m1"},"stream":{"token":"s1"},)"
                     R"("url_data":{"url":"file:///etc/passwd","fields":{}}})",
                     std::nullopt, "not an http"},
        BadReplyCase{"TokenLeavingTheDirectory", 200,
                     R"({"video":{"token":"../m1"},"stream":{"token":"s1"},"url_data":{}})",
                     std::nullopt, "../m1"},
        BadReplyCase{"Refused", 403, R"({"status":403,"message":"quota exceeded"})", std::nullopt,
                     "quota exceeded"},
        BadReplyCase{"NotJson", 200, "<html>oops</html>", ErrorKind::Parse, "JSON"}),
    [](const auto& info) { return info.param.name; });

// ---- The confirm's answer --------------------------------------------------------------

struct ConfirmCase {
  const char* name;
  int status;
  const char* body;
  bool recordKept;  // for a later resume to confirm again
};

class ConfirmAnswerTest : public UploaderTest, public ::testing::WithParamInterface<ConfirmCase> {};

TEST_P(ConfirmAnswerTest, OnlyAnAnswerThatMayChangeKeepsTheRecord) {
  const ConfirmCase& c = GetParam();
  {
    std::lock_guard lock(mutex_);
    confirmStatus_ = c.status;
    confirmBody_ = c.body;
  }
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, makeFile("take.mp4"), outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  main_.runUntil([] { return false; }, milliseconds(50));
  EXPECT_EQ(journalSize(), c.recordKept ? 1u : 0u);
  EXPECT_EQ(handler().activeUploadCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ConfirmAnswerTest,
    ::testing::Values(
        ConfirmCase{"Confirmed", 200, R"({"token":"m1"})", false},
        ConfirmCase{"AlreadyConfirmed", 409,
                    R"({"status":409,"message":"stream s1 was already confirmed"})", false},
        ConfirmCase{"OtherConflict", 409,
                    R"({"status":409,"message":"the file of stream s1 has not arrived yet"})",
                    false},
        ConfirmCase{"Unplayable", 422,
                    R"({"status":422,"message":"the uploaded file is not playable: x"})", false},
        ConfirmCase{"ServiceDown", 503, R"({"status":503})", true},
        ConfirmCase{"Throttled", 429, R"({"status":429})", true}),
    [](const auto& info) { return info.param.name; });

// ---- Lost connection --------------------------------------------------------------------

struct ActionCase {
  const char* name;
  int32_t action;
  bool fileKept;
  bool recordKept;
  size_t urlRequests;
};

class LostConnectionTest : public UploaderTest, public ::testing::WithParamInterface<ActionCase> {};

TEST_P(LostConnectionTest, CarriesOutTheConfiguredAction) {
  const ActionCase& c = GetParam();
  {
    std::lock_guard lock(mutex_);
    storageStatus_ = 503;
  }
  nembra_->uploadingConfig().setLostConnectionAction(c.action);
  // A second new attempt would come 400 ms after the first: past the checks below.
  handler().setReloadDelay(milliseconds(200));
  std::vector<std::string> notifications;
  LocalNotifications::shared().setSink(
      [&](const LocalNotification& n) { notifications.push_back(n.title + ": " + n.body); });

  std::string path = makeFile("holiday clip.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ == static_cast<int>(c.urlRequests); }));
  main_.runUntil([] { return false; }, milliseconds(100));

  EXPECT_EQ(events_.back(), "errorWithInfo " + std::to_string(c.action) + " http");
  EXPECT_EQ(count("POST /v1/applications/app1/videos/videos-upload-url"), c.urlRequests);
  EXPECT_EQ(outcome->callbacks, static_cast<int>(c.urlRequests)) << "each attempt answers";
  EXPECT_EQ(outcome->confirms, 0);
  EXPECT_EQ(fs::exists(path), c.fileKept);
  EXPECT_EQ(journalSize(), c.recordKept ? 1u : 0u);
  if (c.action == UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION) {
    ASSERT_TRUE(MainQueue::shared().runUntil([&] { return !notifications.empty(); }, seconds(5)));
    EXPECT_EQ(notifications[0], "Nembra: Failed to upload holiday clip.mp4.");
  } else {
    MainQueue::shared().runUntil([] { return false; }, milliseconds(1200));
    EXPECT_TRUE(notifications.empty());
  }
  LocalNotifications::shared().setSink(nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Actions, LostConnectionTest,
    ::testing::Values(
        ActionCase{"Continue", UPLOADING_ERROR_ACTION_CONTINUE_UPLOADING_MEDIA, true, true, 1},
        ActionCase{"Reload", UPLOADING_ERROR_ACTION_RELOAD_MEDIA, true, false, 2},
        ActionCase{"Notify", UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION, true, false, 1},
        ActionCase{"Delete", UPLOADING_ERROR_ACTION_DELETE_MEDIA, false, false, 1},
        ActionCase{"UnknownActsAsContinue", 777, true, true, 1}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploaderTest, ReloadStartsTheWholeFlowAgainWithNoCap) {
  {
    std::lock_guard lock(mutex_);
    storageStatus_ = 503;
  }
  nembra_->uploadingConfig().setLostConnectionAction(UPLOADING_ERROR_ACTION_RELOAD_MEDIA);
  handler().setReloadDelay(milliseconds(1));
  std::string path = makeFile("again.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ >= 8; }, milliseconds(30000)));
  EXPECT_TRUE(handler().isUploading(path)) << "the next attempt is on its way";
  nembra_->uploadingConfig().setShouldTurnOffUploader(true);
  ASSERT_TRUE(pumpUntil([&] { return handler().activeUploadCount() == 0; }));
  EXPECT_GE(count("POST /v1/applications/app1/videos/videos-upload-url"), 8u);
  EXPECT_EQ(outcome->confirms, 0);
  EXPECT_TRUE(fs::exists(path));
}

TEST_F(UploaderTest, CancelEndsTheTransferWithItsAction) {
  nembra_->uploadingConfig().setLostConnectionAction(UPLOADING_ERROR_ACTION_DELETE_MEDIA);
  gate_.close();
  std::string path = makeFile("a.mp4");
  upload(VIDEO, path, std::make_shared<Outcome>());
  ASSERT_TRUE(pumpUntil([&] { return gate_.waiting() == 1; }));
  handler().cancelUpload(path, false);
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ == 1; }));
  gate_.open();
  main_.runUntil([] { return false; }, milliseconds(300));
  EXPECT_EQ(events_.back(), "errorWithInfo 554 cancelled");
  EXPECT_FALSE(fs::exists(path)) << "the end-of-transfer step ran the delete action";
  EXPECT_EQ(journalSize(), 0u);
  EXPECT_EQ(handler().activeUploadCount(), 0u);
}

TEST_F(UploaderTest, AFileChangedDuringItsTransferIsKeptAndNotConfirmed) {
  nembra_->uploadingConfig().setLostConnectionAction(UPLOADING_ERROR_ACTION_DELETE_MEDIA);
  std::string path = makeFile("growing.mp4", "first part");
  {
    std::lock_guard lock(mutex_);
    duringStorage_ = [path] { std::ofstream(path, std::ios::app) << " and more"; };
  }
  upload(VIDEO, path, std::make_shared<Outcome>());
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ == 1; }));
  EXPECT_EQ(events_.back(), "errorWithInfo 554 file");
  EXPECT_EQ(verified_, 0);
  EXPECT_TRUE(fs::exists(path)) << "the delete action never touches a changed file";
}

}  // namespace
}  // namespace nembra
