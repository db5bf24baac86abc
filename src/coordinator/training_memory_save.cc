// Writing the training memory file: the trained pairs that can be remembered and the chosen receive
// patterns, sealed with a checksum, replaced by rename and synced.
#include "coordinator/training_memory.h"

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/atomic_file.h"
#include "core/checksum.h"
#include "core/clock.h"
#include "core/heap.h"
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "registry/ath.h"
#include "training/training.h"

namespace {

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
    if (n == room || !zunta_memory_pair_keepable(tp)) continue;
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
    if (n == room || a->is_mesh_node != 1 || !zunta_pattern_valid(a->rx_pattern) ||
        !zunta_memory_mac_valid(a->mac))
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
  heap_array<const trained_mesh_pair*> pairs =
      heap_allocate<const trained_mesh_pair*>(pair_room > 0 ? pair_room : 0);
  heap_array<const ath*> nodes = heap_allocate<const ath*>(node_room > 0 ? node_room : 0);
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
