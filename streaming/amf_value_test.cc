#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "streaming/amf.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Encode(const AMFValue& value) {
  Bytes bytes;
  BitstreamWriter writer(bytes);
  value.Write(writer);
  return bytes;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

std::shared_ptr<AMFValue> ObjectOf(
    std::initializer_list<std::pair<std::string, std::shared_ptr<AMFValue>>> properties,
    bool array = false) {
  auto value = array ? AMFValue::Array() : AMFValue::Object();
  for (const auto& [name, property] : properties) {
    std::static_pointer_cast<AMFObject>(value)->AddValue(name, property);
  }
  return value;
}

struct WriteCase {
  const char* name;
  std::function<std::shared_ptr<AMFValue>()> build;
  Bytes expected;
};

class AMFWriteTest : public ::testing::TestWithParam<WriteCase> {};

TEST_P(AMFWriteTest, CreatesExactBytes) {
  EXPECT_EQ(Encode(*GetParam().build()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Golden, AMFWriteTest,
    ::testing::Values(
        WriteCase{"NumberZero", [] { return AMFValue::Number(0.0); }, {0, 0, 0, 0, 0, 0, 0, 0, 0}},
        WriteCase{"NumberOne",
                  [] { return AMFValue::Number(1.0); },
                  {0x00, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0}},
        WriteCase{"True", [] { return AMFValue::Bool(true); }, {0x01, 0x01}},
        WriteCase{"String", [] { return AMFValue::String("live"); },
                  Concat({{2, 0, 4}, Text("live")})},
        WriteCase{"EmptyObject", [] { return AMFValue::Object(); }, {0x03, 0x00, 0x00, 0x09}},
        WriteCase{
            "EmptyArray", [] { return AMFValue::Array(); }, {0x08, 0, 0, 0, 0, 0x00, 0x00, 0x09}},
        WriteCase{"ObjectKeysSortedBytewise",
                  [] {
                    return ObjectOf({{"type", AMFValue::Null()},
                                     {"app", AMFValue::Null()},
                                     {"tcUrl", AMFValue::Null()},
                                     {"Z", AMFValue::Null()}});
                  },
                  Concat({{0x03},
                          {0, 1},
                          Text("Z"),
                          {5},
                          {0, 3},
                          Text("app"),
                          {5},
                          {0, 5},
                          Text("tcUrl"),
                          {5},
                          {0, 4},
                          Text("type"),
                          {5},
                          {0, 0, 9}})},
        WriteCase{"EmptyPointerWrittenAsNull",
                  [] {
                    return ObjectOf({{"a", nullptr}});
                  },
                  Concat({{0x03, 0, 1}, Text("a"), {0x05}, {0, 0, 9}})},
        WriteCase{"ReplacedPropertyOccursOnce",
                  [] {
                    return ObjectOf({{"a", AMFValue::Bool(false)}, {"a", AMFValue::Bool(true)}});
                  },
                  Concat({{0x03, 0, 1}, Text("a"), {0x01, 0x01}, {0, 0, 9}})},
        WriteCase{
            "ArrayCountsProperties",
            [] {
              return ObjectOf({{"b", AMFValue::Null()}, {"a", AMFValue::Null()}}, true);
            },
            Concat({{0x08, 0, 0, 0, 2, 0, 1}, Text("a"), {5, 0, 1}, Text("b"), {5}, {0, 0, 9}})},
        WriteCase{
            "NestedObject",
            [] {
              return ObjectOf({{"o", ObjectOf({{"x", AMFValue::Bool(true)}})}});
            },
            Concat(
                {{0x03, 0, 1}, Text("o"), {0x03, 0, 1}, Text("x"), {1, 1}, {0, 0, 9}, {0, 0, 9}})}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(AMFStringTest, LongStringKeepsOnlyLow16BitsOfLength) {
  const std::string text(65536 + 3, 'x');
  const Bytes bytes = Encode(*AMFValue::String(text));
  ASSERT_EQ(bytes.size(), 3 + text.size());
  EXPECT_EQ(bytes[1], 0x00);
  EXPECT_EQ(bytes[2], 0x03);
}

struct ReadCase {
  const char* name;
  Bytes bytes;
  std::string dump;
};

class AMFReadTest : public ::testing::TestWithParam<ReadCase> {};

TEST_P(AMFReadTest, ParsesToExpectedDump) {
  BitstreamReader reader(GetParam().bytes);
  EXPECT_EQ(AMFValue::ReadValue(reader)->ToString(), GetParam().dump);
}

INSTANTIATE_TEST_SUITE_P(
    Golden, AMFReadTest,
    ::testing::Values(
        ReadCase{"UndefinedReadsAsNull", {0x06}, "NULL"},
        ReadCase{"AnyNonZeroByteIsTrue", {0x01, 0x7F}, "BOOL: true"},
        ReadCase{"ObjectDump",
                 Concat({{0x03, 0, 1},
                         Text("b"),
                         {1, 1},
                         {0, 1},
                         Text("a"),
                         {0, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0},
                         {0, 0, 9}}),
                 "OBJECT: {\na NUMBER: 1.000000\nb BOOL: true\n}"},
        ReadCase{"NestedDumpHasNoIndent",
                 Concat({{0x03, 0, 1},
                         Text("o"),
                         {0x03, 0, 1},
                         Text("s"),
                         {2, 0, 2},
                         Text("hi"),
                         {0, 0, 9},
                         {0, 0, 9}}),
                 "OBJECT: {\no OBJECT: {\ns STRING: hi\n}\n}"},
        ReadCase{
            "ArrayCountIsIgnored",
            Concat({{0x08, 0, 0, 0, 7, 0, 1}, Text("a"), {5, 0, 1}, Text("b"), {6}, {0, 0, 9}}),
            "ARRAY: {\na NULL\nb NULL\n}"},
        ReadCase{"RepeatedNameKeepsLast",
                 Concat({{0x03, 0, 1}, Text("a"), {1, 0}, {0, 1}, Text("a"), {1, 1}, {0, 0, 9}}),
                 "OBJECT: {\na BOOL: true\n}"},
        ReadCase{"TruncatedStringIsZeroPadded",
                 {0x02, 0x00, 0x03, 'a'},
                 std::string("STRING: a\0\0", 11)}),
    [](const auto& info) { return std::string(info.param.name); });

struct ErrorCase {
  const char* name;
  Bytes bytes;
  const char* message;
};

class AMFReadErrorTest : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(AMFReadErrorTest, FailsWithMessage) {
  BitstreamReader reader(GetParam().bytes);
  try {
    AMFValue::ReadValue(reader);
    FAIL() << "expected an error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), GetParam().message);
  }
}

Bytes DeeplyNested(int depth) {
  Bytes bytes;
  for (int i = 0; i < depth; ++i) {
    bytes.insert(bytes.end(), {0x03, 0x00, 0x01, 'x'});
  }
  return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Failures, AMFReadErrorTest,
    ::testing::Values(ErrorCase{"MovieClip", {0x04}, "unknown AMF type"},
                      ErrorCase{"ObjectEndAlone", {0x09}, "unknown AMF type"},
                      ErrorCase{"StrictArray", {0x0A, 0, 0, 0, 0}, "unknown AMF type"},
                      ErrorCase{"LongString", {0x0C, 0, 0, 0, 0}, "unknown AMF type"},
                      ErrorCase{"UnknownInsideObject", Concat({{0x03, 0, 1}, Text("a"), {0x0B}}),
                                "unknown AMF type"},
                      ErrorCase{"EmptyNameWithoutEnd",
                                {0x03, 0x00, 0x00, 0x05},
                                "empty name found without end object marker"},
                      ErrorCase{"TruncatedObject", Concat({{0x03, 0, 1}, Text("a"), {0x05}}),
                                "empty name found without end object marker"},
                      ErrorCase{"NestingTooDeep", DeeplyNested(100000),
                                "AMF values nested too deeply"}),
    [](const auto& info) { return std::string(info.param.name); });

std::shared_ptr<AMFValue> ConnectCommandObject() {
  return ObjectOf(
      {{"app", AMFValue::String("live")},
       {"type", AMFValue::String("nonprivate")},
       {"flashVer", AMFValue::String("FMLE/3.0 (compatible; livestreamer)")},
       {"tcUrl", AMFValue::String("rtmp://host:1935/live")},
       {"meta", ObjectOf({{"w", AMFValue::Number(1280)}, {"k", AMFValue::Bool(true)}}, true)}});
}

TEST(AMFRoundTripTest, ReadingWhatWasWrittenGivesSameBytes) {
  const Bytes bytes = Encode(*ConnectCommandObject());
  BitstreamReader reader(bytes);
  const auto value = AMFValue::ReadValue(reader);
  EXPECT_EQ(reader.RemainingDataSize(), 0u);
  EXPECT_EQ(Encode(*value), bytes);
}

}  // namespace
}  // namespace nembra
