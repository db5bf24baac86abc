// The steps of one pair's training, shared by one-at-a-time training and training several pairs
// at once, so that everything belonging to a pair is made the same way in both.
#ifndef ZUNTA_TRAINING_PAIR_ROUND_H_
#define ZUNTA_TRAINING_PAIR_ROUND_H_

#include <cstdint>

struct mesh_pair;

// The best round seen so far in one run; its patterns go to the agents as fallbacks.
struct best_round {
  float score;
  int32_t left;
  int32_t right;
};
constexpr best_round NO_BEST_ROUND = {-1.0f, 0, 0};

// Checks the pair and logs its opening lines. False (error line, nothing to send) for a pair
// without block or whose txcs_count is not 0.
bool zunta_mp_training_begins(mesh_pair* mp);
// The line opening round (left, right) of the pair.
void zunta_mp_training_round_begins(const mesh_pair* mp, int32_t left, int32_t right);
// Logs the round's sums and progress, keeps the round when it is the best so far, and moves the
// pair on to its next round record.
void zunta_mp_training_round_ends(mesh_pair* mp, best_round& best);
// Marks the pair trained and prints its training table.
void zunta_mp_training_ends(mesh_pair* mp, const best_round& best);

#endif  // ZUNTA_TRAINING_PAIR_ROUND_H_
