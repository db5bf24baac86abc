// JSON string escaping.
#include "core/json.h"

namespace {

// The short escapes RFC 8259 names; every other byte outside printable ASCII takes \u00XX.
char short_escape(unsigned char c) {
  switch (c) {
    case '"':
      return '"';
    case '\\':
      return '\\';
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return '\0';
  }
}

bool plain(unsigned char c) {
  return c >= 0x20 && c <= 0x7e && c != '"' && c != '\\';
}

}  // namespace

void zunta_json_string(std::FILE* out, const char* text, std::size_t width) {
  if (text == nullptr) {
    std::fputs("null", out);
    return;
  }
  std::fputc('"', out);
  std::size_t i = 0;
  while (i < width && text[i] != '\0') {
    // Runs of plain characters go out in one write.
    std::size_t run = i;
    while (run < width && text[run] != '\0' && plain(static_cast<unsigned char>(text[run])))
      ++run;
    if (run > i) std::fwrite(text + i, 1, run - i, out);
    if (run >= width || text[run] == '\0') break;
    const auto c = static_cast<unsigned char>(text[run]);
    if (const char e = short_escape(c); e != '\0') {
      std::fputc('\\', out);
      std::fputc(e, out);
    } else {
      std::fprintf(out, "\\u%04x", static_cast<unsigned>(c));
    }
    i = run + 1;
  }
  std::fputc('"', out);
}
