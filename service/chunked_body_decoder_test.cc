#include "service/chunked_body_decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nembra {
namespace {

struct Decoded {
  ChunkedBodyDecoder::Status status;
  std::string data;
  size_t consumed = 0;  // of the last piece
  std::string error;
};

// Feeds |input| in pieces of |step| bytes, as a socket might deliver it.
Decoded decode(const std::string& input, size_t step = SIZE_MAX) {
  ChunkedBodyDecoder decoder;
  Decoded out{ChunkedBodyDecoder::Status::NeedMore, "", 0, ""};
  for (size_t at = 0; at < input.size(); at += step) {
    std::string piece = input.substr(at, step);
    out.status = decoder.decode(piece.data(), piece.size(), out.consumed,
                                [&](const char* data, size_t size) {
                                  out.data.append(data, size);
                                  return true;
                                });
    if (out.status != ChunkedBodyDecoder::Status::NeedMore) break;
  }
  out.error = decoder.error();
  EXPECT_EQ(decoder.dataBytes(), out.data.size());
  return out;
}

TEST(ChunkedBodyDecoderTest, DecodesChunksInAnyPieces) {
  std::string body = "5\r\nhello\r\n1;name=value\r\n \r\nA\r\n0123456789\r\n0\r\n\r\n";
  for (size_t step : {size_t(1), size_t(2), size_t(3), size_t(7), body.size()}) {
    auto out = decode(body, step);
    ASSERT_EQ(out.status, ChunkedBodyDecoder::Status::Done) << step << ": " << out.error;
    EXPECT_EQ(out.data, "hello 0123456789") << step;
  }
}

TEST(ChunkedBodyDecoderTest, LeavesTheNextRequestsBytes) {
  std::string body = "3\r\nabc\r\n0\r\nX-Trailer: 1\r\n\r\nGET / HTTP/1.1\r\n";
  auto out = decode(body);
  ASSERT_EQ(out.status, ChunkedBodyDecoder::Status::Done) << out.error;
  EXPECT_EQ(out.data, "abc");
  EXPECT_EQ(body.substr(out.consumed), "GET / HTTP/1.1\r\n");
}

TEST(ChunkedBodyDecoderTest, SizesAreHexOfAtMost15Digits) {
  struct Case {
    std::string size;
    bool ok;
  };
  std::vector<Case> cases = {
      {"1", true},
      {"01", true},
      {"000000000000001", true},
      {"1 ", true},
      {"1;ext", true},
      {"1 ;e=\"x\"", true},
      {"", false},
      {"x", false},
      {"-1", false},
      {"+1", false},
      {"0x1", false},
      {"1 2", false},
      {"0000000000000001", false},
      {"fffffffffffffffff", false},
  };
  for (const auto& c : cases) {
    auto out = decode(c.size + "\r\nZ\r\n0\r\n\r\n");
    EXPECT_EQ(out.status == ChunkedBodyDecoder::Status::Done, c.ok) << "\"" << c.size << "\"";
    if (!c.ok) {
      EXPECT_EQ(out.status, ChunkedBodyDecoder::Status::Failed) << c.size;
      EXPECT_FALSE(out.error.empty());
    }
  }
  // The largest size parses without overflow and is simply awaited.
  auto huge = decode("fffffffffffffff\r\nabc");
  EXPECT_EQ(huge.status, ChunkedBodyDecoder::Status::NeedMore);
  EXPECT_EQ(huge.data, "abc");
}

TEST(ChunkedBodyDecoderTest, RefusesBrokenFraming) {
  std::vector<std::pair<const char*, std::string>> cases = {
      {"no CRLF after data", "3\r\nabcX\r\n0\r\n\r\n"},
      {"LF only after size", "3\nabc\r\n0\r\n\r\n"},
      {"LF only after data", "3\r\nabc\n0\r\n\r\n"},
      {"control in extension", "3;\x01\r\nabc\r\n0\r\n\r\n"},
      {"folded trailer", "0\r\n folded\r\n\r\n"},
      {"trailer without colon", "0\r\nnonsense\r\n\r\n"},
  };
  for (const auto& [what, body] : cases) {
    auto out = decode(body, 1);
    EXPECT_EQ(out.status, ChunkedBodyDecoder::Status::Failed) << what;
  }
}

TEST(ChunkedBodyDecoderTest, LinesAndTrailersAreBounded) {
  std::string longLine = "1;" + std::string(ChunkedBodyDecoder::kMaxLineBytes, 'e');
  auto line = decode(longLine, 1000);  // never ends: refused at the limit
  EXPECT_EQ(line.status, ChunkedBodyDecoder::Status::Failed);
  EXPECT_NE(line.error.find("4 KiB"), std::string::npos) << line.error;

  std::string trailers = "0\r\n";
  while (trailers.size() <= ChunkedBodyDecoder::kMaxTrailerBytes) trailers += "X: 0123456789\r\n";
  auto trailer = decode(trailers + "\r\n", 512);
  EXPECT_EQ(trailer.status, ChunkedBodyDecoder::Status::Failed);
}

TEST(ChunkedBodyDecoderTest, StopsWhenTheSinkSaysSo) {
  ChunkedBodyDecoder decoder;
  std::string body = "3\r\nabc\r\n3\r\ndef\r\n0\r\n\r\n";
  size_t consumed = 0;
  auto status =
      decoder.decode(body.data(), body.size(), consumed, [](const char*, size_t) { return false; });
  EXPECT_EQ(status, ChunkedBodyDecoder::Status::Stopped);
  EXPECT_EQ(consumed, 6u);  // the size line and the first chunk
}

}  // namespace
}  // namespace nembra
