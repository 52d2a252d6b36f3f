// The player's hand-offs between threads: what they must guarantee for a seek and for close.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <future>
#include <thread>

#include "platform/ffmpeg/ffmpeg_clock.h"
#include "platform/ffmpeg/ffmpeg_frame_queue.h"
#include "platform/ffmpeg/ffmpeg_packet_queue.h"

namespace nembra::player {
namespace {

using namespace std::chrono_literals;

AvPacket packetOfSize(int size) {
  AvPacket packet(av_packet_alloc());
  av_new_packet(packet.get(), size);
  packet->duration = 10;
  return packet;
}

TEST(PacketQueueTest, FlushDropsThePacketsAndStartsANewSerial) {
  PacketQueue queue;
  for (int i = 0; i < 3; ++i) queue.put(packetOfSize(100).get());
  EXPECT_EQ(queue.bytes(), 300);
  EXPECT_EQ(queue.duration(), 30);
  const int before = queue.serial();

  queue.flush(4.5);
  EXPECT_EQ(queue.count(), 0u);
  EXPECT_EQ(queue.bytes(), 0);
  EXPECT_EQ(queue.serial(), before + 1);

  queue.put(packetOfSize(7).get());
  queue.putEnd();
  AvPacket out(av_packet_alloc());
  PacketQueue::Entry entry;
  ASSERT_TRUE(queue.get(out.get(), entry));
  EXPECT_EQ(out->size, 7);
  EXPECT_EQ(entry.serial, before + 1);
  EXPECT_DOUBLE_EQ(entry.discardBefore, 4.5);
  ASSERT_TRUE(queue.get(out.get(), entry));
  EXPECT_EQ(out->data, nullptr) << "the end marker is an empty packet";
}

TEST(PacketQueueTest, AbortWakesABlockedGetForGood) {
  PacketQueue queue;
  auto got = std::async(std::launch::async, [&] {
    AvPacket out(av_packet_alloc());
    PacketQueue::Entry entry;
    return queue.get(out.get(), entry);
  });
  EXPECT_EQ(got.wait_for(50ms), std::future_status::timeout);
  queue.abort();
  ASSERT_EQ(got.wait_for(1s), std::future_status::ready);
  EXPECT_FALSE(got.get());
  queue.put(packetOfSize(1).get());
  AvPacket out(av_packet_alloc());
  PacketQueue::Entry entry;
  EXPECT_FALSE(queue.get(out.get(), entry));
}

TEST(FrameQueueTest, PushWaitsForRoomAndAbortReleasesIt) {
  FrameQueue queue(2);
  EXPECT_TRUE(queue.push(DecodedFrame{AvFrame(av_frame_alloc()), 0, 0.0, 0.04}));
  EXPECT_TRUE(queue.push(DecodedFrame{AvFrame(av_frame_alloc()), 0, 0.04, 0.04}));
  auto third = std::async(std::launch::async, [&] {
    return queue.push(DecodedFrame{AvFrame(av_frame_alloc()), 0, 0.08, 0.04});
  });
  EXPECT_EQ(third.wait_for(50ms), std::future_status::timeout);
  ASSERT_NE(queue.peekNext(), nullptr);
  EXPECT_DOUBLE_EQ(queue.peekNext()->pts, 0.04);
  queue.pop();
  ASSERT_EQ(third.wait_for(1s), std::future_status::ready);
  EXPECT_TRUE(third.get());

  auto blocked = std::async(std::launch::async, [&] {
    return queue.push(DecodedFrame{AvFrame(av_frame_alloc()), 0, 0.12, 0.04});
  });
  EXPECT_EQ(blocked.wait_for(50ms), std::future_status::timeout);
  queue.abort();
  ASSERT_EQ(blocked.wait_for(1s), std::future_status::ready);
  EXPECT_FALSE(blocked.get());
}

TEST(ClockTest, RunsWithTimeStopsWhenPausedAndResumesWhereItStopped) {
  Clock clock;
  EXPECT_TRUE(std::isnan(clock.get(0)));
  clock.set(5.0, 1);
  EXPECT_TRUE(std::isnan(clock.get(2))) << "data of an older serial";
  std::this_thread::sleep_for(50ms);
  const double running = clock.get(1);
  EXPECT_GT(running, 5.04);
  EXPECT_LT(running, 5.5);

  clock.setPaused(true);
  const double paused = clock.get(1);
  std::this_thread::sleep_for(50ms);
  EXPECT_DOUBLE_EQ(clock.get(1), paused);

  clock.setPaused(false);
  EXPECT_NEAR(clock.get(1), paused, 0.01);
  clock.setPaused(true);
  clock.set(9.0, 1);  // a seek while paused moves it, and it stays paused
  std::this_thread::sleep_for(20ms);
  EXPECT_DOUBLE_EQ(clock.get(1), 9.0);
}

}  // namespace
}  // namespace nembra::player
