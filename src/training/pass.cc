// The progress of the training pass.
#include "training/pass.h"

#include <sys/time.h>
#include <time.h>

#include <cstdlib>

#include "core/clock.h"
#include "meshpair/meshpair.h"

namespace {

training_pass g_pass = {};

struct stopped_pair {
  char meshkey[MESHKEY_TEXT_SIZE];
  char node_ip[IP_TEXT_SIZE];
  char node_mac[MAC_TEXT_SIZE];
};
// Grown as pairs are stopped, up to STOPPED_PAIRS_MAX; lives for the whole run.
stopped_pair* g_stopped = nullptr;
int32_t g_stopped_count = 0;
int32_t g_stopped_capacity = 0;

int32_t find_stopped(const char* meshkey) {
  for (int32_t i = 0; i < g_stopped_count; ++i) {
    if (zunta_text_equal(g_stopped[i].meshkey, meshkey, MESHKEY_TEXT_SIZE)) return i;
  }
  return -1;
}

int64_t wall_seconds() {
  timeval now{};
  zunta_wall_time(&now);
  return static_cast<int64_t>(now.tv_sec);
}

int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

void zunta_pass_begin(int32_t to_train, bool parallel) {
  const int64_t ended_at = g_pass.ended_at;
  g_pass = training_pass{};
  g_pass.running = 1;
  g_pass.parallel = parallel ? 1 : 0;
  g_pass.to_train = to_train;
  g_pass.started_at = wall_seconds();
  g_pass.ended_at = ended_at;
  g_pass.started_ms = monotonic_ms();
}

void zunta_pass_pair_begins(const mesh_pair*) {
  ++g_pass.training;
}

void zunta_pass_pair_ends(const mesh_pair* mp, bool stopped) {
  if (g_pass.training > 0) --g_pass.training;
  if (stopped) {
    ++g_pass.stopped;
    return;
  }
  ++g_pass.trained;
  if (mp != nullptr) zunta_pass_forget_stopped(mp->meshkey);
}

void zunta_pass_end() {
  g_pass.running = 0;
  g_pass.training = 0;
  g_pass.ended_at = wall_seconds();
}

const training_pass* zunta_pass_state() {
  return &g_pass;
}

void zunta_pass_note_stopped(const char* meshkey, const char* node_ip, const char* node_mac) {
  if (meshkey == nullptr || node_ip == nullptr || node_mac == nullptr) return;
  int32_t i = find_stopped(meshkey);
  if (i < 0) {
    if (g_stopped_count == g_stopped_capacity) {
      if (g_stopped_capacity >= STOPPED_PAIRS_MAX) return;
      int32_t grown = g_stopped_capacity == 0 ? 16 : g_stopped_capacity * 2;
      if (grown > STOPPED_PAIRS_MAX) grown = STOPPED_PAIRS_MAX;
      auto* bigger = static_cast<stopped_pair*>(std::realloc(g_stopped, sizeof(stopped_pair) * grown));
      if (bigger == nullptr) return;
      g_stopped = bigger;
      g_stopped_capacity = grown;
    }
    i = g_stopped_count++;
    zunta_copy_text(g_stopped[i].meshkey, meshkey);
  }
  zunta_copy_text(g_stopped[i].node_ip, node_ip);
  zunta_copy_text(g_stopped[i].node_mac, node_mac);
}

void zunta_pass_forget_stopped(const char* meshkey) {
  const int32_t i = meshkey != nullptr ? find_stopped(meshkey) : -1;
  if (i < 0) return;
  g_stopped[i] = g_stopped[--g_stopped_count];
}

bool zunta_pass_stopped_pair(const char* meshkey, char (&node_ip)[IP_TEXT_SIZE],
                             char (&node_mac)[MAC_TEXT_SIZE]) {
  const int32_t i = meshkey != nullptr ? find_stopped(meshkey) : -1;
  if (i < 0) return false;
  zunta_copy_text(node_ip, g_stopped[i].node_ip);
  zunta_copy_text(node_mac, g_stopped[i].node_mac);
  return true;
}
