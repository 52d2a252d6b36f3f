#include "platform/media/mp4/mp4_box_reader.h"

namespace nembra {

std::string fourCcText(uint32_t code) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const auto c = static_cast<char>((code >> shift) & 0xFF);
    text.push_back(c >= 0x20 && c <= 0x7E ? c : '?');
  }
  return text;
}

OptionalError parseMp4BoxHeader(std::span<const uint8_t> bytes, uint64_t available,
                                Mp4BoxHeader& header) {
  Mp4BoxReader reader(bytes);
  const uint32_t size32 = reader.u32();
  header.type = reader.u32();
  if (!reader.ok()) return Error::media("box header cut short");
  header.headerSize = 8;
  header.size = size32;
  if (size32 == 1) {
    header.size = reader.u64();
    header.headerSize = 16;
    if (!reader.ok()) return Error::media(fourCcText(header.type) + " box: 64-bit size cut short");
  } else if (size32 == 0) {
    header.size = available;
  }
  if (header.type == fourCc("uuid")) {
    reader.skip(16);
    header.headerSize += 16;
    if (!reader.ok()) return Error::media("uuid box: user type cut short");
  }
  if (header.size < header.headerSize) {
    return Error::media(fourCcText(header.type) + " box: size " + std::to_string(header.size) +
                        " is smaller than its header");
  }
  if (header.size > available) {
    return Error::media(fourCcText(header.type) + " box: size " + std::to_string(header.size) +
                        " runs past the " + std::to_string(available) +
                        " bytes left in its parent");
  }
  return std::nullopt;
}

std::span<const uint8_t> Mp4BoxReader::bytes(size_t count) {
  if (!ok_ || count > remaining()) {
    ok_ = false;
    return {};
  }
  const auto span = bytes_.subspan(position_, count);
  position_ += count;
  return span;
}

uint64_t Mp4BoxReader::read(size_t count) {
  uint64_t value = 0;
  for (uint8_t byte : bytes(count)) value = value << 8 | byte;
  return value;
}

bool Mp4BoxReader::nextBox(Mp4BoxHeader& header, std::span<const uint8_t>& payload,
                           OptionalError& error) {
  if (!ok_ || remaining() < 8) return false;
  const auto rest = bytes_.subspan(position_);
  error = parseMp4BoxHeader(rest, rest.size(), header);
  if (error) {
    ok_ = false;
    return false;
  }
  // The header check bounds the size by what is left, so it fits in size_t.
  const auto size = static_cast<size_t>(header.size);
  payload = rest.subspan(header.headerSize, size - header.headerSize);
  position_ += size;
  return true;
}

}  // namespace nembra
