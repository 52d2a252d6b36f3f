#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nembra/main_queue.h"
#include "platform/dispatch/concurrent_queue.h"
#include "platform/dispatch/queue_ending.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/dispatch/timer.h"
#include "platform/system/notification_center.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;

std::string currentThreadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  return name;
}

TEST(SerialQueueTest, RunsTasksInOrderOnItsOwnNamedThread) {
  std::vector<int> order;
  std::string threadName;
  bool wasCurrent = false;
  {
    SerialQueue queue("com.nembra.test");
    for (int i = 0; i < 100; ++i) queue.async([&order, i] { order.push_back(i); });
    queue.sync([&] {
      threadName = currentThreadName();
      wasCurrent = queue.isCurrent();
    });
    EXPECT_FALSE(queue.isCurrent());
  }
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(threadName, "com.nembra.test");
  EXPECT_TRUE(wasCurrent);
}

TEST(SerialQueueTest, DestructorRunsTasksAlreadyPosted) {
  std::atomic<int> ran{0};
  {
    SerialQueue queue("drain");
    queue.async([] { std::this_thread::sleep_for(20ms); });
    for (int i = 0; i < 10; ++i) queue.async([&] { ++ran; });
  }
  EXPECT_EQ(ran, 10);
}

TEST(ConcurrentQueueTest, RunsTasksInParallelUnderTheLongNameSuffix) {
  ConcurrentQueue queue("com.gcd.nembraUploadQueue", 2);
  std::mutex mutex;
  std::condition_variable cv;
  int waiting = 0;
  std::set<std::string> names;
  // Two tasks that each wait for the other can only finish if they run at the same time.
  for (int i = 0; i < 2; ++i) {
    queue.async([&] {
      std::unique_lock lock(mutex);
      names.insert(currentThreadName());
      ++waiting;
      cv.notify_all();
      cv.wait_for(lock, 5s, [&] { return waiting == 2; });
    });
  }
  std::unique_lock lock(mutex);
  ASSERT_TRUE(cv.wait_for(lock, 5s, [&] { return waiting == 2; }));
  EXPECT_EQ(names, std::set<std::string>{"mbraUploadQueue"});
}

// Posts to a queue from its destructor, as a released capture may (an object whose last owner
// was a task, reporting its end).
struct PostsWhenReleased {
  std::function<void()> post;
  ~PostsWhenReleased() {
    if (post) post();
  }
};

// Waits for |future|; a queue that releases its task under its own lock deadlocks instead, and
// its thread can only be abandoned.
void expectReady(std::future<void>& future) {
  if (future.wait_for(5s) != std::future_status::ready) {
    ADD_FAILURE() << "a task was released with its queue locked";
    std::abort();
  }
}

TEST(QueueReleaseTest, ATaskIsReleasedWithItsQueueUnlocked) {
  {
    MainQueue main;
    std::promise<void> posted;
    auto guard = std::make_shared<PostsWhenReleased>();
    guard->post = [&] { main.async([&] { posted.set_value(); }); };
    main.async([guard = std::move(guard)] {});
    std::future<void> ran = std::async(std::launch::async, [&] { main.runUntilIdle(); });
    expectReady(ran);
    std::future<void> marker = posted.get_future();
    expectReady(marker);
  }
  auto check = [](auto& queue) {
    std::promise<void> posted;
    std::future<void> marker = posted.get_future();
    auto guard = std::make_shared<PostsWhenReleased>();
    guard->post = [&] { queue.async([&] { posted.set_value(); }); };
    queue.async([guard = std::move(guard)] {});
    expectReady(marker);
  };
  SerialQueue serial("release");
  check(serial);
  ConcurrentQueue concurrent("release", 1);
  check(concurrent);
}

TEST(MainQueueTest, RunUntilIdleRunsNestedPostsAndMarksItselfCurrent) {
  MainQueue main;
  std::vector<std::string> log;
  main.async([&] {
    log.push_back(main.isCurrent() ? "outer on main" : "outer elsewhere");
    main.async([&] { log.push_back("nested"); });
  });
  EXPECT_TRUE(log.empty());  // nothing runs until the host pumps
  EXPECT_EQ(main.runUntilIdle(), 2u);
  EXPECT_EQ(log, (std::vector<std::string>{"outer on main", "nested"}));
  EXPECT_FALSE(main.isCurrent());
  EXPECT_EQ(main.runUntilIdle(), 0u);
}

TEST(MainQueueTest, RunServesOtherThreadsUntilStopped) {
  MainQueue main;
  std::atomic<int> ran{0};
  std::thread producer([&] {
    for (int i = 0; i < 50; ++i) main.async([&] { ++ran; });
    main.async([&] { main.stop(); });
  });
  main.run();
  producer.join();
  EXPECT_EQ(ran, 50);
}

TEST(MainQueueTest, RunUntilWaitsForACallbackFromAnotherThread) {
  MainQueue main;
  bool called = false;
  SerialQueue worker("worker");
  worker.async([&] { main.async([&] { called = true; }); });
  EXPECT_TRUE(main.runUntil([&] { return called; }, 5s));
  EXPECT_FALSE(main.runUntil([] { return false; }, 30ms));
}

TEST(MainQueueTest, EndingRunsTheActionsOfThatQueueOnceWhileItCanStillTakePosts) {
  std::vector<std::string> ran;
  auto other = std::make_unique<MainQueue>();
  QueueEnding::add(*other, [&] { ran.push_back("other"); });
  {
    MainQueue queue;
    // An object bound to the queue still posts while it stops: the queue must be whole.
    QueueEnding::add(queue, [&] {
      queue.async([] {});
      ran.push_back("first");
    });
    const QueueEnding::Token removed = QueueEnding::add(queue, [&] { ran.push_back("removed"); });
    QueueEnding::add(queue, [&] { ran.push_back("second"); });
    QueueEnding::remove(removed);
  }
  EXPECT_EQ(ran, (std::vector<std::string>{"first", "second"}));
  other.reset();
  EXPECT_EQ(ran.back(), "other");
  EXPECT_EQ(ran.size(), 3u);
}

TEST(TimerTest, OneShotFiresOnceAndCancelledTimersNever) {
  MainQueue main;
  int fired = 0;
  int cancelledFired = 0;
  auto once = Timer::oneShot(main, 10ms, [&] { ++fired; });
  auto cancelled = Timer::oneShot(main, 10ms, [&] { ++cancelledFired; });
  cancelled->cancel();
  EXPECT_TRUE(main.runUntil([&] { return fired == 1; }, 5s));
  main.runUntil([] { return false; }, 50ms);
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(cancelledFired, 0);
  EXPECT_FALSE(once->isValid());
}

TEST(TimerTest, RepeatingFiresUntilDestroyed) {
  MainQueue main;
  int fired = 0;
  auto timer = Timer::repeating(main, 5ms, [&] { ++fired; });
  EXPECT_TRUE(main.runUntil([&] { return fired >= 3; }, 5s));
  timer.reset();
  int atReset = fired;
  main.runUntil([] { return false; }, 40ms);
  EXPECT_EQ(fired, atReset);
}

TEST(NotificationCenterTest, DeliversOnTheMainQueueOnlyToObserversOfTheName) {
  MainQueue main;
  NotificationCenter center(main);
  std::vector<int> received;
  auto token = center.addObserver(
      "changed", [&](const std::any& object) { received.push_back(std::any_cast<int>(object)); });
  center.addObserver("other", [&](const std::any&) { received.push_back(-1); });
  std::thread([&] { center.post("changed", 7); }).join();
  EXPECT_TRUE(received.empty());
  main.runUntilIdle();
  EXPECT_EQ(received, std::vector<int>{7});

  // Removed between posting and delivery: not called.
  center.post("changed", 8);
  center.removeObserver(token);
  main.runUntilIdle();
  EXPECT_EQ(received, std::vector<int>{7});
}

}  // namespace
}  // namespace nembra
