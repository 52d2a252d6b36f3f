// A most-significant-bit-first read cursor over bytes, used for every wire format of the
// streaming core (AMF0, chunk headers, FLV tags).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nembra {

// Reads never run past the end of the vector: past the end every byte reads as zero and the
// cursor stays at the end. Callers that must tell truncation apart compare RemainingDataSize()
// before reading. The vector is not owned and must outlive the reader; it must not shrink while
// the reader is in use.
class BitstreamReader {
 public:
  explicit BitstreamReader(const std::vector<uint8_t>& data);
  virtual ~BitstreamReader() = default;

  // Throws std::runtime_error("bitstream reader is not aligned") while a bit field is half read.
  uint8_t GetByte();
  // Reads |count| bits, 0 to 64, most significant first; fields may straddle byte boundaries.
  uint64_t GetBits(unsigned count);
  // Aligned bulk read of |count| bytes; bytes past the end read as zero.
  void GetBytes(uint8_t* destination, size_t count);

  size_t Position() const;
  // Positions at or past the end move the cursor to the end. Pending bits are kept.
  void SetPosition(size_t position);
  void Skip(size_t count);
  size_t RemainingDataSize() const;

 protected:
  // For subclasses whose bytes come from elsewhere (a socket): no vector, position stays 0.
  BitstreamReader() = default;

  virtual uint8_t GetByteInternal();
  virtual void GetBytesInternal(uint8_t* destination, size_t count);

 private:
  void RequireAligned() const;

  const std::vector<uint8_t>* data_ = nullptr;
  size_t position_ = 0;
  uint8_t pendingByte_ = 0;
  unsigned pendingBits_ = 0;  // bits of pendingByte_ not yet consumed; 0 = aligned
};

}  // namespace nembra
