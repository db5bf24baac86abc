// Training of a group of pairs in lock-step: the pairs' rounds share their pauses, and the
// exchanges of one step go to all pairs at once.
#include <cstdlib>
#include <memory>

#include "commander/catalogue.h"
#include "core/log.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "training/pair_round.h"
#include "training/training.h"

namespace {

// One pair of the group and what its run keeps from round to round.
struct pair_run {
  mesh_pair* mp;
  best_round best;
  char left_fallback[IP_TEXT_SIZE];
  char right_fallback[IP_TEXT_SIZE];
};

struct free_deleter {
  void operator()(void* p) const { std::free(p); }
};

// The commands a pair sends before the pause, in its order, with the line a failure logs.
enum before_pause_step { LEFT_PATTERN, RIGHT_PATTERN, LEFT_DUMP, RIGHT_DUMP, LEFT_START, RIGHT_START };
constexpr before_pause_step BEFORE_PAUSE[] = {LEFT_PATTERN, RIGHT_PATTERN, LEFT_DUMP,
                                              RIGHT_DUMP,   LEFT_START,    RIGHT_START};

void prepare(zunta_command_job* job, pair_run& run, before_pause_step step, int32_t left, int32_t right) {
  const mesh_pair* mp = run.mp;
  switch (step) {
    case LEFT_PATTERN:
      zunta_format_fallback(run.left_fallback, run.best.left, FALLBACK_M);
      zunta_job_set_pattern_with_fallback(job, mp->left_ip, mp->right_mac, pattern_indeces[left],
                                          run.left_fallback);
      break;
    case RIGHT_PATTERN:
      zunta_format_fallback(run.right_fallback, run.best.right, FALLBACK_M);
      zunta_job_set_pattern_with_fallback(job, mp->right_ip, mp->left_mac, pattern_indeces[right],
                                          run.right_fallback);
      break;
    case LEFT_DUMP:
      zunta_job_start_dump(job, mp->left_ip, mp->right_mac);
      break;
    case RIGHT_DUMP:
      zunta_job_start_dump(job, mp->right_ip, mp->left_mac);
      break;
    case LEFT_START:
      zunta_job_start_training(job, mp->left_ip, mp->right_ip);
      break;
    case RIGHT_START:
      zunta_job_start_training(job, mp->right_ip, mp->left_ip);
      break;
  }
}

// The pair's failure lines are those of one-at-a-time training and name its procedure.
void report_failure(before_pause_step step) {
  switch (step) {
    case LEFT_PATTERN:
    case RIGHT_PATTERN:
      ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while setting the pattern\n");
      break;
    case LEFT_DUMP:
    case RIGHT_DUMP:
      ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while starting the dump\n");
      break;
    case LEFT_START:
    case RIGHT_START:
      ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while start training\n");
      break;
  }
}

void run_round(pair_run* runs, int32_t count, zunta_command_job* jobs, int32_t left, int32_t right) {
  for (int32_t i = 0; i < count; ++i)
    zunta_mp_training_round_begins(runs[i].mp, left, right);
  for (before_pause_step step : BEFORE_PAUSE) {
    for (int32_t i = 0; i < count; ++i)
      prepare(&jobs[i], runs[i], step, left, right);
    zunta_make_and_send_commands(jobs, static_cast<std::size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
      if (jobs[i].result != 0) report_failure(step);
    }
  }
  zunta_pause_us(TRAINING_ROUND_PAUSE_US);
  // Command 5 to the left ends, then to the right ends; each answer is recorded as if the pair's
  // exchange had gone alone.
  for (int32_t side = PAIR_SIDE_LEFT; side <= PAIR_SIDE_RIGHT; ++side) {
    for (int32_t i = 0; i < count; ++i)
      zunta_job_stop_training(&jobs[i], side == PAIR_SIDE_LEFT ? runs[i].mp->left_ip : runs[i].mp->right_ip);
    zunta_make_and_send_commands(jobs, static_cast<std::size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
      mesh_pair* mp = runs[i].mp;
      const bool left_end = side == PAIR_SIDE_LEFT;
      if (zunta_record_stop_training(mp, left_end ? mp->right_mac : mp->left_mac,
                                     left_end ? mp->left_mac : mp->right_mac, jobs[i].ip, jobs[i].answer,
                                     jobs[i].result) != 0)
        ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while stop training\n");
    }
  }
  for (int32_t i = 0; i < count; ++i)
    zunta_mp_training_round_ends(runs[i].mp, runs[i].best);
}

}  // namespace

void zunta_mp_group_training(mesh_pair* const* pairs, int32_t count, char (&buffer)[COMMAND_SIZE]) {
  if (pairs == nullptr || count <= 0) return;
  std::unique_ptr<pair_run[], free_deleter> runs(
      static_cast<pair_run*>(std::calloc(count, sizeof(pair_run))));
  std::unique_ptr<zunta_command_job[], free_deleter> jobs(
      static_cast<zunta_command_job*>(std::calloc(count, sizeof(zunta_command_job))));
  if (!runs || !jobs) {
    ZLOG(COMP_TR, LVL_E, "Memory allocation error for a training group: its pairs train one by one\n");
    for (int32_t i = 0; i < count; ++i)
      zunta_mp_training(pairs[i], buffer);
    return;
  }
  // A refused pair is left out of every later step.
  int32_t active = 0;
  for (int32_t i = 0; i < count; ++i) {
    if (!zunta_mp_training_begins(pairs[i])) continue;
    runs[active].mp = pairs[i];
    runs[active].best = NO_BEST_ROUND;
    ++active;
  }
  if (active == 0) return;
  for (int32_t right = 0; right < PATTERN_COUNT; ++right) {
    for (int32_t left = 0; left < PATTERN_COUNT; ++left)
      run_round(runs.get(), active, jobs.get(), left, right);
  }
  for (int32_t i = 0; i < active; ++i)
    zunta_mp_training_ends(runs[i].mp, runs[i].best);
}
