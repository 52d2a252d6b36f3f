// AMF0 values: the subset a publishing client needs to build commands and metadata and to read
// the server's replies.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "streaming/bitstream_reader.h"
#include "streaming/bitstream_writer.h"

namespace nembra {

// The AMF0 type marker. Undefined is read, as Null, and never written.
enum class AMFType : uint8_t {
  Number = 0,
  Boolean = 1,
  String = 2,
  Object = 3,
  Null = 5,
  Undefined = 6,
  EcmaArray = 8,
};

// Values are shared, never copied; a tree is read-only once written or handed on.
class AMFValue {
 public:
  virtual ~AMFValue() = default;

  // Reads the body that follows the marker.
  void Read(BitstreamReader& reader) { ReadImpl(reader); }
  // Appends the marker and the body at the writer's position.
  void Write(BitstreamWriter& writer) const { WriteImpl(writer); }
  AMFType Type() const { return GetTypeImpl(); }
  // Text for log lines only.
  std::string ToString() const { return ToStringImpl(); }

  // Reads one marker and its value. Throws std::runtime_error("unknown AMF type") for markers
  // outside the supported subset, abandoning the rest of the input; also throws when objects
  // nest deeper than kMaxNesting. Truncated input reads as padded with zero bytes.
  static std::shared_ptr<AMFValue> ReadValue(BitstreamReader& reader);

  static std::shared_ptr<AMFValue> Number(double value);
  static std::shared_ptr<AMFValue> Bool(bool value);
  static std::shared_ptr<AMFValue> String(std::string value);
  static std::shared_ptr<AMFValue> Object();
  static std::shared_ptr<AMFValue> Array();
  static std::shared_ptr<AMFValue> Null();

  // Deep enough for any reply a server sends; shallow enough that hostile input cannot exhaust
  // the stack.
  static constexpr int kMaxNesting = 64;

 protected:
  virtual void ReadImpl(BitstreamReader& reader) = 0;
  virtual void WriteImpl(BitstreamWriter& writer) const = 0;
  virtual AMFType GetTypeImpl() const = 0;
  virtual std::string ToStringImpl() const = 0;
};

// Writes |value|, or Null (05) for an empty pointer.
void WriteAMFValueOrNull(BitstreamWriter& writer, const std::shared_ptr<AMFValue>& value);

}  // namespace nembra
