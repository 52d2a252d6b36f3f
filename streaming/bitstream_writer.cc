#include "streaming/bitstream_writer.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace nembra {

BitstreamWriter::BitstreamWriter(std::vector<uint8_t>& data) : data_(&data) {}

void BitstreamWriter::PutByte(uint8_t byte) {
  RequireAligned();
  PutByteInternal(byte);
}

void BitstreamWriter::PutBits(uint64_t value, unsigned count) {
  if (count > 64) {
    throw std::runtime_error("bitstream field wider than 64 bits");
  }
  while (count > 0) {
    const unsigned take = std::min(8 - usedBits_, count);
    const unsigned bits = static_cast<unsigned>(value >> (count - take)) & ((1u << take) - 1);
    partialByte_ |= static_cast<uint8_t>(bits << (8 - usedBits_ - take));
    usedBits_ += take;
    count -= take;
    if (usedBits_ == 8) {
      const uint8_t complete = partialByte_;
      partialByte_ = 0;
      usedBits_ = 0;
      PutByteInternal(complete);
    }
  }
}

void BitstreamWriter::PutBytes(const uint8_t* first, const uint8_t* last) {
  RequireAligned();
  if (last > first) {
    PutBytesInternal(first, static_cast<size_t>(last - first));
  }
}

size_t BitstreamWriter::Position() const { return position_; }

void BitstreamWriter::SetPosition(size_t position) {
  const size_t size = data_ ? data_->size() : 0;
  position_ = std::min(position, size);
}

void BitstreamWriter::SeekToEnd() { position_ = data_ ? data_->size() : 0; }

void BitstreamWriter::PutByteInternal(uint8_t byte) {
  if (position_ < data_->size()) {
    (*data_)[position_] = byte;
  } else {
    data_->push_back(byte);
  }
  ++position_;
}

void BitstreamWriter::PutBytesInternal(const uint8_t* data, size_t size) {
  const size_t overwrite = std::min(size, data_->size() - position_);
  if (overwrite > 0) {
    std::memcpy(data_->data() + position_, data, overwrite);
  }
  data_->insert(data_->end(), data + overwrite, data + size);
  position_ += size;
}

void BitstreamWriter::RequireAligned() const {
  if (usedBits_ != 0) {
    throw std::runtime_error("bitstream writer is not aligned");
  }
}

}  // namespace nembra
