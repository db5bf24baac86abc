// A training memory file of any content, read as the daemon reads it at start-up; then the same
// text sealed with its own checksum, so the records behind the checksum are reached too.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <vector>

#include "coordinator/training_memory.h"
#include "core/checksum.h"
#include "fuzz_support.h"
#include "training/training.h"

namespace {

// Whatever is taken holds only values the daemon could have written.
void read_text(const char* text, std::size_t size) {
  char reason[TRAINING_MEMORY_REASON_SIZE];
  training_memory* m = zunta_training_memory_parse(text, size, reason);
  if (m == nullptr) {
    if (reason[0] == '\0' || memchr(reason, '\0', sizeof reason) == nullptr) __builtin_trap();
    return;
  }
  if (m->pair_count > TRAINING_MEMORY_MAX_PAIRS || m->node_count > TRAINING_MEMORY_MAX_NODES)
    __builtin_trap();
  for (int32_t i = 0; i < m->pair_count; ++i) {
    const remembered_pair& p = m->pairs[i];
    if (!zunta_pattern_valid(p.left_tx_pattern) || !zunta_pattern_valid(p.right_tx_pattern)) __builtin_trap();
    if (std::strlen(p.meshkey) != 2 * (MAC_TEXT_SIZE - 1) + 1 || p.trained_at < 0) __builtin_trap();
    for (const txcs_record& r : p.txcs.rounds) {
      if (!zunta_pattern_valid(r.left_pattern) || !zunta_pattern_valid(r.right_pattern)) __builtin_trap();
    }
  }
  for (int32_t i = 0; i < m->node_count; ++i) {
    if (!zunta_pattern_valid(m->nodes[i].rx_pattern)) __builtin_trap();
  }
  zunta_training_memory_free(m);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  read_text(reinterpret_cast<const char*>(data), size);
  std::vector<char> sealed(data, data + size);
  char line[32];
  const int len =
      std::snprintf(line, sizeof line, "crc32 %08" PRIx32 "\n", zunta_crc32(CRC32_START, data, size));
  sealed.insert(sealed.end(), line, line + len);
  read_text(sealed.data(), sealed.size());
  return 0;
}
