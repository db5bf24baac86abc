// Reading and writing the training memory file. The reader takes a file only when it is whole and
// every value in it is one the writer could have written; the writer checks each record by the same
// rules, so it never leaves a file that the reader would refuse.
#include "coordinator/training_memory.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/atomic_file.h"
#include "core/checksum.h"
#include "core/clock.h"
#include "core/fd.h"
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "registry/ath.h"
#include "training/training.h"

namespace {

constexpr char MEMORY_MAGIC[] = "zunta training memory ";
constexpr char CHECKSUM_TAG[] = "crc32 ";
constexpr std::size_t CHECKSUM_DIGITS = 8;
constexpr std::size_t CHECKSUM_LINE_SIZE = sizeof CHECKSUM_TAG - 1 + CHECKSUM_DIGITS + 1;  // with '\n'
constexpr std::size_t MEMORY_LINE_SIZE = 192;  // longer than any line the writer makes
constexpr int MAX_FIELDS = 12;

struct free_deleter {
  void operator()(void* p) const { std::free(p); }
};

// --- Values, checked alike before writing and when reading ---

// Six lower-case hexadecimal bytes joined by ':', as the registry keeps node MACs.
bool mac_valid(const char* text) {
  if (std::strlen(text) != MAC_TEXT_SIZE - 1) return false;
  for (std::size_t i = 0; i < MAC_TEXT_SIZE - 1; ++i) {
    const char c = text[i];
    const bool ok = i % 3 == 2 ? c == ':' : (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (!ok) return false;
  }
  return true;
}

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

// A trained pair is remembered only when its patterns can be applied and every value survives the
// file; any other is trained again after a restart.
bool pair_rememberable(const trained_mesh_pair* tp) {
  return tp->trained == 1 && tp->txcs != nullptr && tp->radioidx == TRAINING_RADIO_INDEX &&
         zunta_pattern_valid(tp->left_tx_pattern) && zunta_pattern_valid(tp->right_tx_pattern) &&
         mac_valid(tp->left_mac) && mac_valid(tp->right_mac) && ip_valid(tp->left_ip) &&
         ip_valid(tp->right_ip) && key_matches(tp->meshkey, tp->left_mac, tp->right_mac) &&
         tp->trained_at >= 0 && rounds_valid(*tp->txcs);
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
                  zunta_copy_text(p.right_ip, f[5]) && mac_valid(p.left_mac) && mac_valid(p.right_mac) &&
                  ip_valid(p.left_ip) && ip_valid(p.right_ip) && int_field(f[6], 0, 3, &p.left_tx_pattern) &&
                  int_field(f[7], 0, 3, &p.right_tx_pattern) && seconds_field(f[8], &p.trained_at);
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
  if (!zunta_copy_text(n.mac, f[1]) || !mac_valid(n.mac) || !int_field(f[2], 0, 3, &n.rx_pattern))
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

// --- Writing ---

// Lines go out through here, so the checksum and the size cover exactly what was written.
struct writer {
  std::FILE* out;
  uint32_t crc;
  std::size_t bytes;
  bool cut;
};

void emit(writer& w, const char* format, ...) __attribute__((format(printf, 2, 3)));
void emit(writer& w, const char* format, ...) {
  char line[MEMORY_LINE_SIZE];
  va_list args;
  va_start(args, format);
  const bool whole = zunta_vformat_text(line, sizeof line, format, args);
  va_end(args);
  if (!whole) w.cut = true;
  const std::size_t len = std::strlen(line);
  w.crc = zunta_crc32(w.crc, line, len);
  w.bytes += len;
  std::fputs(line, w.out);
}

void emit_pair(writer& w, const trained_mesh_pair* tp) {
  emit(w, "pair %s %s %s %s %s %d %d %" PRId64 "\n", tp->meshkey, tp->left_mac, tp->left_ip, tp->right_mac,
       tp->right_ip, tp->left_tx_pattern, tp->right_tx_pattern, tp->trained_at);
  for (int32_t i = 0; i < TXCS_ROUNDS; ++i) {
    const txcs_record& r = tp->txcs->rounds[i];
    // Nine significant digits give back the same float.
    emit(w, "round %d %d %d %.9g %.9g %.9g %.9g %d %d %d %d\n", i, r.left_pattern, r.right_pattern,
         static_cast<double>(r.left_avg_bitrate), static_cast<double>(r.right_avg_bitrate),
         static_cast<double>(r.left_avg_bitrate_ma), static_cast<double>(r.right_avg_bitrate_ma),
         r.left_nframes, r.right_nframes, r.left_nfeedback, r.right_nfeedback);
  }
}

// The trained pairs to remember, newest first, each key once.
int32_t choose_pairs(mesh_tables* tables, const trained_mesh_pair** chosen, int32_t room) {
  int32_t n = 0;
  sa_list_for_each_entry(tp, &tables->trained_mesh_pair_list, trained_mesh_pair, list) {
    if (n == room || !pair_rememberable(tp)) continue;
    bool seen = false;
    for (int32_t i = 0; i < n && !seen; ++i)
      seen = zunta_text_equal(chosen[i]->meshkey, tp->meshkey);
    if (!seen) chosen[n++] = tp;
  }
  return n;
}

// The mesh nodes with a chosen receive pattern, each MAC once.
int32_t choose_nodes(mesh_tables* tables, const ath** chosen, int32_t room) {
  int32_t n = 0;
  sa_list_for_each_entry(a, &tables->ath_list, ath, list) {
    if (n == room || a->is_mesh_node != 1 || !zunta_pattern_valid(a->rx_pattern) || !mac_valid(a->mac))
      continue;
    bool seen = false;
    for (int32_t i = 0; i < n && !seen; ++i)
      seen = zunta_text_equal(chosen[i]->mac, a->mac);
    if (!seen) chosen[n++] = a;
  }
  return n;
}

int write_document(const char* path, const trained_mesh_pair* const* pairs, int32_t pair_count,
                   const ath* const* nodes, int32_t node_count) {
  replacement_file file;
  if (file.open(path) != 0) {
    ZLOG_AS("zunta_training_memory_save", COMP_CORE, LVL_E, "Cannot write training memory %s: %s\n", path,
            std::strerror(errno));
    return -1;
  }
  timeval now{};
  zunta_wall_time(&now);
  writer w{file.stream(), CRC32_START, 0, false};
  emit(w, "%s%d\n", MEMORY_MAGIC, TRAINING_MEMORY_VERSION);
  emit(w, "saved %" PRId64 " pairs %d nodes %d\n", static_cast<int64_t>(now.tv_sec), pair_count, node_count);
  for (int32_t i = 0; i < pair_count; ++i)
    emit_pair(w, pairs[i]);
  for (int32_t i = 0; i < node_count; ++i)
    emit(w, "node %s %d\n", nodes[i]->mac, nodes[i]->rx_pattern);
  if (w.cut || w.bytes + CHECKSUM_LINE_SIZE > TRAINING_MEMORY_MAX_BYTES) {
    ZLOG_AS("zunta_training_memory_save", COMP_CORE, LVL_E, "Training memory %s not written: too large\n",
            path);
    return -1;
  }
  std::fprintf(w.out, "%s%08" PRIx32 "\n", CHECKSUM_TAG, w.crc);
  if (file.commit(true) != 0) {
    ZLOG_AS("zunta_training_memory_save", COMP_CORE, LVL_E, "Cannot write training memory %s: %s\n", path,
            std::strerror(errno));
    return -1;
  }
  return 0;
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

int zunta_training_memory_save(const char* path, mesh_tables* tables) {
  if (path == nullptr || path[0] == '\0') return 0;
  if (tables == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  const int32_t pair_room = tables->trained_mesh_pair_count < TRAINING_MEMORY_MAX_PAIRS
                                ? tables->trained_mesh_pair_count
                                : TRAINING_MEMORY_MAX_PAIRS;
  const int32_t node_room =
      tables->ath_count < TRAINING_MEMORY_MAX_NODES ? tables->ath_count : TRAINING_MEMORY_MAX_NODES;
  std::unique_ptr<const trained_mesh_pair*[], free_deleter> pairs(static_cast<const trained_mesh_pair**>(
      std::calloc(pair_room > 0 ? pair_room : 1, sizeof(trained_mesh_pair*))));
  std::unique_ptr<const ath*[], free_deleter> nodes(
      static_cast<const ath**>(std::calloc(node_room > 0 ? node_room : 1, sizeof(ath*))));
  if (!pairs || !nodes) {
    ZLOG(COMP_CORE, LVL_E, "Memory allocation error for the training memory\n");
    return -1;
  }
  const int32_t pair_count = choose_pairs(tables, pairs.get(), pair_room > 0 ? pair_room : 0);
  const int32_t node_count = choose_nodes(tables, nodes.get(), node_room > 0 ? node_room : 0);
  if (write_document(path, pairs.get(), pair_count, nodes.get(), node_count) != 0) return -1;
  ZLOG(COMP_CORE, LVL_I, "Training memory %s saved: %d pairs, %d nodes\n", path, pair_count, node_count);
  return 0;
}
