// Training of one mesh pair: sixteen rounds over every combination of the two ends' patterns,
// the training table printed at the end, and the training status file.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/atomic_file.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "training/pair_round.h"
#include "training/training.h"

const std::array<int32_t, PATTERN_COUNT> pattern_indeces = {0, 1, 2, 3};

namespace {

// Logs the round's sums and progress and keeps the round when its moving-average sum is strictly
// the best so far (a tie keeps the earlier round). The patterns kept are those the agents
// reported, whatever their value: they mark the table and travel as fallbacks. Whether a pattern
// can be applied is decided later, by the selection and application of the patterns.
void evaluate_round(const mesh_pair* mp, int32_t round, best_round& best) {
  const txcs_record& rec = mp->txcs->rounds[round];
  const double exp_avg = static_cast<double>(rec.left_avg_bitrate + rec.right_avg_bitrate);
  const double mv_avg = static_cast<double>(rec.left_avg_bitrate_ma + rec.right_avg_bitrate_ma);
  const float done = static_cast<float>(round + 1) / static_cast<float>(TXCS_ROUNDS);
  ZLOG(COMP_TR, LVL_U, " - Training progress: %.2f%%\n", done * 100.0);
  ZLOG(COMP_TR, LVL_I, "Training ongoing:   ip-left: %s - ip-right: %s\n", mp->left_ip, mp->right_ip);
  ZLOG(COMP_TR, LVL_I, "Training ongoing:   left-best: %d - right-best: %d\n", best.left, best.right);
  ZLOG(COMP_TR, LVL_I, "Training ongoing:   current_bitrate_exp_avg : %f\n", exp_avg);
  ZLOG(COMP_TR, LVL_I, "Training ongoing:   current_bitrate_mv_avg : %f\n", mv_avg);
  if (!(mv_avg > static_cast<double>(best.score))) return;
  best.left = rec.left_pattern;
  best.right = rec.right_pattern;
  best.score = static_cast<float>(mv_avg);
  ZLOG(COMP_TR, LVL_I, "Training ongoing:   left-best: %d - right-best: %d (new)\n", best.left, best.right);
}

}  // namespace

bool zunta_mp_training_begins(mesh_pair* mp) {
  if (mp == nullptr) {
    ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair\n");
    return false;
  }
  if (mp->txcs == nullptr) {
    ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair TXCS\n");
    return false;
  }
  // Round r fills record txcs_count + r: a run that does not start at record 0 would write past the
  // sixteenth record, so it is refused before anything is sent.
  if (mp->txcs_count != 0) {
    ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E,
            "Training of Mesh Pair %s-%s refused: it starts at round %d, not 0\n", mp->left_mac,
            mp->right_mac, mp->txcs_count);
    return false;
  }
  ZLOG(COMP_TR, LVL_U, "Training Mesh Pair: %s-%s\n", mp->left_mac, mp->right_mac);
  ZLOG(COMP_TR, LVL_D, "Left mac: %s - ip: %s\n", mp->left_mac, mp->left_ip);
  ZLOG(COMP_TR, LVL_D, "Right mac: %s - ip: %s\n", mp->right_mac, mp->right_ip);
  return true;
}

void zunta_mp_training_round_begins(const mesh_pair* mp, int32_t left, int32_t right) {
  ZLOG(COMP_TR, LVL_D,
       "Training ongoing: ip-left: %s - ip-right: %s - left-pattern: %d - right-pattern: %d\n", mp->left_ip,
       mp->right_ip, pattern_indeces[left], pattern_indeces[right]);
}

void zunta_mp_training_round_ends(mesh_pair* mp, best_round& best) {
  evaluate_round(mp, mp->txcs_count, best);
  ++mp->txcs_count;
}

void zunta_mp_training_ends(mesh_pair* mp, const best_round& best) {
  mp->trained = 1;
  zunta_dump_training_table(mp, best.left, best.right);
  ZLOG(COMP_TR, LVL_D, "Training completed for Mesh Pair -> ip left: %s - ip right: %s\n", mp->left_ip,
       mp->right_ip);
}

void zunta_mp_training(mesh_pair* mp, char (&buffer)[COMMAND_SIZE]) {
  if (!zunta_mp_training_begins(mp)) return;
  best_round best = NO_BEST_ROUND;
  for (int32_t right = 0; right < PATTERN_COUNT; ++right) {
    for (int32_t left = 0; left < PATTERN_COUNT; ++left) {
      zunta_mp_training_round_begins(mp, left, right);
      // Patterns, dumps and measurements on both ends, then both ends' results. The errors are
      // logged here, so their lines name this procedure.
      if (zunta_set_pattern_with_fallback(buffer, mp->left_ip, mp->right_mac, pattern_indeces[left],
                                          best.left, FALLBACK_M) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while setting the pattern\n");
      if (zunta_set_pattern_with_fallback(buffer, mp->right_ip, mp->left_mac, pattern_indeces[right],
                                          best.right, FALLBACK_M) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while setting the pattern\n");
      if (zunta_start_dump(buffer, mp->left_ip, mp->right_mac) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while starting the dump\n");
      if (zunta_start_dump(buffer, mp->right_ip, mp->left_mac) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while starting the dump\n");
      if (zunta_start_training(buffer, mp->left_ip, mp->right_ip) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while start training\n");
      if (zunta_start_training(buffer, mp->right_ip, mp->left_ip) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while start training\n");
      zunta_pause_us(TRAINING_ROUND_PAUSE_US);
      if (zunta_stop_training(buffer, mp, mp->right_mac, mp->left_mac, mp->left_ip) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while stop training\n");
      if (zunta_stop_training(buffer, mp, mp->left_mac, mp->right_mac, mp->right_ip) != 0)
        ZLOG(COMP_TR, LVL_E, "Error while stop training\n");
      zunta_mp_training_round_ends(mp, best);
    }
  }
  zunta_mp_training_ends(mp, best);
}

void zunta_dump_training_table(mesh_pair* mp, int32_t left_best, int32_t right_best) {
  if (mp == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair\n");
    return;
  }
  if (mp->txcs == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair TXCS\n");
    return;
  }
  char now[TIME_TEXT_SIZE];
  print_datetime(now);
  ZLOG(COMP_CORE, LVL_U, "TABLE_START_ID=%s\n", now);
  ZLOG(COMP_CORE, LVL_U, "  i, mac_L, antenna-index_L,  bitrate_L, mac_R, antenna-index_R,  bitrate_R\n");
  for (int i = 0; i < TXCS_ROUNDS; ++i) {
    const txcs_record& rec = mp->txcs->rounds[i];
    // Every row that measured the best pair of patterns is marked, so several rows may be.
    const bool best = rec.left_pattern == left_best && rec.right_pattern == right_best;
    ZLOG(COMP_CORE, LVL_U, "%3d, %17s, 0x%d, %5.0f Mbps, %17s, 0x%d, %5.0f Mbps %s\n", i, mp->left_mac,
         rec.left_pattern, static_cast<double>(rec.left_avg_bitrate_ma / 1000.0f), mp->right_mac,
         rec.right_pattern, static_cast<double>(rec.right_avg_bitrate_ma / 1000.0f), best ? "*" : "");
  }
  ZLOG(COMP_CORE, LVL_U, "TABLE_END\n");
}

int32_t zunta_write_mp_training_status(int32_t status) {
  const char* path = zunta_training_status_path();
  replacement_file file;
  if (file.open(path) != 0) {
    ZLOG(COMP_CORE, LVL_E, "File %s open error\n", path);
    return -1;
  }
  std::fprintf(file.stream(), "%d\n", status);
  if (file.commit() != 0) {
    ZLOG(COMP_CORE, LVL_E, "File %s write error: %s\n", path, std::strerror(errno));
    return -1;
  }
  return 0;
}
