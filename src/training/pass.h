// How far the training pass under way has come, for the status documents: the control cycle opens
// and closes a pass, and both ways of training (one pair at a time, several at once) report each
// pair as it starts and ends.
#ifndef ZUNTA_TRAINING_PASS_H_
#define ZUNTA_TRAINING_PASS_H_

#include <cstdint>

#include "core/text.h"

struct mesh_pair;

struct training_pass {
  uint8_t running;     // a pass is under way
  uint8_t parallel;    // its pairs train several at once
  int32_t to_train;    // pairs the pass set out to train
  int32_t trained;     // pairs that finished their sixteen rounds
  int32_t stopped;     // pairs given up for a node that did not answer
  int32_t training;    // pairs measuring right now
  int64_t started_at;  // wall-clock seconds at the start of the pass (0 before the first)
  int64_t ended_at;    // wall-clock seconds at the end of the last pass (0 while none ended)
  int64_t started_ms;  // monotonic milliseconds at the start, for estimates
};

// Opens a pass of `to_train` pairs.
void zunta_pass_begin(int32_t to_train, bool parallel);
void zunta_pass_pair_begins(const mesh_pair* mp);
// The pair ended: trained (its rounds completed) or stopped (given up; not kept as trained).
void zunta_pass_pair_ends(const mesh_pair* mp, bool stopped);
void zunta_pass_end();
// The pass under way or, between passes, the last one.
const training_pass* zunta_pass_state();

// Pairs a pass gave up on because a node did not answer, kept (across registry rebuilds) until the
// pair completes a training. At most STOPPED_PAIRS_MAX are remembered; later ones are not shown.
constexpr int32_t STOPPED_PAIRS_MAX = 4096;
// Notes that the pair was stopped for the node at node_ip with node_mac (replaces an earlier note).
void zunta_pass_note_stopped(const char* meshkey, const char* node_ip, const char* node_mac);
// Forgets the pair's note; called when the pair completes a training.
void zunta_pass_forget_stopped(const char* meshkey);
// True, with the node that did not answer, when the pair's last pass stopped it.
bool zunta_pass_stopped_pair(const char* meshkey, char (&node_ip)[IP_TEXT_SIZE],
                             char (&node_mac)[MAC_TEXT_SIZE]);

#endif  // ZUNTA_TRAINING_PASS_H_
