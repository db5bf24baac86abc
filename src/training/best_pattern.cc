// Choice of a trained pair's transmit patterns: the round with the highest sum of the two ends'
// moving-average bitrates gives the pattern of each end.
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "training/training.h"

namespace {

// One candidate round: the patterns the agents reported and the round's cost value.
struct choice {
  bool found;
  int32_t left;
  int32_t right;
  double cfun;
  int32_t round;
};

void take(choice& c, const txcs_record& rec, double cfun, int32_t round) {
  c = {true, rec.left_pattern, rec.right_pattern, cfun, round};
}

double cost(const txcs_record& rec) {
  return 0.0 + static_cast<double>(rec.left_avg_bitrate_ma + rec.right_avg_bitrate_ma);
}

// Rounds are visited in order and only a strictly better value replaces: ties keep the earlier
// round. A round whose reported patterns lie outside 0..3 cannot be applied and is never best.
bool beats(const choice& best, const txcs_record& rec, double cfun) {
  return (!best.found || cfun > best.cfun) && zunta_pattern_valid(rec.left_pattern) &&
         zunta_pattern_valid(rec.right_pattern);
}

}  // namespace

void zunta_compute_best_mp_training(trained_mesh_pair* tp) {
  if (tp == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair\n");
    return;
  }
  if (tp->txcs == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair TXCS\n");
    return;
  }
  choice best = {false, 0, 0, -1.0, -1};
  choice worst = {false, 0, 0, -1.0, -1};
  for (int i = 0; i < TXCS_ROUNDS; ++i) {
    if (tp->radioidx != TRAINING_RADIO_INDEX) {
      ZLOG(COMP_TR, LVL_I, "UNEXPECTED radio index\n");
      continue;
    }
    const txcs_record& rec = tp->txcs->rounds[i];
    const double cfun = cost(rec);
    ZLOG(COMP_TR, LVL_I, "dpattern: %d: Pattern:%d-%d - cfun: %.0f\n", i, rec.left_pattern, rec.right_pattern,
         cfun);
    // A round that cannot be best still counts for the worst, which is only logged.
    if (beats(best, rec, cfun)) {
      ZLOG(COMP_TR, LVL_I, "updating best pattern...\n");
      take(best, rec, cfun, i);
    }
    if (!worst.found || cfun < worst.cfun) {
      ZLOG(COMP_TR, LVL_I, "updating worst pattern...\n");
      take(worst, rec, cfun, i);
    }
  }
  // Without a qualifying round there is no evidence for any pattern: the pair holds no transmit
  // pattern, which pattern application and receive selection never send and the status file
  // shows as 0xffffffff.
  if (!best.found) {
    tp->left_tx_pattern = TX_PATTERN_NONE;
    tp->right_tx_pattern = TX_PATTERN_NONE;
    ZLOG(COMP_TR, LVL_I, "No best pattern for %s: no round qualifies\n", tp->meshkey);
    return;
  }
  tp->left_tx_pattern = best.left;
  tp->right_tx_pattern = best.right;
  ZLOG(COMP_TR, LVL_I, "BEST PATTERN: left -> %d right -> %d\n", tp->left_tx_pattern, tp->right_tx_pattern);
  ZLOG(COMP_TR, LVL_I, "WORST PATTERN: left -> %d right -> %d\n", worst.left, worst.right);
}

int32_t zunta_best_round(const txcs_block* block, int32_t radioidx) {
  if (block == nullptr || radioidx != TRAINING_RADIO_INDEX) return -1;
  choice best = {false, 0, 0, -1.0, -1};
  for (int32_t i = 0; i < TXCS_ROUNDS; ++i) {
    const txcs_record& rec = block->rounds[i];
    if (beats(best, rec, cost(rec))) take(best, rec, cost(rec), i);
  }
  return best.round;
}

int32_t zunta_get_double_pattern_index(int32_t left_index, int32_t right_index) {
  const int32_t index = left_index + PATTERN_COUNT * right_index;
  ZLOG(COMP_TR, LVL_I, "left_index: %d - right_index: %d - index: %d\n", left_index, right_index, index);
  return index;
}
