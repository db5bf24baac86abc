// The training results block of a mesh pair: one 64-byte record per round, sixteen rounds.
// Round r measured left pattern index r % 4 with right pattern index r / 4.
#ifndef ZUNTA_MESHPAIR_TXCS_H_
#define ZUNTA_MESHPAIR_TXCS_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

constexpr int TXCS_ROUNDS = 16;

// Left fields come from the left node's agent about its link to the right node, and the other
// way round. Bitrates are kbit/s.
struct txcs_record {
  uint32_t reserved_head[5];
  int32_t left_pattern;
  int32_t right_pattern;
  float left_avg_bitrate;
  float right_avg_bitrate;
  float left_avg_bitrate_ma;
  float right_avg_bitrate_ma;
  uint32_t reserved_mid;
  int32_t left_nframes;
  int32_t right_nframes;
  int32_t left_nfeedback;
  int32_t right_nfeedback;
};

struct txcs_block {
  txcs_record rounds[TXCS_ROUNDS];
};

static_assert(sizeof(float) == 4, "bitrates are 32-bit floats");
static_assert(sizeof(txcs_record) == 64, "sixteen 32-bit words per round");
static_assert(offsetof(txcs_record, left_pattern) == 20 && offsetof(txcs_record, left_avg_bitrate) == 28 &&
                  offsetof(txcs_record, left_avg_bitrate_ma) == 36 &&
                  offsetof(txcs_record, left_nframes) == 48 && offsetof(txcs_record, right_nfeedback) == 60,
              "round record layout");
static_assert(sizeof(txcs_block) == 1024, "sixteen rounds in 1024 bytes");
static_assert(std::is_trivial_v<txcs_block>, "the block is calloc'ed and copied with memcpy");

#endif  // ZUNTA_MESHPAIR_TXCS_H_
