// Fixed-width texts: their sizes and bounded helpers that always leave a NUL-terminated text.
#ifndef ZUNTA_CORE_TEXT_H_
#define ZUNTA_CORE_TEXT_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

constexpr std::size_t MAC_TEXT_SIZE = 18;      // "00:00:00:00:00:00" and the NUL
constexpr std::size_t IP_TEXT_SIZE = 16;       // "255.255.255.255" and the NUL
constexpr std::size_t MESHKEY_TEXT_SIZE = 37;  // two MACs joined by '-', and the NUL

// Copies src into dst, cut to fit; always NUL-terminates. Returns false when src was cut.
template <std::size_t N>
bool zunta_copy_text(char (&dst)[N], const char* src) {
  static_assert(N > 0, "destination needs room for the NUL");
  std::size_t i = 0;
  for (; i + 1 < N && src[i] != '\0'; ++i)
    dst[i] = src[i];
  dst[i] = '\0';
  return src[i] == '\0';
}

// vsnprintf into dst of `size` bytes; false when the text was cut (or size is 0).
bool zunta_vformat_text(char* dst, std::size_t size, const char* format, va_list args);
bool zunta_format_buffer(char* dst, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Appends at most `len` bytes of src to the NUL-terminated text in dst (capacity `size`, NUL
// included), stopping at a NUL in src. What does not fit is dropped. Returns false when cut.
bool zunta_append_text(char* dst, std::size_t size, const char* src, std::size_t len);

// Reads an integer where scanf's %d (base 10) or %x (base 16) would: optional leading white space
// and sign, then digits (base 16 also takes a "0x" prefix). Unlike scanf, a value outside
// [min, max] is refused instead of overflowing. On success stores the value in *out and, when rest
// is not null, the first character after the digits in *rest. False when no digits follow or the
// value is out of range; *out and *rest are then unchanged.
bool zunta_scan_int32(const char* text, int base, int32_t min, int32_t max, int32_t* out, const char** rest);

// Reads a text field as scanf's "%<N-1>[^,]," does: 1 to N-1 characters before a comma, then the
// comma. Returns the text after the comma, or nullptr (dst then holds nothing meaningful).
template <std::size_t N>
const char* zunta_scan_text_field(const char* text, char (&dst)[N]) {
  static_assert(N > 1, "a field needs room for one character and the NUL");
  std::size_t len = std::strcspn(text, ",");
  if (len == 0 || len >= N || text[len] != ',') return nullptr;
  std::memcpy(dst, text, len);
  dst[len] = '\0';
  return text + len + 1;
}

// True for a MAC text as nodes write them: 17 characters, six pairs of hexadecimal digits (either
// case) joined by colons. Anything else (control characters included) is never taken for a MAC.
bool zunta_mac_shaped(const char* text);

// Texts compared over the full width of their buffers, exactly (case-sensitive).
inline bool zunta_text_equal(const char* a, const char* b, std::size_t width) {
  return std::strncmp(a, b, width) == 0;
}
template <std::size_t N>
bool zunta_text_equal(const char (&a)[N], const char (&b)[N]) {
  return std::strncmp(a, b, N) == 0;
}

#endif  // ZUNTA_CORE_TEXT_H_
