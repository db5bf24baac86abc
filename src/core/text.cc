// Bounded formatting and appending of NUL-terminated texts.
#include "core/text.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

bool zunta_vformat_text(char* dst, std::size_t size, const char* format, va_list args) {
  if (size == 0) return false;
  int n = std::vsnprintf(dst, size, format, args);
  if (n < 0) {
    dst[0] = '\0';
    return false;
  }
  return static_cast<std::size_t>(n) < size;
}

bool zunta_format_buffer(char* dst, std::size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  bool whole = zunta_vformat_text(dst, size, format, args);
  va_end(args);
  return whole;
}

bool zunta_append_text(char* dst, std::size_t size, const char* src, std::size_t len) {
  if (size == 0) return false;
  std::size_t used = strnlen(dst, size - 1);
  std::size_t i = 0;
  for (; i < len && src[i] != '\0' && used + 1 < size; ++i)
    dst[used++] = src[i];
  dst[used] = '\0';
  return i == len || src[i] == '\0';
}

bool zunta_scan_int32(const char* text, int base, int32_t min, int32_t max, int32_t* out, const char** rest) {
  char* end = nullptr;
  errno = 0;
  // long long: at least 64 bits everywhere, so every int32 range check below is exact.
  long long value = std::strtoll(text, &end, base);
  if (end == text || errno == ERANGE || value < min || value > max) return false;
  *out = static_cast<int32_t>(value);
  if (rest != nullptr) *rest = end;
  return true;
}

bool zunta_mac_shaped(const char* text) {
  if (text == nullptr) return false;
  for (std::size_t i = 0; i + 1 < MAC_TEXT_SIZE; ++i) {
    const char c = text[i];
    if (i % 3 == 2) {
      if (c != ':') return false;
    } else if (!std::isxdigit(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  return text[MAC_TEXT_SIZE - 1] == '\0';
}
