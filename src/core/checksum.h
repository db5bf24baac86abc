// CRC-32 (the polynomial of Ethernet and zip, reflected, initial and final value 0xffffffff) for
// files that must prove they arrived whole.
#ifndef ZUNTA_CORE_CHECKSUM_H_
#define ZUNTA_CORE_CHECKSUM_H_

#include <cstddef>
#include <cstdint>

constexpr uint32_t CRC32_START = 0;

// Continues the checksum `crc` (CRC32_START for the first piece) over `size` bytes; the result of
// one piece is the `crc` of the next. zunta_crc32(0, "123456789", 9) is 0xcbf43926.
uint32_t zunta_crc32(uint32_t crc, const void* data, std::size_t size);

#endif  // ZUNTA_CORE_CHECKSUM_H_
