#include "service/http_head_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nembra {
namespace {

constexpr const char* kPost =
    "POST /storage/nembra-media?x=1 HTTP/1.1\r\n"
    "Host: 127.0.0.1:9000\r\n"
    "User-Agent: curl/7.88.1\r\n"
    "Content-Length: 1234\r\n"
    "Content-Type: multipart/form-data; boundary=abc\r\n"
    "Expect: 100-continue\r\n"
    "\r\n";

TEST(HttpHeadParserTest, ReadsARequestHeadAndItsFraming) {
  std::string input = std::string(kPost) + "--abc";
  HttpHeadParser parser;
  HttpRequestHead head;
  size_t consumed = 0;
  ASSERT_EQ(parser.parse(input, head, consumed), HttpHeadParser::Status::Done) << parser.error();
  EXPECT_EQ(consumed, input.size() - 5);  // the body's first bytes are left
  EXPECT_EQ(head.method, "POST");
  EXPECT_EQ(head.target, "/storage/nembra-media?x=1");
  EXPECT_EQ(head.path, "/storage/nembra-media");
  EXPECT_EQ(head.minorVersion, 1);
  EXPECT_EQ(head.body, HttpRequestHead::Body::Length);
  EXPECT_EQ(head.contentLength, 1234u);
  EXPECT_TRUE(head.expectContinue);
  EXPECT_TRUE(head.keepAlive);
  EXPECT_EQ(head.header("content-type"), "multipart/form-data; boundary=abc");
  EXPECT_EQ(head.header("user-agent"), "curl/7.88.1");
  EXPECT_EQ(head.header("nothing"), "");
}

TEST(HttpHeadParserTest, WaitsForTheBlankLineByteByByte) {
  std::string input = kPost;
  HttpHeadParser parser;
  HttpRequestHead head;
  size_t consumed = 0;
  for (size_t size = 0; size < input.size(); ++size) {
    ASSERT_EQ(parser.parse(std::string_view(input).substr(0, size), head, consumed),
              HttpHeadParser::Status::NeedMore)
        << size;
  }
  EXPECT_EQ(parser.parse(input, head, consumed), HttpHeadParser::Status::Done);
  EXPECT_EQ(consumed, input.size());
}

struct HeadCase {
  const char* what;
  std::string head;
  HttpHeadParser::Status status;
  int errorStatus;  // when Failed
  HttpRequestHead::Body body = HttpRequestHead::Body::None;
  uint64_t length = 0;
  bool keepAlive = true;
};

TEST(HttpHeadParserTest, AcceptsWhatIsWellFormedAndRefusesTheRest) {
  using S = HttpHeadParser::Status;
  using B = HttpRequestHead::Body;
  const std::string host = "Host: h\r\n";
  std::vector<HeadCase> cases = {
      {"bare GET", "GET / HTTP/1.1\r\n" + host + "\r\n", S::Done, 0},
      {"chunked", "POST /s HTTP/1.1\r\n" + host + "Transfer-Encoding: chunked\r\n\r\n", S::Done, 0,
       B::Chunked},
      {"coding names any case",
       "POST /s HTTP/1.1\r\n" + host + "transfer-encoding: Chunked\r\n\r\n", S::Done, 0,
       B::Chunked},
      {"zero length", "POST /s HTTP/1.1\r\n" + host + "Content-Length: 0\r\n\r\n", S::Done, 0},
      {"agreeing lengths",
       "POST /s HTTP/1.1\r\n" + host + "Content-Length: 7\r\nContent-Length: 7, 7\r\n\r\n", S::Done,
       0, B::Length, 7},
      {"largest length",
       "POST /s HTTP/1.1\r\n" + host + "Content-Length: 9999999999999999999\r\n\r\n", S::Done, 0,
       B::Length, 9999999999999999999ull},
      {"close", "GET / HTTP/1.1\r\n" + host + "Connection: close\r\n\r\n", S::Done, 0, B::None, 0,
       false},
      {"HTTP/1.0 closes", "GET / HTTP/1.0\r\n\r\n", S::Done, 0, B::None, 0, false},
      {"HTTP/1.0 keep-alive", "GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", S::Done, 0,
       B::None, 0, true},
      {"leading empty line", "\r\nGET / HTTP/1.1\r\n" + host + "\r\n", S::Done, 0},
      {"value spaces trimmed", "GET / HTTP/1.1\r\nHost:   h  \r\n\r\n", S::Done, 0},

      {"no version", "GET /\r\n" + host + "\r\n", S::Failed, 400},
      {"lower-case version", "GET / http/1.1\r\n" + host + "\r\n", S::Failed, 400},
      {"HTTP/2", "GET / HTTP/2.0\r\n" + host + "\r\n", S::Failed, 505},
      {"two spaces", "GET  / HTTP/1.1\r\n" + host + "\r\n", S::Failed, 400},
      {"absolute URL", "GET http://h/ HTTP/1.1\r\n" + host + "\r\n", S::Failed, 400},
      {"method with a slash", "GE/T / HTTP/1.1\r\n" + host + "\r\n", S::Failed, 400},
      {"control in target", "GET /a\x01 HTTP/1.1\r\n" + host + "\r\n", S::Failed, 400},
      {"bare LF", "GET / HTTP/1.1\n" + host + "\r\n", S::Failed, 400},
      {"bare CR in a value", "GET / HTTP/1.1\r\nX: a\rb\r\n" + host + "\r\n", S::Failed, 400},
      {"space before colon", "GET / HTTP/1.1\r\nHost : h\r\n\r\n", S::Failed, 400},
      {"no colon", "GET / HTTP/1.1\r\n" + host + "Nonsense\r\n\r\n", S::Failed, 400},
      {"folded", "GET / HTTP/1.1\r\n" + host + "X: a\r\n b\r\n\r\n", S::Failed, 400},
      {"NUL in a value", std::string("GET / HTTP/1.1\r\nX: a\0b\r\n", 24) + host + "\r\n",
       S::Failed, 400},
      {"no Host", "GET / HTTP/1.1\r\n\r\n", S::Failed, 400},
      {"two Hosts", "GET / HTTP/1.1\r\n" + host + host + "\r\n", S::Failed, 400},
      {"length and chunked",
       "POST /s HTTP/1.1\r\n" + host + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n",
       S::Failed, 400},
      {"differing lengths",
       "POST /s HTTP/1.1\r\n" + host + "Content-Length: 5\r\nContent-Length: 6\r\n\r\n", S::Failed,
       400},
      {"negative length", "POST /s HTTP/1.1\r\n" + host + "Content-Length: -1\r\n\r\n", S::Failed,
       400},
      {"hex length", "POST /s HTTP/1.1\r\n" + host + "Content-Length: 0x10\r\n\r\n", S::Failed,
       400},
      {"20-digit length",
       "POST /s HTTP/1.1\r\n" + host + "Content-Length: 18446744073709551616\r\n\r\n", S::Failed,
       400},
      {"empty length", "POST /s HTTP/1.1\r\n" + host + "Content-Length:\r\n\r\n", S::Failed, 400},
      {"gzip", "POST /s HTTP/1.1\r\n" + host + "Transfer-Encoding: gzip, chunked\r\n\r\n",
       S::Failed, 501},
      {"not ending in chunked", "POST /s HTTP/1.1\r\n" + host + "Transfer-Encoding: gzip\r\n\r\n",
       S::Failed, 400},
      {"chunked over HTTP/1.0", "POST /s HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n", S::Failed,
       400},
      {"other expectation", "POST /s HTTP/1.1\r\n" + host + "Expect: 200-ok\r\n\r\n", S::Failed,
       417},
      {"binary garbage", "\x16\x03\x01\x02\xfc\x01\r\n\r\n", S::Failed, 400},
      {"too many empty lines", "\r\n\r\n\r\n\r\n\r\nGET / HTTP/1.1\r\n" + host + "\r\n", S::Failed,
       400},
  };
  for (const auto& c : cases) {
    HttpHeadParser parser;
    HttpRequestHead head;
    size_t consumed = 0;
    auto status = parser.parse(c.head, head, consumed);
    ASSERT_EQ(status, c.status) << c.what << ": " << parser.error();
    if (status == S::Failed) {
      EXPECT_EQ(parser.errorStatus(), c.errorStatus) << c.what;
      EXPECT_FALSE(parser.error().empty()) << c.what;
      continue;
    }
    EXPECT_EQ(consumed, c.head.size()) << c.what;
    EXPECT_EQ(head.body, c.body) << c.what;
    EXPECT_EQ(head.contentLength, c.length) << c.what;
    EXPECT_EQ(head.keepAlive, c.keepAlive) << c.what;
  }
}

TEST(HttpHeadParserTest, RefusesABrokenRequestLineBeforeTheHeadEnds) {
  HttpHeadParser parser;
  HttpRequestHead head;
  size_t consumed = 0;
  EXPECT_EQ(parser.parse("HELLO THERE\r\nX: y", head, consumed), HttpHeadParser::Status::Failed);
  EXPECT_EQ(parser.errorStatus(), 400);
  // A TLS hello: no line at all, but no method either.
  EXPECT_EQ(parser.parse(std::string_view("\x16\x03\x01\x02\x00\x01", 6), head, consumed),
            HttpHeadParser::Status::Failed);
  EXPECT_EQ(parser.parse("POS", head, consumed), HttpHeadParser::Status::NeedMore);
  EXPECT_EQ(parser.parse("\r\n\r", head, consumed), HttpHeadParser::Status::NeedMore);
  EXPECT_EQ(parser.parse("POST /storage/b HTT", head, consumed), HttpHeadParser::Status::NeedMore);
  EXPECT_EQ(parser.parse(std::string(HttpHeadParser::kMaxHeadBytes / 2, 'A'), head, consumed),
            HttpHeadParser::Status::Failed);
}

TEST(HttpHeadParserTest, HeadsAreBoundedInSizeAndCount) {
  HttpHeadParser parser;
  HttpRequestHead head;
  size_t consumed = 0;
  // Never ending: refused once it passes the limit, not read on.
  std::string endless = "GET / HTTP/1.1\r\nX: " + std::string(HttpHeadParser::kMaxHeadBytes, 'a');
  EXPECT_EQ(parser.parse(endless.substr(0, HttpHeadParser::kMaxHeadBytes - 1), head, consumed),
            HttpHeadParser::Status::NeedMore);
  EXPECT_EQ(parser.parse(endless, head, consumed), HttpHeadParser::Status::Failed);
  EXPECT_EQ(parser.errorStatus(), 431);
  // Complete but too large.
  std::string large = endless + "\r\nHost: h\r\n\r\n";
  EXPECT_EQ(parser.parse(large, head, consumed), HttpHeadParser::Status::Failed);
  EXPECT_EQ(parser.errorStatus(), 431);
  // Just within the limit.
  std::string fits = "GET / HTTP/1.1\r\nHost: h\r\nX: ";
  fits += std::string(HttpHeadParser::kMaxHeadBytes - fits.size() - 4, 'a') + "\r\n\r\n";
  ASSERT_EQ(fits.size(), HttpHeadParser::kMaxHeadBytes);
  EXPECT_EQ(parser.parse(fits, head, consumed), HttpHeadParser::Status::Done) << parser.error();

  std::string many = "GET / HTTP/1.1\r\nHost: h\r\n";
  for (size_t i = 0; i < HttpHeadParser::kMaxHeaderCount; ++i) many += "X: 1\r\n";
  many += "\r\n";
  EXPECT_EQ(parser.parse(many, head, consumed), HttpHeadParser::Status::Failed);
  EXPECT_EQ(parser.errorStatus(), 431);
}

}  // namespace
}  // namespace nembra
