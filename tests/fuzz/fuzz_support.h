// Shared by the fuzz harnesses: the input as a NUL-terminated text, logging switched on into
// /dev/null (so every log argument is formatted), and no connection leaving the process.
#ifndef ZUNTA_TESTS_FUZZ_FUZZ_SUPPORT_H_
#define ZUNTA_TESTS_FUZZ_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// The first `limit` bytes of the input (all when limit is 0), then a NUL.
std::vector<char> fuzz_text(const uint8_t* data, std::size_t size, std::size_t limit = 0);

// Copies the input into a fixed buffer as far as it fits and terminates it.
template <std::size_t N>
void fuzz_fill(char (&dst)[N], const uint8_t* data, std::size_t size) {
  std::size_t len = size < N - 1 ? size : N - 1;
  std::memcpy(dst, data, len);
  dst[len] = '\0';
}

#endif  // ZUNTA_TESTS_FUZZ_FUZZ_SUPPORT_H_
