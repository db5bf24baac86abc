// Choice of every mesh node's receive pattern: each pattern is scored against the benchmark round
// (both ends on the default pattern) over all trained pairs of the node; a node with a single
// neighbour receives on the transmit pattern of its only pair.
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "registry/unanswering.h"
#include "training/training.h"

namespace {

// A node with at most one neighbour: the pattern it sends on is also the one it receives on.
void apply_single_link(mesh_tables* coordinator, char (&buffer)[COMMAND_SIZE], const ath* a,
                       trained_mesh_pair* tp, int side) {
  ZLOG(COMP_TR, LVL_I,
       "skipping ath: ip: %s - mac: %s - loop idx: %d -> only one node connected (TX == RX)\n", a->ip, a->mac,
       a->eth_index);
  const bool left = side == PAIR_SIDE_LEFT;
  const int32_t pattern = left ? tp->left_tx_pattern : tp->right_tx_pattern;
  // A stored pattern the node cannot apply is neither sent nor recorded.
  if (!zunta_pattern_valid(pattern)) {
    ZLOG(COMP_TR, LVL_I, "tx pattern %d of %s cannot be applied, rx left unset\n", pattern, tp->meshkey);
    return;
  }
  if (!zunta_agent_unanswering(a->ip, AGENT_FAILED_TRAINING))
    zunta_set_pattern(buffer, a->ip, left ? tp->right_mac : tp->left_mac, pattern);
  ath* end = zunta_trained_pair_ath(coordinator, tp, side);
  if (end != nullptr) {
    end->rx_pattern = pattern;
    end->rx_chosen = 1;
  }
}

// The highest of the four summed scores; a tie keeps the lower pattern index.
int32_t best_rx_pattern(const ath* a) {
  ZLOG(COMP_TR, LVL_I, "set best rx for node %s\n", a->ip);
  ZLOG(COMP_TR, LVL_I, "pattern | score |\n");
  int32_t chosen = 0;
  for (int32_t p = 0; p < PATTERN_COUNT; ++p) {
    ZLOG(COMP_TR, LVL_I, "%7d |%6.2f |\n", p, static_cast<double>(a->rx_score[p]));
    if (a->rx_score[p] > a->rx_score[chosen]) chosen = p;
  }
  return chosen;
}

// Scores the node over every trained pair it belongs to, or applies the single-link rule.
void score_node(mesh_tables* coordinator, char (&buffer)[COMMAND_SIZE], ath* a) {
  sa_list_for_each_entry(tp, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    const int side = zunta_check_ath_in_mesh_pair(tp, a);
    if (side == -1) continue;
    if (a->neighbour_count <= 1) {
      apply_single_link(coordinator, buffer, a, tp, side);
      return;
    }
    ZLOG(COMP_TR, LVL_I, "ath mac: %s ath side: %d ath ip: %s - mesh_pair: %s-%s\n", a->mac, side, a->ip,
         tp->left_mac, tp->right_mac);
    zunta_compute_rx_cfun(tp, a, side);
  }
}

}  // namespace

int zunta_compute_rx_antennas(mesh_tables* coordinator, char (&buffer)[COMMAND_SIZE]) {
  if (coordinator == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  ZLOG(COMP_CORE, LVL_I, ">>>>>>>>>>>>>>> %s\n", __func__);
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    zunta_reset_ath_rx_stats(a);
    if (a->is_mesh_node != 1) {
      ZLOG(COMP_TR, LVL_I, "skipping ath: ip: %s - mac: %s - loop idx: %d\n", a->ip, a->mac, a->eth_index);
      continue;
    }
    score_node(coordinator, buffer, a);
    if (a->neighbour_count <= 1) continue;
    const int32_t chosen = best_rx_pattern(a);
    ZLOG(COMP_TR, LVL_U, "%s set rx antenna %d\n", a->ip, chosen);
    // A node that stopped a pair of this cycle's parallel training has cost its attempts once.
    if (!zunta_agent_unanswering(a->ip, AGENT_FAILED_TRAINING)) zunta_set_pattern_rx(buffer, a->ip, chosen);
    a->rx_pattern = chosen;
    a->rx_chosen = 1;
  }
  return 0;
}

int32_t zunta_compute_rx_cfun(trained_mesh_pair* tp, ath* a, int32_t side) {
  if (tp == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair\n");
    return -1;
  }
  if (tp->txcs == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair TXCS\n");
    return -1;
  }
  if (a == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for ATH\n");
    return -1;
  }
  ZLOG(COMP_TR, LVL_I, "computing rx score for node %s related to %s\n", a->ip,
       side == PAIR_SIDE_LEFT ? tp->right_ip : tp->left_ip);
  ZLOG(COMP_TR, LVL_I, "pattern | score |\n");
  for (int32_t p = 0; p < PATTERN_COUNT; ++p) {
    const float s = zunta_compute_rx_score(tp, p, side);
    a->rx_score[p] += s;
    ZLOG(COMP_TR, LVL_I, "%8d |%6.2f |\n", p, static_cast<double>(s));
  }
  return 0;
}

// The other end's moving average in the round where this node used `pattern` and the other end
// its chosen transmit pattern, minus the same figure in the benchmark round. When the node's
// pattern or the other end's stored transmit pattern lies outside 0..3 there is no such round:
// the score is 0.0, no evidence for or against the pattern, and the block is not read.
float zunta_compute_rx_score(trained_mesh_pair* tp, int32_t pattern, int32_t side) {
  if (tp == nullptr || tp->txcs == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair\n");
    return 0.0f;
  }
  const bool left = side == PAIR_SIDE_LEFT;
  const int32_t other_tx = left ? tp->right_tx_pattern : tp->left_tx_pattern;
  if (!zunta_pattern_valid(pattern) || !zunta_pattern_valid(other_tx)) {
    ZLOG(COMP_TR, LVL_I, "mesh_pair: %s-%s - no round for patterns %d and %d, score 0\n", tp->left_mac,
         tp->right_mac, pattern, other_tx);
    return 0.0f;
  }
  const int32_t k = left ? zunta_get_double_pattern_index(pattern, other_tx)
                         : zunta_get_double_pattern_index(other_tx, pattern);
  const txcs_record& round = tp->txcs->rounds[k];
  const txcs_record& bench = tp->txcs->rounds[BENCHMARK_ROUND];
  const float ath_bitrate = left ? round.right_avg_bitrate_ma : round.left_avg_bitrate_ma;
  const float bench_bitrate = left ? bench.right_avg_bitrate_ma : bench.left_avg_bitrate_ma;
  const float delta = ath_bitrate - bench_bitrate;
  ZLOG(COMP_TR, LVL_I, "mesh_pair: %s-%s - tag: %s\n", tp->left_mac, tp->right_mac, left ? "LEFT" : "RIGHT");
  ZLOG(COMP_TR, LVL_I, "ath_bitrate = %4.1f - bench_bitrate = %4.1f \n", static_cast<double>(ath_bitrate),
       static_cast<double>(bench_bitrate));
  ZLOG(COMP_TR, LVL_I, "delta = %4.1f\n", static_cast<double>(delta));
  return delta;
}
