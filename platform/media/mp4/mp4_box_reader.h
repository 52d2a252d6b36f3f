// Bounded big-endian reading of the boxes of an MP4 or QuickTime file. Sizes and counts in a file
// are claims to check against the bytes at hand, never amounts to trust: no read here goes past
// the span it was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "nembra/error.h"

namespace nembra {

constexpr uint32_t fourCc(const char (&code)[5]) {
  return uint32_t{static_cast<uint8_t>(code[0])} << 24 |
         uint32_t{static_cast<uint8_t>(code[1])} << 16 |
         uint32_t{static_cast<uint8_t>(code[2])} << 8 | uint32_t{static_cast<uint8_t>(code[3])};
}

// The four characters of |code| for messages; bytes that are not printable show as '?'.
std::string fourCcText(uint32_t code);

struct Mp4BoxHeader {
  uint32_t type = 0;
  uint64_t size = 0;      // the whole box, header included
  size_t headerSize = 0;  // 8; 16 with a 64-bit size; 16 more for a 'uuid' box's user type
};

// The longest header: 64-bit size plus a 'uuid' user type.
inline constexpr size_t kMp4MaxBoxHeaderSize = 32;

// Parses the box header at the start of |bytes|, for a box that may run over at most |available|
// bytes (to the end of its parent or of the file); |bytes| needs to hold only the header. A size
// of 0 means "to the end of the parent".
OptionalError parseMp4BoxHeader(std::span<const uint8_t> bytes, uint64_t available,
                                Mp4BoxHeader& header);

// Reads fields front to back. A read past the end fails the reader for good: it returns zeros
// from then on and ok() is false, so a parser checks once after a run of fixed-size fields. Before
// a table, fits() tells whether its entries are all there.
class Mp4BoxReader {
 public:
  explicit Mp4BoxReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  bool ok() const { return ok_; }
  size_t remaining() const { return bytes_.size() - position_; }
  // True when |count| entries of |entrySize| bytes are left.
  bool fits(uint64_t count, size_t entrySize) const {
    return ok_ && (entrySize == 0 || count <= remaining() / entrySize);
  }

  uint8_t u8() { return static_cast<uint8_t>(read(1)); }
  uint16_t u16() { return static_cast<uint16_t>(read(2)); }
  uint32_t u24() { return static_cast<uint32_t>(read(3)); }
  uint32_t u32() { return static_cast<uint32_t>(read(4)); }
  uint64_t u64() { return read(8); }
  std::span<const uint8_t> bytes(size_t count);
  void skip(size_t count) { (void)bytes(count); }
  // The rest of the span, which the reader then has consumed.
  std::span<const uint8_t> rest() { return bytes(remaining()); }

  // A full box's version byte and 24-bit flags.
  void fullBoxHeader(uint8_t& version, uint32_t& flags) {
    version = u8();
    flags = u24();
  }

  // Steps to the next child box: false at the end of the list, or on a broken header, with
  // |error| set. Fewer than 8 bytes left end the list: QuickTime ends some lists with a 32-bit
  // zero.
  bool nextBox(Mp4BoxHeader& header, std::span<const uint8_t>& payload, OptionalError& error);

 private:
  uint64_t read(size_t count);

  std::span<const uint8_t> bytes_;
  size_t position_ = 0;
  bool ok_ = true;
};

}  // namespace nembra
