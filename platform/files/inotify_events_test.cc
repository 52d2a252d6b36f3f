#include "platform/files/inotify_events.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <cstring>

namespace nembra {
namespace {

void appendEvent(std::vector<uint8_t>& buffer, const std::string& name, uint32_t padded) {
  inotify_event event{};
  event.mask = IN_CLOSE_WRITE;
  event.len = padded;
  const size_t at = buffer.size();
  buffer.resize(at + sizeof event + padded, 0);
  std::memcpy(buffer.data() + at, &event, sizeof event);
  std::memcpy(buffer.data() + at + sizeof event, name.data(), name.size());
}

TEST(InotifyEventsTest, NamesComeWithoutPaddingAndNamelessEventsAreSkipped) {
  std::vector<uint8_t> buffer;
  appendEvent(buffer, "a.mp4", 16);
  appendEvent(buffer, "", 0);                   // the directory itself
  appendEvent(buffer, "exactly-sixteen!", 16);  // no NUL left in its room
  EXPECT_EQ(InotifyEvents::names(buffer), (std::vector<std::string>{"a.mp4", "exactly-sixteen!"}));
}

TEST(InotifyEventsTest, ARecordCutByTheBufferEndsTheWalk) {
  std::vector<uint8_t> buffer;
  appendEvent(buffer, "first", 16);
  appendEvent(buffer, "second", 32);
  const size_t whole = buffer.size();
  // Every cut inside the second record (header or name) keeps only the first name.
  for (size_t cut = whole - 32 - sizeof(inotify_event); cut < whole; ++cut) {
    const std::span<const uint8_t> part(buffer.data(), cut);
    EXPECT_EQ(InotifyEvents::names(part), std::vector<std::string>{"first"}) << cut;
  }
}

}  // namespace
}  // namespace nembra
