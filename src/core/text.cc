// Bounded formatting and appending of NUL-terminated texts.
#include "core/text.h"

#include <cstdio>

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
