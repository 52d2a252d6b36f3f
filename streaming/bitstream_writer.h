// A most-significant-bit-first write cursor over a byte vector.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace nembra {

// Writes overwrite bytes under the cursor and append at the end, so a writer can step back to
// patch a field whose value is known only later and then SeekToEnd(). A new writer starts at 0
// even over a non-empty vector: callers that mean to append call SeekToEnd() first. The vector
// is not owned and must outlive the writer.
class BitstreamWriter {
 public:
  explicit BitstreamWriter(std::vector<uint8_t>& data);
  virtual ~BitstreamWriter() = default;

  // Throws std::runtime_error("bitstream writer is not aligned") while a bit field is half
  // written.
  void PutByte(uint8_t byte);
  // Writes the low |count| bits of |value|, 0 to 64, most significant first.
  void PutBits(uint64_t value, unsigned count);
  // Aligned bulk write.
  void PutBytes(const uint8_t* first, const uint8_t* last);
  void PutBytes(std::span<const uint8_t> bytes) {
    PutBytes(bytes.data(), bytes.data() + bytes.size());
  }

  size_t Position() const;
  // Positions at or past the end move the cursor to the end.
  void SetPosition(size_t position);
  void SeekToEnd();

 protected:
  // For subclasses whose bytes go elsewhere (a socket): no vector, position stays 0.
  BitstreamWriter() = default;

  virtual void PutByteInternal(uint8_t byte);
  virtual void PutBytesInternal(const uint8_t* data, size_t size);

 private:
  void RequireAligned() const;

  std::vector<uint8_t>* data_ = nullptr;
  size_t position_ = 0;
  uint8_t partialByte_ = 0;
  unsigned usedBits_ = 0;  // bits already placed in partialByte_; 0 = aligned
};

}  // namespace nembra
