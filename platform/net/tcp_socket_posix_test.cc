#include "platform/net/tcp_socket_posix.h"

#include <gtest/gtest.h>

#include <vector>

namespace nembra {
namespace {

struct SkipCase {
  size_t first;
  size_t sent;
  size_t expectedFirst;
  size_t expectedOffset;  // into the buffer at expectedFirst
};

class TcpSkipSentBytesTest : public ::testing::TestWithParam<SkipCase> {};

TEST_P(TcpSkipSentBytesTest, ResumesWhereTheShortWriteStopped) {
  uint8_t a[10], b[5], c[20];
  std::vector<iovec> buffers = {{a, 10}, {b, 5}, {c, 20}};
  uint8_t* bases[] = {a, b, c};
  const size_t lengths[] = {10, 5, 20};
  const SkipCase& test = GetParam();
  const size_t next = tcpSkipSentBytes(buffers, test.first, test.sent);
  ASSERT_EQ(next, test.expectedFirst);
  if (next < buffers.size()) {
    EXPECT_EQ(buffers[next].iov_base, bases[next] + test.expectedOffset);
    EXPECT_EQ(buffers[next].iov_len, lengths[next] - test.expectedOffset);
  }
}

INSTANTIATE_TEST_SUITE_P(ShortWrites, TcpSkipSentBytesTest,
                         ::testing::Values(SkipCase{0, 0, 0, 0},     // nothing went out
                                           SkipCase{0, 3, 0, 3},     // inside the first buffer
                                           SkipCase{0, 10, 1, 0},    // exactly the first buffer
                                           SkipCase{0, 12, 1, 2},    // into the second
                                           SkipCase{0, 34, 2, 19},   // all but one byte
                                           SkipCase{1, 5, 2, 0},     // resumed from the second
                                           SkipCase{0, 35, 3, 0}));  // everything

}  // namespace
}  // namespace nembra
