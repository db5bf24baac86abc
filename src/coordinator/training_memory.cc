// Reading the training memory file, and the rules of its values. The reader takes a file only when
// it is whole and every value in it is one the writer could have written; the writer keeps only
// records that pass the same rules, so it never leaves a file that the reader would refuse.
#include "coordinator/training_memory.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/checksum.h"
#include "core/fd.h"
#include "core/heap.h"
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "training/training.h"

namespace {

constexpr int MAX_FIELDS = 12;

// --- Values, checked alike before writing and when reading ---

bool ip_valid(const char* text) {
  in_addr parsed{};
  return std::strlen(text) < IP_TEXT_SIZE && inet_pton(AF_INET, text, &parsed) == 1;
}

// A pair's key is its two MACs, the smaller first, as generation makes it.
bool key_matches(const char* key, const char* left_mac, const char* right_mac) {
  char expected[MESHKEY_TEXT_SIZE];
  return std::strcmp(left_mac, right_mac) < 0 &&
         zunta_format_buffer(expected, sizeof expected, "%s-%s", left_mac, right_mac) &&
         std::strcmp(expected, key) == 0;
}

bool rounds_valid(const txcs_block& txcs) {
  for (const txcs_record& r : txcs.rounds) {
    if (!zunta_pattern_valid(r.left_pattern) || !zunta_pattern_valid(r.right_pattern)) return false;
    for (float rate :
         {r.left_avg_bitrate, r.right_avg_bitrate, r.left_avg_bitrate_ma, r.right_avg_bitrate_ma}) {
      if (!std::isfinite(rate)) return false;
    }
  }
  return true;
}

// --- Reading ---

struct reader {
  const char* text;
  std::size_t at;
  std::size_t end;  // where the checksum line begins
  int line;         // number of the line last taken
  char* reason;     // TRAINING_MEMORY_REASON_SIZE bytes
};

bool fail(reader& r, const char* format, ...) __attribute__((format(printf, 2, 3)));
bool fail(reader& r, const char* format, ...) {
  va_list args;
  va_start(args, format);
  zunta_vformat_text(r.reason, TRAINING_MEMORY_REASON_SIZE, format, args);
  va_end(args);
  return false;
}

// Takes the next line and splits it at single blanks into exactly `count` fields, the first `tag`.
bool take_fields(reader& r, const char* tag, int count, char (&line)[MEMORY_LINE_SIZE],
                 char* (&fields)[MAX_FIELDS]) {
  ++r.line;
  if (r.at >= r.end) return fail(r, "line %d: %s line expected, checksum line found", r.line, tag);
  // The text before the checksum line ends with a line feed, so every line has one.
  const char* start = r.text + r.at;
  const auto len =
      static_cast<std::size_t>(static_cast<const char*>(std::memchr(start, '\n', r.end - r.at)) - start);
  if (len >= sizeof line) return fail(r, "line %d is too long", r.line);
  std::memcpy(line, start, len);
  line[len] = '\0';
  r.at += len + 1;
  int n = 0;
  for (char* field = line; field != nullptr; ++n) {
    if (n == MAX_FIELDS) return fail(r, "line %d: malformed %s line", r.line, tag);
    fields[n] = field;
    field = std::strchr(field, ' ');
    if (field != nullptr) *field++ = '\0';
  }
  if (n != count || std::strcmp(fields[0], tag) != 0)
    return fail(r, "line %d: malformed %s line", r.line, tag);
  return true;
}

bool starts_number(const char* text) {
  return text[0] == '-' || (text[0] >= '0' && text[0] <= '9');
}

bool int_field(const char* text, int32_t min, int32_t max, int32_t* out) {
  const char* rest = nullptr;
  return starts_number(text) && zunta_scan_int32(text, 10, min, max, out, &rest) && *rest == '\0';
}

bool seconds_field(const char* text, int64_t* out) {
  if (text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (*end != '\0' || errno == ERANGE) return false;
  *out = static_cast<int64_t>(value);
  return true;
}

bool rate_field(const char* text, float* out) {
  char* end = nullptr;
  const float value = std::strtof(text, &end);
  if (!starts_number(text) || *end != '\0' || !std::isfinite(value)) return false;
  *out = value;
  return true;
}

bool read_round(reader& r, int32_t index, txcs_record& rec) {
  char line[MEMORY_LINE_SIZE];
  char* f[MAX_FIELDS];
  if (!take_fields(r, "round", 12, line, f)) return false;
  int32_t number = 0;
  const bool ok = int_field(f[1], index, index, &number) && int_field(f[2], 0, 3, &rec.left_pattern) &&
                  int_field(f[3], 0, 3, &rec.right_pattern) && rate_field(f[4], &rec.left_avg_bitrate) &&
                  rate_field(f[5], &rec.right_avg_bitrate) && rate_field(f[6], &rec.left_avg_bitrate_ma) &&
                  rate_field(f[7], &rec.right_avg_bitrate_ma) &&
                  int_field(f[8], INT32_MIN, INT32_MAX, &rec.left_nframes) &&
                  int_field(f[9], INT32_MIN, INT32_MAX, &rec.right_nframes) &&
                  int_field(f[10], INT32_MIN, INT32_MAX, &rec.left_nfeedback) &&
                  int_field(f[11], INT32_MIN, INT32_MAX, &rec.right_nfeedback);
  return ok || fail(r, "line %d: round %d out of range", r.line, index);
}

bool read_pair(reader& r, const training_memory& m, remembered_pair& p) {
  char line[MEMORY_LINE_SIZE];
  char* f[MAX_FIELDS];
  if (!take_fields(r, "pair", 9, line, f)) return false;
  const bool ok = zunta_copy_text(p.meshkey, f[1]) && zunta_copy_text(p.left_mac, f[2]) &&
                  zunta_copy_text(p.left_ip, f[3]) && zunta_copy_text(p.right_mac, f[4]) &&
                  zunta_copy_text(p.right_ip, f[5]) && zunta_memory_mac_valid(p.left_mac) &&
                  zunta_memory_mac_valid(p.right_mac) && ip_valid(p.left_ip) && ip_valid(p.right_ip) &&
                  int_field(f[6], 0, 3, &p.left_tx_pattern) && int_field(f[7], 0, 3, &p.right_tx_pattern) &&
                  seconds_field(f[8], &p.trained_at);
  if (!ok) return fail(r, "line %d: pair out of range", r.line);
  if (!key_matches(p.meshkey, p.left_mac, p.right_mac))
    return fail(r, "line %d: key is not its two MACs", r.line);
  for (int32_t i = 0; i < m.pair_count; ++i) {
    if (zunta_text_equal(m.pairs[i].meshkey, p.meshkey)) return fail(r, "line %d: duplicate key", r.line);
  }
  for (int32_t round = 0; round < TXCS_ROUNDS; ++round) {
    if (!read_round(r, round, p.txcs.rounds[round])) return false;
  }
  return true;
}

bool read_node(reader& r, const training_memory& m, remembered_node& n) {
  char line[MEMORY_LINE_SIZE];
  char* f[MAX_FIELDS];
  if (!take_fields(r, "node", 3, line, f)) return false;
  if (!zunta_copy_text(n.mac, f[1]) || !zunta_memory_mac_valid(n.mac) ||
      !int_field(f[2], 0, 3, &n.rx_pattern))
    return fail(r, "line %d: node out of range", r.line);
  for (int32_t i = 0; i < m.node_count; ++i) {
    if (zunta_text_equal(m.nodes[i].mac, n.mac)) return fail(r, "line %d: duplicate node", r.line);
  }
  return true;
}

// The counts line, then the records it announces, each array taken from the heap for its count.
bool read_records(reader& r, training_memory& m) {
  char line[MEMORY_LINE_SIZE];
  char* f[MAX_FIELDS];
  if (!take_fields(r, "saved", 6, line, f)) return false;
  int32_t pairs = 0;
  int32_t nodes = 0;
  if (!seconds_field(f[1], &m.saved_at) || std::strcmp(f[2], "pairs") != 0 ||
      !int_field(f[3], 0, TRAINING_MEMORY_MAX_PAIRS, &pairs) || std::strcmp(f[4], "nodes") != 0 ||
      !int_field(f[5], 0, TRAINING_MEMORY_MAX_NODES, &nodes)) {
    return fail(r, "line %d: counts out of range", r.line);
  }
  m.pairs = static_cast<remembered_pair*>(std::calloc(pairs > 0 ? pairs : 1, sizeof(remembered_pair)));
  m.nodes = static_cast<remembered_node*>(std::calloc(nodes > 0 ? nodes : 1, sizeof(remembered_node)));
  if (m.pairs == nullptr || m.nodes == nullptr) return fail(r, "no memory for %d pairs", pairs);
  for (; m.pair_count < pairs; ++m.pair_count) {
    if (!read_pair(r, m, m.pairs[m.pair_count])) return false;
  }
  for (; m.node_count < nodes; ++m.node_count) {
    if (!read_node(r, m, m.nodes[m.node_count])) return false;
  }
  if (r.at != r.end) return fail(r, "line %d: more lines than the counts say", r.line + 1);
  return true;
}

// The frame around the records: the first line names the format and its version, the last line is
// the checksum of everything before it. Sets r.at after the first line and r.end at the last.
bool check_frame(reader& r, std::size_t size) {
  if (size == 0) return fail(r, "empty file");
  if (std::memchr(r.text, '\0', size) != nullptr) return fail(r, "a NUL byte in the file");
  const std::size_t magic = sizeof MEMORY_MAGIC - 1;
  const auto* first_end = static_cast<const char*>(std::memchr(r.text, '\n', size));
  if (size < magic || std::memcmp(r.text, MEMORY_MAGIC, magic) != 0)
    return fail(r, "not a training memory file");
  if (first_end == nullptr) return fail(r, "truncated: no checksum line at the end");
  const auto version_len = static_cast<int>(first_end - r.text - static_cast<std::ptrdiff_t>(magic));
  int32_t version = 0;
  char text[16];
  if (version_len <= 0 || version_len >= static_cast<int>(sizeof text))
    return fail(r, "not a training memory file");
  std::memcpy(text, r.text + magic, static_cast<std::size_t>(version_len));
  text[version_len] = '\0';
  if (!int_field(text, TRAINING_MEMORY_VERSION, TRAINING_MEMORY_VERSION, &version))
    return fail(r, "format version %s, this daemon reads version %d", text, TRAINING_MEMORY_VERSION);
  r.at = static_cast<std::size_t>(first_end - r.text) + 1;
  r.line = 1;
  // The checksum line is the last line, whole, with its line feed.
  if (size < r.at + CHECKSUM_LINE_SIZE || r.text[size - 1] != '\n')
    return fail(r, "truncated: no checksum line at the end");
  r.end = size - CHECKSUM_LINE_SIZE;
  const char* digits = r.text + r.end + sizeof CHECKSUM_TAG - 1;
  if ((r.end > 0 && r.text[r.end - 1] != '\n') ||
      std::memcmp(r.text + r.end, CHECKSUM_TAG, sizeof CHECKSUM_TAG - 1) != 0 ||
      std::strspn(digits, "0123456789abcdef") < CHECKSUM_DIGITS) {
    return fail(r, "truncated: no checksum line at the end");
  }
  const auto stated = static_cast<uint32_t>(std::strtoul(digits, nullptr, 16));
  if (stated != zunta_crc32(CRC32_START, r.text, r.end)) return fail(r, "checksum mismatch");
  return true;
}

// Reads the whole file without blocking and without following a link. 1 with the text, 0 when
// there is no file, -1 with the reason.
int read_memory_file(const char* path, std::unique_ptr<char, free_deleter>* text, std::size_t* size,
                     char (&reason)[TRAINING_MEMORY_REASON_SIZE]) {
  unique_fd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!fd.valid() && errno == ENOENT) return 0;
  if (!fd.valid()) {
    zunta_format_buffer(reason, sizeof reason, "%s",
                        errno == ELOOP ? "a symbolic link" : std::strerror(errno));
    return -1;
  }
  struct stat st {};
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    zunta_copy_text(reason, "not a regular file");
    return -1;
  }
  if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > TRAINING_MEMORY_MAX_BYTES) {
    zunta_format_buffer(reason, sizeof reason, "larger than %u bytes",
                        static_cast<unsigned>(TRAINING_MEMORY_MAX_BYTES));
    return -1;
  }
  // One byte more than the file holds: a file that grows while it is read is caught.
  const auto room = static_cast<std::size_t>(st.st_size) + 1;
  text->reset(static_cast<char*>(std::malloc(room)));
  if (!*text) {
    zunta_copy_text(reason, "no memory to read it");
    return -1;
  }
  std::size_t got = 0;
  for (ssize_t n = 1; n != 0 && got < room;) {
    n = read(fd.get(), text->get() + got, room - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      zunta_format_buffer(reason, sizeof reason, "%s", std::strerror(errno));
      return -1;
    }
    got += static_cast<std::size_t>(n);
  }
  if (got == room) {
    zunta_copy_text(reason, "changed while it was read");
    return -1;
  }
  *size = got;
  return 1;
}

}  // namespace

training_memory* zunta_training_memory_parse(const char* text, std::size_t size,
                                             char (&reason)[TRAINING_MEMORY_REASON_SIZE]) {
  reason[0] = '\0';
  if (text == nullptr) {
    zunta_copy_text(reason, "no text");
    return nullptr;
  }
  std::unique_ptr<training_memory, void (*)(training_memory*)> memory(
      static_cast<training_memory*>(std::calloc(1, sizeof(training_memory))), zunta_training_memory_free);
  if (!memory) {
    zunta_copy_text(reason, "no memory for the records");
    return nullptr;
  }
  reader r{text, 0, 0, 0, reason};
  if (!check_frame(r, size) || !read_records(r, *memory)) return nullptr;
  return memory.release();
}

training_memory* zunta_training_memory_load(const char* path) {
  if (path == nullptr || path[0] == '\0') return nullptr;
  char reason[TRAINING_MEMORY_REASON_SIZE] = {};
  std::unique_ptr<char, free_deleter> text;
  std::size_t size = 0;
  const int read = read_memory_file(path, &text, &size, reason);
  if (read == 0) {
    ZLOG(COMP_CORE, LVL_U, "Training memory %s not found: every mesh pair will be trained\n", path);
    return nullptr;
  }
  training_memory* memory = read > 0 ? zunta_training_memory_parse(text.get(), size, reason) : nullptr;
  if (memory == nullptr) {
    ZLOG(COMP_CORE, LVL_W, "Training memory %s ignored: %s\n", path, reason);
    return nullptr;
  }
  zunta_copy_text(memory->path, path);
  ZLOG(COMP_CORE, LVL_U, "Training memory %s holds %d trained mesh pairs\n", path, memory->pair_count);
  return memory;
}

void zunta_training_memory_free(training_memory* memory) {
  if (memory == nullptr) return;
  std::free(memory->pairs);
  std::free(memory->nodes);
  std::free(memory);
}

bool zunta_memory_mac_valid(const char* text) {
  if (std::strlen(text) != MAC_TEXT_SIZE - 1) return false;
  for (std::size_t i = 0; i < MAC_TEXT_SIZE - 1; ++i) {
    const char c = text[i];
    const bool ok = i % 3 == 2 ? c == ':' : (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (!ok) return false;
  }
  return true;
}

bool zunta_memory_pair_keepable(const trained_mesh_pair* tp) {
  return tp->trained == 1 && tp->txcs != nullptr && tp->radioidx == TRAINING_RADIO_INDEX &&
         zunta_pattern_valid(tp->left_tx_pattern) && zunta_pattern_valid(tp->right_tx_pattern) &&
         zunta_memory_mac_valid(tp->left_mac) && zunta_memory_mac_valid(tp->right_mac) &&
         ip_valid(tp->left_ip) && ip_valid(tp->right_ip) &&
         key_matches(tp->meshkey, tp->left_mac, tp->right_mac) && tp->trained_at >= 0 &&
         rounds_valid(*tp->txcs);
}
