#include "service/multipart_stream_parser.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace nembra {
namespace {

constexpr const char* kSdkBoundary = "----WebKitFormBoundaryLEjTQVMVbVg9HRYu";

// What the parser reported, flattened so two runs can be compared.
struct Capture {
  std::vector<MultipartPart> parts;
  std::vector<std::string> bodies;
  int ends = 0;

  MultipartStreamParser::Callbacks callbacks() {
    MultipartStreamParser::Callbacks c;
    c.onPartBegin = [this](const MultipartPart& part) {
      parts.push_back(part);
      bodies.emplace_back();
      return true;
    };
    c.onPartData = [this](const char* data, size_t size) {
      bodies.back().append(data, size);
      return true;
    };
    c.onPartEnd = [this] {
      ++ends;
      return true;
    };
    return c;
  }
};

// The SDK's form: parameter parts, then the file part with its stray ';' after the file name.
std::string sdkBody(const std::string& fileBytes) {
  std::string b = kSdkBoundary;
  return "--" + b + "\r\nContent-Disposition: form-data; name=\"key\"\r\n\r\nobject/key\r\n" +
         "--" + b + "\r\nContent-Disposition: form-data; name=\"Policy\"\r\n\r\neyJ9\r\n" + "--" +
         b + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"video.mp4\";\r\n" +
         "Content-Type: video/mp4\r\n\r\n" + fileBytes + "\r\n--" + b + "--\r\n";
}

// File bytes that look like the start of a delimiter without being one.
std::string trickyFile() {
  std::string b = kSdkBoundary;
  std::string data = "\r\n--" + b.substr(0, b.size() - 1) + "X\r\n-\r\n--\r\n";
  for (int i = 0; i < 3000; ++i) data.push_back(static_cast<char>(i * 7 % 256));
  return data + "\r\n--" + b.substr(0, 10);
}

MultipartStreamParser::Status feedInPieces(MultipartStreamParser& parser, const std::string& body,
                                           const std::vector<size_t>& cuts) {
  size_t at = 0;
  for (size_t cut : cuts) {
    if (cut <= at || cut >= body.size()) continue;
    parser.feed(body.data() + at, cut - at);
    at = cut;
  }
  parser.feed(body.data() + at, body.size() - at);
  return parser.finish();
}

// The same body fed whole, byte by byte, in fixed blocks and at random cuts must read the same.
class MultipartFeedTest : public ::testing::TestWithParam<int> {};

TEST_P(MultipartFeedTest, ReadsTheSdkFormAlikeHoweverItIsCut) {
  const std::string file = trickyFile();
  const std::string body = sdkBody(file);
  std::vector<size_t> cuts;
  int mode = GetParam();
  std::mt19937 random(static_cast<unsigned>(mode));
  if (mode == 1) {
    for (size_t i = 1; i < body.size(); ++i) cuts.push_back(i);
  } else if (mode > 1 && mode < 100) {
    for (size_t i = static_cast<size_t>(mode); i < body.size(); i += static_cast<size_t>(mode)) {
      cuts.push_back(i);
    }
  } else if (mode >= 100) {
    for (size_t i = 0; i < 40; ++i) cuts.push_back(random() % body.size());
    std::sort(cuts.begin(), cuts.end());
  }
  Capture capture;
  MultipartStreamParser parser(kSdkBoundary, capture.callbacks());
  ASSERT_EQ(feedInPieces(parser, body, cuts), MultipartStreamParser::Status::Done)
      << parser.error();
  ASSERT_EQ(capture.parts.size(), 3u);
  EXPECT_EQ(capture.parts[0].name, "key");
  EXPECT_EQ(capture.bodies[0], "object/key");
  EXPECT_EQ(capture.parts[1].name, "Policy");
  EXPECT_EQ(capture.bodies[1], "eyJ9");
  EXPECT_EQ(capture.parts[2].name, "file");
  EXPECT_EQ(capture.parts[2].filename, "video.mp4");
  EXPECT_EQ(capture.parts[2].contentType, "video/mp4");
  EXPECT_EQ(capture.bodies[2], file);
  EXPECT_EQ(capture.ends, 3);
}

INSTANTIATE_TEST_SUITE_P(Feeds, MultipartFeedTest,
                         ::testing::Values(0, 1, 2, 3, 7, 41, 42, 43, 4096, 100, 101, 102, 103));

TEST(MultipartStreamParserTest, EveryTruncationFailsAtFinish) {
  const std::string body = sdkBody("payload bytes");
  for (size_t length = 0; length + 2 < body.size(); ++length) {
    Capture capture;
    MultipartStreamParser parser(kSdkBoundary, capture.callbacks());
    parser.feed(body.data(), length);
    EXPECT_EQ(parser.finish(), MultipartStreamParser::Status::Malformed) << "length " << length;
  }
}

TEST(MultipartStreamParserTest, SkipsPreambleAndIgnoresEpilogue) {
  std::string body =
      "preamble text\r\n--b\r\nContent-Disposition: form-data; name=a\r\n\r\n1"
      "\r\n--b--\r\nepilogue --b\r\n";
  Capture capture;
  MultipartStreamParser parser("b", capture.callbacks());
  EXPECT_EQ(parser.feed(body.data(), body.size()), MultipartStreamParser::Status::Done);
  ASSERT_EQ(capture.parts.size(), 1u);
  EXPECT_EQ(capture.parts[0].name, "a");
  EXPECT_EQ(capture.bodies[0], "1");
}

struct MalformedCase {
  const char* name;
  std::string body;
};

class MultipartMalformedTest : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(MultipartMalformedTest, IsRefused) {
  Capture capture;
  MultipartStreamParser parser("b", capture.callbacks());
  const std::string& body = GetParam().body;
  auto status = parser.feed(body.data(), body.size());
  if (status == MultipartStreamParser::Status::Ok) status = parser.finish();
  EXPECT_EQ(status, MultipartStreamParser::Status::Malformed);
  EXPECT_FALSE(parser.error().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, MultipartMalformedTest,
    ::testing::Values(
        MalformedCase{"NoCrlfAfterBoundary", "--bX\r\n"},
        MalformedCase{"NoDisposition", "--b\r\nContent-Type: text/plain\r\n\r\nx\r\n--b--"},
        MalformedCase{"NotFormData", "--b\r\nContent-Disposition: attachment; name=a\r\n\r\n"},
        MalformedCase{"HeaderWithoutColon", "--b\r\nContent-Disposition form-data\r\n\r\n"},
        MalformedCase{"NoHeadersAtAll", "--b\r\n\r\nbody\r\n--b--"},
        MalformedCase{"HugeHeaders", "--b\r\nX: " + std::string(20000, 'a')},
        MalformedCase{"NeverClosed", "--b\r\nContent-Disposition: form-data; name=a\r\n\r\nxyz"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MultipartStreamParserTest, StopsWhenACallbackRefuses) {
  std::string body = sdkBody(std::string(10000, 'v'));
  size_t seen = 0;
  MultipartStreamParser::Callbacks callbacks;
  callbacks.onPartData = [&](const char*, size_t size) {
    seen += size;
    return seen < 100;
  };
  MultipartStreamParser parser(kSdkBoundary, callbacks);
  EXPECT_EQ(parser.feed(body.data(), body.size()), MultipartStreamParser::Status::Stopped);
  EXPECT_EQ(parser.feed("more", 4), MultipartStreamParser::Status::Stopped);
}

struct BoundaryCase {
  const char* contentType;
  std::optional<std::string> boundary;
};

class BoundaryTest : public ::testing::TestWithParam<BoundaryCase> {};

TEST_P(BoundaryTest, ReadsTheBoundaryParameter) {
  EXPECT_EQ(MultipartStreamParser::boundaryFromContentType(GetParam().contentType),
            GetParam().boundary);
}

INSTANTIATE_TEST_SUITE_P(
    ContentTypes, BoundaryTest,
    ::testing::Values(
        BoundaryCase{"multipart/form-data; boundary=----WebKitFormBoundaryLEjTQVMVbVg9HRYu",
                     "----WebKitFormBoundaryLEjTQVMVbVg9HRYu"},
        BoundaryCase{"Multipart/Form-Data;BOUNDARY=\"a b;c\"", "a b;c"},
        BoundaryCase{"multipart/form-data; charset=utf-8; boundary=x", "x"},
        BoundaryCase{"multipart/form-data", std::nullopt},
        BoundaryCase{"multipart/form-data; boundary=", std::nullopt},
        BoundaryCase{"multipart/mixed; boundary=x", std::nullopt},
        BoundaryCase{"application/x-www-form-urlencoded", std::nullopt}));

struct DispositionCase {
  const char* header;
  bool ok;
  const char* name;
  std::optional<std::string> filename;
};

class DispositionTest : public ::testing::TestWithParam<DispositionCase> {};

TEST_P(DispositionTest, ParsesLeniently) {
  MultipartPart part;
  bool ok = MultipartStreamParser::parseContentDisposition(GetParam().header, part);
  ASSERT_EQ(ok, GetParam().ok);
  if (!ok) return;
  EXPECT_EQ(part.name, GetParam().name);
  EXPECT_EQ(part.filename, GetParam().filename);
}

INSTANTIATE_TEST_SUITE_P(
    Headers, DispositionTest,
    ::testing::Values(DispositionCase{"form-data; name=\"file\"; filename=\"video.mp4\";", true,
                                      "file", "video.mp4"},
                      DispositionCase{"form-data;name=file;filename=a.jpg", true, "file", "a.jpg"},
                      DispositionCase{"FORM-DATA; NAME=\"k\"", true, "k", std::nullopt},
                      DispositionCase{"form-data; name=\"a;b\"; filename=\"x\\\"y\"", true, "a;b",
                                      "x\"y"},
                      DispositionCase{"form-data; name=f; filename*=UTF-8''%C3%9F.mp4", true, "f",
                                      "\xC3\x9F.mp4"},
                      DispositionCase{"form-data; filename=\"x\"", false, "", std::nullopt},
                      DispositionCase{"inline; name=\"x\"", false, "", std::nullopt}));

}  // namespace
}  // namespace nembra
