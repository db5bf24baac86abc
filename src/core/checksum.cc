// CRC-32 by a 256-entry table computed at compile time.
#include "core/checksum.h"

#include <array>

namespace {

constexpr uint32_t CRC32_POLYNOMIAL = 0xedb88320u;  // reflected 0x04c11db7

constexpr std::array<uint32_t, 256> make_table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit)
      c = (c & 1u) != 0 ? CRC32_POLYNOMIAL ^ (c >> 1) : c >> 1;
    table[i] = c;
  }
  return table;
}

constexpr std::array<uint32_t, 256> CRC32_TABLE = make_table();

}  // namespace

uint32_t zunta_crc32(uint32_t crc, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  uint32_t c = ~crc;
  for (std::size_t i = 0; i < size; ++i)
    c = CRC32_TABLE[(c ^ bytes[i]) & 0xffu] ^ (c >> 8);
  return ~c;
}
