// Recall of the training memory: remembered pairs among the first mesh pairs found after start-up
// are taken as trained, as if their training had just ended with the remembered results.
#include <ctime>

#include "coordinator/coordinator.h"
#include "coordinator/training_memory.h"
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "training/training.h"

namespace {

const remembered_pair* find_remembered(const training_memory* memory, const char* meshkey) {
  for (int32_t i = 0; i < memory->pair_count; ++i) {
    if (zunta_text_equal(memory->pairs[i].meshkey, meshkey, MESHKEY_TEXT_SIZE)) return &memory->pairs[i];
  }
  return nullptr;
}

// The pair's block takes the remembered rounds, as a training would have filled it, and its trained
// copy the remembered patterns and time. The current addresses of the two ends are kept: a node is
// known by its MAC.
bool recall_pair(struct coordinator* c, mesh_pair* mp, const remembered_pair& rp) {
  if (mp->txcs == nullptr) return false;
  *mp->txcs = rp.txcs;
  if (zunta_trained_mesh_pair_add(c, mp) != 0) return false;
  trained_mesh_pair* tp = sa_list_entry(c->trained_mesh_pair_list.next, trained_mesh_pair, list);
  tp->radioidx = TRAINING_RADIO_INDEX;
  tp->left_tx_pattern = rp.left_tx_pattern;
  tp->right_tx_pattern = rp.right_tx_pattern;
  tp->trained_at = rp.trained_at;
  mp->trained = 1;
  return true;
}

void set_last_training(struct coordinator* c, int64_t seconds) {
  const auto when = static_cast<time_t>(seconds);
  tm local{};
  if (localtime_r(&when, &local) == nullptr ||
      strftime(c->last_training, sizeof c->last_training, "%H:%M:%S", &local) == 0) {
    c->last_training[0] = '\0';
  }
}

}  // namespace

int32_t zunta_training_memory_recall(struct coordinator* c, const training_memory* memory,
                                     int32_t* left_to_train) {
  if (left_to_train != nullptr) *left_to_train = 0;
  if (c == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return 0;
  }
  int32_t recalled = 0;
  int32_t untrained = 0;
  int64_t newest = -1;
  sa_list_for_each_entry(mp, &c->mesh_pair_list, mesh_pair, list) {
    if (mp->trained == 1) continue;
    const remembered_pair* rp = memory != nullptr ? find_remembered(memory, mp->meshkey) : nullptr;
    if (rp == nullptr || !recall_pair(c, mp, *rp)) {
      ++untrained;
      continue;
    }
    ZLOG(COMP_CORE, LVL_I, "MeshPair %s recalled\n", mp->meshkey);
    if (rp->trained_at > newest) newest = rp->trained_at;
    ++recalled;
  }
  if (newest >= 0) set_last_training(c, newest);
  if (left_to_train != nullptr) *left_to_train = untrained;
  return recalled;
}
