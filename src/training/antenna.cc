// Application of antenna patterns to the two ends of a pair: the trained transmit patterns, the
// default pattern, or patterns given by hand. The left end is always told about the right MAC
// and the right end about the left MAC.
#include <cstring>

#include "core/log.h"
#include "meshpair/meshpair.h"
#include "registry/unanswering.h"
#include "training/training.h"

void zunta_set_best_antenna_pattern(trained_mesh_pair* tp, char (&buffer)[COMMAND_SIZE]) {
  if (tp == nullptr) {
    ZLOG(COMP_ANT, LVL_E, "NULL pointer exception for mesh pair\n");
    return;
  }
  // Patterns trained on another radio, or outside 0..3, are no choice at all: the nodes keep what
  // they have rather than be told a pattern that no measurement supports.
  if (tp->radioidx != TRAINING_RADIO_INDEX) {
    ZLOG(COMP_ANT, LVL_I, "Mesh pair %s was not trained on the 6GHz radio, no pattern set\n", tp->meshkey);
    return;
  }
  if (!zunta_pattern_valid(tp->left_tx_pattern) || !zunta_pattern_valid(tp->right_tx_pattern)) {
    ZLOG(COMP_ANT, LVL_I, "Mesh pair %s has no valid pattern (%d-%d), no pattern set\n", tp->meshkey,
         tp->left_tx_pattern, tp->right_tx_pattern);
    return;
  }
  // The right end is served even when the left one cannot be reached. A node that stopped a pair
  // of this cycle's parallel training is not asked again before the next discovery.
  if (!zunta_agent_unanswering(tp->left_ip, AGENT_FAILED_TRAINING) &&
      zunta_set_pattern_tx(buffer, tp->left_ip, tp->right_mac, tp->left_tx_pattern) != 0)
    ZLOG(COMP_ANT, LVL_E, "Error while setting the pattern\n");
  if (!zunta_agent_unanswering(tp->right_ip, AGENT_FAILED_TRAINING) &&
      zunta_set_pattern_tx(buffer, tp->right_ip, tp->left_mac, tp->right_tx_pattern) != 0)
    ZLOG(COMP_ANT, LVL_E, "Error while setting the pattern\n");
}

void zunta_set_default_antenna_pattern(mesh_pair* mp) {
  if (mp == nullptr) {
    ZLOG(COMP_ANT, LVL_E, "NULL pointer exception for mesh_pair\n");
    return;
  }
  ZLOG(COMP_ANT, LVL_I, "smart antenna entered disabled state for 6GHz radio\n");
  // A buffer of its own, cleared before each command, so no earlier command line trails behind.
  char buffer[COMMAND_SIZE];
  std::memset(buffer, 0, sizeof buffer);
  zunta_set_pattern(buffer, mp->left_ip, mp->right_mac, DEFAULT_PATTERN);
  std::memset(buffer, 0, sizeof buffer);
  zunta_set_pattern(buffer, mp->right_ip, mp->left_mac, DEFAULT_PATTERN);
  ZLOG(COMP_ANT, LVL_I, "Radio 6GHz - Set pattern index %d to %s\n", DEFAULT_PATTERN, mp->left_ip);
  ZLOG(COMP_ANT, LVL_I, "Radio 6GHz - Set pattern index %d to %s\n", DEFAULT_PATTERN, mp->right_ip);
}

// The values go out as given: patterns set by hand are the operator's choice.
void zunta_set_manual_antenna_pattern(mesh_pair* mp, char (&buffer)[COMMAND_SIZE], int32_t left_pattern,
                                      int32_t right_pattern) {
  if (mp == nullptr) {
    ZLOG(COMP_ANT, LVL_E, "NULL pointer exception for mesh pair\n");
    return;
  }
  ZLOG(COMP_ANT, LVL_I, "smart antenna entered disabled state for 6GHz radio\n");
  zunta_set_pattern(buffer, mp->left_ip, mp->right_mac, left_pattern);
  zunta_set_pattern(buffer, mp->right_ip, mp->left_mac, right_pattern);
  ZLOG(COMP_ANT, LVL_I, "Radio 6GHz - Set manual pattern index %d to %s\n", left_pattern, mp->left_ip);
  ZLOG(COMP_ANT, LVL_I, "Radio 6GHz - Set manual pattern index %d to %s\n", right_pattern, mp->right_ip);
}
