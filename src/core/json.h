// Texts written into JSON documents for other programs: every text that came from the network goes
// through here, so a quote, a backslash or a control byte can never end a string early.
#ifndef ZUNTA_CORE_JSON_H_
#define ZUNTA_CORE_JSON_H_

#include <cstddef>
#include <cstdio>

// Writes the first `width` bytes of `text` (fewer when a NUL comes first) as a JSON string with its
// quotes. '"' and '\' are escaped, bytes below 0x20 and above 0x7e become escapes (\n, \t, ...,
// \u00XX), so the result is plain ASCII and valid UTF-8 whatever the bytes; a byte above 0x7e reads
// back as the character of the same number. A null text is written as null.
void zunta_json_string(std::FILE* out, const char* text, std::size_t width);

template <std::size_t N>
void zunta_json_string(std::FILE* out, const char (&text)[N]) {
  zunta_json_string(out, text, N);
}

#endif  // ZUNTA_CORE_JSON_H_
