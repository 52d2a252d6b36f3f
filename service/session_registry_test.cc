#include "service/session_registry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

namespace nembra {
namespace {

namespace fs = std::filesystem;

const std::string kPrefix = SessionRegistry::kSessionKeyPrefix;

class SessionRegistryTest : public ::testing::Test {
 protected:
  SessionRegistryTest()
      : path_(fs::temp_directory_path() /
              ("nembra-sessions-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".db")) {
    fs::remove(path_);
    reopen();
  }
  ~SessionRegistryTest() override {
    registry_.reset();
    store_.reset();
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path_.string() + suffix);
  }

  void reopen(std::vector<std::string> allowed = {}, SessionLimits limits = {}) {
    registry_.reset();
    store_.reset();
    auto store = MediaStore::open(path_.string());
    ASSERT_TRUE(store.ok());
    store_ = std::move(*store);
    registry_ = std::make_unique<SessionRegistry>(*store_, std::move(allowed), limits,
                                                  [this] { return now_; });
  }

  static FormParams params(std::initializer_list<std::pair<std::string, std::string>> pairs) {
    FormParams form;
    for (const auto& [name, value] : pairs) form.add(name, value);
    return form;
  }

  int refusal(const std::string& app, const FormParams& form) {
    auto auth = registry_->authenticate(app, form);
    if (auth.ok()) return 0;
    return auth.error().code;
  }

  int64_t now_ = 1'700'000'000;
  fs::path path_;
  std::unique_ptr<MediaStore> store_;
  std::unique_ptr<SessionRegistry> registry_;
};

TEST_F(SessionRegistryTest, SessionTravelsUnderThePrefixedApplicationName) {
  std::string session = *registry_->createSession();
  auto auth = registry_->authenticate("app1", params({{kPrefix + "app1", session}}));
  ASSERT_TRUE(auth.ok()) << auth.error().message;
  EXPECT_EQ(auth->application, "app1");
  EXPECT_EQ(auth->session, session);
  EXPECT_NE(auth->sessionDigest, session);

  EXPECT_EQ(refusal("app1", params({})), 401);
  EXPECT_EQ(refusal("app1", params({{kPrefix + "app1", "made-up"}})), 401);
  EXPECT_EQ(refusal("app1", params({{"session", session}})), 401);
  auto wrongName = registry_->authenticate("app1", params({{kPrefix + "app2", session}}));
  ASSERT_FALSE(wrongName.ok());
  EXPECT_NE(wrongName.error().message.find("\"app2\""), std::string::npos);
}

TEST_F(SessionRegistryTest, HostlessPathsTakeTheApplicationFromTheParameterName) {
  std::string session = *registry_->createSession();
  auto auth = registry_->authenticate("", params({{"x", "1"}, {kPrefix + "app9", session}}));
  ASSERT_TRUE(auth.ok());
  EXPECT_EQ(auth->application, "app9");
  EXPECT_EQ(refusal("", params({{kPrefix + "../etc", session}})), 401);
  EXPECT_EQ(refusal("", params({{kPrefix, session}})), 401);
}

TEST_F(SessionRegistryTest, ASessionBelongsToTheFirstApplicationItServes) {
  std::string session = *registry_->createSession();
  ASSERT_TRUE(registry_->authenticate("first", params({{kPrefix + "first", session}})).ok());
  EXPECT_EQ(refusal("second", params({{kPrefix + "second", session}})), 401);
  reopen();  // the binding is kept in the store
  EXPECT_EQ(refusal("second", params({{kPrefix + "second", session}})), 401);
  EXPECT_EQ(refusal("first", params({{kPrefix + "first", session}})), 0);
}

TEST_F(SessionRegistryTest, AllowListServesOnlyItsTokens) {
  reopen({"alpha"});
  std::string session = *registry_->createSession();
  EXPECT_TRUE(registry_->serves("alpha"));
  EXPECT_FALSE(registry_->serves("beta"));
  EXPECT_EQ(refusal("beta", params({{kPrefix + "beta", session}})), 401);
  EXPECT_EQ(refusal("alpha", params({{kPrefix + "alpha", session}})), 0);
  reopen();
  EXPECT_TRUE(registry_->serves("beta"));
  EXPECT_FALSE(registry_->serves("be/ta"));
}

TEST_F(SessionRegistryTest, RecordsAuthTokensAndTheApplication) {
  std::string session = *registry_->createSession();
  ASSERT_TRUE(registry_
                  ->authenticate("app", params({{kPrefix + "app", session},
                                                {"client_auth", "c1"},
                                                {"server_auth", "s1"}}))
                  .ok());
  auto stored = store_->findSession(session);
  ASSERT_TRUE(stored.ok() && stored->has_value());
  EXPECT_EQ((*stored)->application, "app");
  EXPECT_EQ((*stored)->clientAuth, "c1");
  EXPECT_EQ((*stored)->serverAuth, "s1");
  EXPECT_EQ(*store_->applications(), std::vector<std::string>{"app"});
}

TEST_F(SessionRegistryTest, UnusedSessionsExpireAndLeaveTheStore) {
  reopen({}, SessionLimits{3600, 0});
  std::string used = *registry_->createSession();
  std::string idle = *registry_->createSession();
  for (int hour = 0; hour < 3; ++hour) {
    now_ += 1800;
    EXPECT_EQ(refusal("app", params({{kPrefix + "app", used}})), 0) << hour;
  }
  EXPECT_EQ(refusal("app", params({{kPrefix + "app", idle}})), 401);
  // Kept across a restart: the last use is in the store, not only in memory.
  now_ += 1800;
  reopen({}, SessionLimits{3600, 0});
  EXPECT_EQ(refusal("app", params({{kPrefix + "app", used}})), 0);

  // A later session creation clears the expired ones out of the database.
  ASSERT_TRUE(registry_->createSession().ok());
  EXPECT_FALSE(store_->findSession(idle)->has_value());
  EXPECT_TRUE(store_->findSession(used)->has_value());
}

TEST_F(SessionRegistryTest, EachAddressMayOpenOnlySoManySessionsAMinute) {
  reopen({}, SessionLimits{3600, 6});
  for (int i = 0; i < 6; ++i) ASSERT_TRUE(registry_->createSession("10.0.0.1").ok()) << i;
  auto refused = registry_->createSession("10.0.0.1");
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 429);
  EXPECT_TRUE(registry_->createSession("10.0.0.2").ok());  // other addresses are not held up
  now_ += 10;                                              // one more every 10 s
  EXPECT_TRUE(registry_->createSession("10.0.0.1").ok());
  EXPECT_FALSE(registry_->createSession("10.0.0.1").ok());
}

}  // namespace
}  // namespace nembra
