// Training of many pairs at once. Each pair is a small machine that runs its sixteen rounds as
// one-at-a-time training does (the same commands in the same order, its own pause, the same
// evaluation); one event loop drives the exchanges of every training pair, so no pair ever waits
// for another's agents. Pairs start when pair_turns says: once no training pair is within two hops.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commander/catalogue.h"
#include "core/clock.h"
#include "core/heap.h"
#include "core/log.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "registry/unanswering.h"
#include "training/neighbourhood.h"
#include "training/pair_round.h"
#include "training/pass.h"
#include "training/training.h"

namespace {

// The steps of one round: the six commands before the pause, the pause, the two results.
enum round_step : int32_t {
  LEFT_PATTERN,
  RIGHT_PATTERN,
  LEFT_DUMP,
  RIGHT_DUMP,
  LEFT_START,
  RIGHT_START,
  PAUSE,
  LEFT_RESULT,
  RIGHT_RESULT,
  ROUND_DONE,
};

enum pair_stage : uint8_t { WAITING, TRAINING, FINISHED };

struct pair_run {
  mesh_pair* mp;
  uint8_t stage;
  int32_t round;  // left pattern index round % 4, right round / 4
  int32_t step;
  int64_t pause_ends_us;
  best_round best;
  char left_fallback[IP_TEXT_SIZE];
  char right_fallback[IP_TEXT_SIZE];
  zunta_command_job* job;  // the pair's exchange, from its start to its end
  bool busy;               // the job has not had its result taken
  int64_t started_us;
};

// A guess of the time a round spends beyond its pause (eight exchanges), until pairs have
// trained and their mean is known.
constexpr int64_t ROUND_EXCHANGES_GUESS_US = 150000;

bool left_side(int32_t step) {
  return step == LEFT_PATTERN || step == LEFT_DUMP || step == LEFT_START || step == LEFT_RESULT;
}

void prepare(pair_run& run) {
  const mesh_pair* mp = run.mp;
  zunta_command_job* job = run.job;
  switch (run.step) {
    case LEFT_PATTERN:
      zunta_format_fallback(run.left_fallback, run.best.left, FALLBACK_M);
      return zunta_job_set_pattern_with_fallback(
          job, mp->left_ip, mp->right_mac, pattern_indeces[run.round % PATTERN_COUNT], run.left_fallback);
    case RIGHT_PATTERN:
      zunta_format_fallback(run.right_fallback, run.best.right, FALLBACK_M);
      return zunta_job_set_pattern_with_fallback(
          job, mp->right_ip, mp->left_mac, pattern_indeces[run.round / PATTERN_COUNT], run.right_fallback);
    case LEFT_DUMP:
      return zunta_job_start_dump(job, mp->left_ip, mp->right_mac);
    case RIGHT_DUMP:
      return zunta_job_start_dump(job, mp->right_ip, mp->left_mac);
    case LEFT_START:
      return zunta_job_start_training(job, mp->left_ip, mp->right_ip);
    case RIGHT_START:
      return zunta_job_start_training(job, mp->right_ip, mp->left_ip);
    default:
      return zunta_job_stop_training(job, left_side(run.step) ? mp->left_ip : mp->right_ip);
  }
}

// The pair's failure lines are those of one-at-a-time training and name its procedure.
void report_failure(int32_t step) {
  if (step == LEFT_PATTERN || step == RIGHT_PATTERN) {
    ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while setting the pattern\n");
  } else if (step == LEFT_DUMP || step == RIGHT_DUMP) {
    ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while starting the dump\n");
  } else if (step == LEFT_START || step == RIGHT_START) {
    ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while start training\n");
  }
}

class parallel_pass {
 public:
  parallel_pass(mesh_pair* const* pairs, int32_t count, char (&last_training)[TIME_TEXT_SIZE])
      : pairs_(pairs), count_(count), last_training_(last_training) {}

  bool prepare(const node_tables* nodes);
  void run();

 private:
  void start_due(int64_t now);
  void start(int32_t p, int64_t now, int32_t still_due);
  void advance(pair_run& run, int64_t now);
  bool take_result(pair_run& run, int64_t now);
  void next_round(pair_run& run, int64_t now);
  void stop(pair_run& run);
  void finish(pair_run& run, bool stopped);
  int64_t collect_jobs(int32_t* active);

  mesh_pair* const* pairs_;
  int32_t count_;
  char (&last_training_)[TIME_TEXT_SIZE];
  pair_turns turns_;
  heap_array<pair_run> runs_;
  heap_array<int32_t> due_;              // pairs starting now
  heap_array<int32_t> training_;         // the pairs training, in the order they started
  heap_array<zunta_command_job*> jobs_;  // the exchanges under way, for one wait
  int32_t training_count_ = 0;
  int32_t running_ = 0;  // pairs started and not finished
  int32_t trained_ = 0;
  int32_t stopped_ = 0;
  int32_t most_training_ = 0;
  int64_t lasting_us_ = 0;  // how long a pair trains: a guess, then the mean of the trained ones
  int64_t lasted_us_ = 0;   // the trained pairs' durations, summed
  bool freed_ = false;      // a pair ended since the waiting pairs were last looked at
};

bool parallel_pass::prepare(const node_tables* nodes) {
  runs_ = heap_allocate<pair_run>(count_);
  due_ = heap_allocate<int32_t>(count_);
  training_ = heap_allocate<int32_t>(count_);
  jobs_ = heap_allocate<zunta_command_job*>(count_);
  if (!runs_ || !due_ || !training_ || !jobs_ || !turns_.build(nodes, pairs_, count_)) return false;
  for (int32_t p = 0; p < count_; ++p) {
    runs_[p].mp = pairs_[p];
    runs_[p].stage = WAITING;
  }
  lasting_us_ = TXCS_ROUNDS * (zunta_scaled_us(TRAINING_ROUND_PAUSE_US) + ROUND_EXCHANGES_GUESS_US);
  return true;
}

void parallel_pass::start_due(int64_t now) {
  const int32_t due = turns_.start_due(now, lasting_us_, due_.get());
  for (int32_t i = 0; i < due; ++i)
    start(due_[i], now, due - i - 1);
  freed_ = false;
}

// `still_due` pairs start right after this one; until then they count as waiting.
void parallel_pass::start(int32_t p, int64_t now, int32_t still_due) {
  pair_run& run = runs_[p];
  mesh_pair* mp = run.mp;
  run.job = static_cast<zunta_command_job*>(std::calloc(1, sizeof(zunta_command_job)));
  // Without memory for its exchange the pair waits for one that another pair gives back; with none
  // training it is left untrained for this pass.
  if (run.job == nullptr && training_count_ > 0) return turns_.end(p, true);
  ZLOG(COMP_CORE, LVL_I, "MeshPair %s starts training\n", mp->meshkey);
  print_systime(last_training_);
  zunta_pass_pair_begins(mp);
  run.stage = TRAINING;
  run.started_us = now;
  ++running_;
  training_[training_count_++] = p;
  if (training_count_ > most_training_) most_training_ = training_count_;
  if (run.job == nullptr) {
    ZLOG(COMP_TR, LVL_E, "Memory allocation error for the training of %s: not trained in this pass\n",
         mp->meshkey);
    return finish(run, true);
  }
  if (!zunta_mp_training_begins(mp)) return finish(run, true);
  run.best = NO_BEST_ROUND;
  ZLOG(COMP_CORE, LVL_U, "Mesh pair %s starts training: %d training, %d waiting\n", mp->meshkey, running_,
       turns_.waiting() + still_due);
  zunta_mp_training_round_begins(mp, 0, 0);
  advance(run, now);
}

// Runs the pair's steps until one has to wait: for its exchange, or for the end of its pause.
void parallel_pass::advance(pair_run& run, int64_t now) {
  while (run.stage == TRAINING) {
    if (run.busy) {
      if (!zunta_job_done(run.job)) return;
      run.busy = false;
      if (!take_result(run, now)) return;
    }
    if (run.step == PAUSE) {
      if (now < run.pause_ends_us) return;
      run.step = LEFT_RESULT;
    }
    if (run.step == ROUND_DONE) {
      next_round(run, now);
      continue;
    }
    ::prepare(run);
    zunta_job_begin(run.job);
    run.busy = true;
  }
}

// The pair's exchange has its result. False when the pair stopped for it.
bool parallel_pass::take_result(pair_run& run, int64_t now) {
  zunta_command_job& job = *run.job;
  if (job.result != 0) {
    report_failure(run.step);
    stop(run);
    return false;
  }
  if (run.step == LEFT_RESULT || run.step == RIGHT_RESULT) {
    mesh_pair* mp = run.mp;
    const bool left = run.step == LEFT_RESULT;
    if (zunta_record_stop_training(mp, left ? mp->right_mac : mp->left_mac,
                                   left ? mp->left_mac : mp->right_mac, job.ip, job.answer, job.result) != 0)
      ZLOG_AS("zunta_mp_training", COMP_TR, LVL_E, "Error while stop training\n");
  }
  // The pause runs from the moment the pair's own commands before it are done.
  if (++run.step == PAUSE) run.pause_ends_us = now + zunta_scaled_us(TRAINING_ROUND_PAUSE_US);
  return true;
}

void parallel_pass::next_round(pair_run& run, int64_t now) {
  zunta_mp_training_round_ends(run.mp, run.best);
  if (++run.round == TXCS_ROUNDS) {
    zunta_mp_training_ends(run.mp, run.best);
    lasted_us_ += now - run.started_us;
    lasting_us_ = lasted_us_ / (trained_ + 1);
    return finish(run, false);
  }
  run.step = LEFT_PATTERN;
  zunta_mp_training_round_begins(run.mp, run.round % PATTERN_COUNT, run.round / PATTERN_COUNT);
}

// A command of the pair is still refused or unanswered after all its repetitions: the pair gives
// up for this pass. What it measured so far is dropped, so nothing half-trained is ever applied,
// and its neighbourhood is free for the others.
void parallel_pass::stop(pair_run& run) {
  mesh_pair* mp = run.mp;
  const bool left = left_side(run.step);
  const char* ip = left ? mp->left_ip : mp->right_ip;
  const char* mac = left ? mp->left_mac : mp->right_mac;
  ZLOG(COMP_CORE, LVL_U, "Training of mesh pair %s stopped: node %s (%s) not answering\n", mp->meshkey, ip,
       mac);
  std::memset(mp->txcs, 0, sizeof *mp->txcs);
  mp->txcs_count = 0;
  mp->trained = 0;
  zunta_pass_note_stopped(mp->meshkey, ip, mac);
  zunta_note_unanswering_agent(ip, run.job->index, AGENT_FAILED_TRAINING);
  finish(run, true);
}

void parallel_pass::finish(pair_run& run, bool stopped) {
  run.stage = FINISHED;
  --running_;
  std::free(run.job);
  run.job = nullptr;
  zunta_pass_pair_ends(run.mp, stopped);
  ZLOG(COMP_CORE, LVL_I, "MeshPair %s ends training\n", run.mp->meshkey);
  if (stopped) {
    ++stopped_;
  } else {
    ++trained_;
    ZLOG(COMP_CORE, LVL_U, "Mesh pair %s trained: %d training, %d waiting\n", run.mp->meshkey, running_,
         turns_.waiting());
  }
  freed_ = true;
}

// The exchanges under way into jobs_; returns the end of the earliest pause.
int64_t parallel_pass::collect_jobs(int32_t* active) {
  int64_t wake = INT64_MAX;
  *active = 0;
  for (int32_t i = 0; i < training_count_; ++i) {
    const pair_run& run = runs_[training_[i]];
    if (run.busy) {
      jobs_[(*active)++] = run.job;
    } else if (run.pause_ends_us < wake) {
      wake = run.pause_ends_us;
    }
  }
  return wake;
}

void parallel_pass::run() {
  start_due(zunta_monotonic_us());
  while (training_count_ > 0) {
    int32_t active = 0;
    const int64_t pause_ends = collect_jobs(&active);
    zunta_jobs_wait(jobs_.get(), static_cast<std::size_t>(active), pause_ends);
    const int64_t now = zunta_monotonic_us();
    int32_t kept = 0;
    for (int32_t i = 0; i < training_count_; ++i) {
      pair_run& run = runs_[training_[i]];
      advance(run, now);
      if (run.stage == FINISHED) {
        turns_.end(training_[i], false);
      } else {
        training_[kept++] = training_[i];
      }
    }
    training_count_ = kept;
    if (freed_) start_due(now);
  }
  ZLOG(COMP_CORE, LVL_U,
       "Parallel training: %d pairs trained, %d stopped, at most %d at once, turns: %d, exchanges in flight "
       "at "
       "most %d\n",
       trained_, stopped_, most_training_, turns_.turns(), zunta_exchanges_in_flight_peak());
}

}  // namespace

bool zunta_mp_parallel_training(const node_tables* nodes, mesh_pair* const* pairs, int32_t count,
                                char (&last_training)[TIME_TEXT_SIZE]) {
  if (pairs == nullptr || count <= 0) return true;
  parallel_pass pass(pairs, count, last_training);
  if (!pass.prepare(nodes)) {
    ZLOG(COMP_TR, LVL_E, "Memory allocation error for parallel training\n");
    return false;
  }
  pass.run();
  return true;
}
