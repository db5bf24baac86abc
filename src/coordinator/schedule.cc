// The training schedule: the start-hour trigger, the periodic trigger and the memory they keep
// between checks.
#include "coordinator/schedule.h"

#include <cstdio>

#include "coordinator/options.h"
#include "core/clock.h"
#include "core/log.h"

namespace {

void log_schedule(const options* opts) {
  ZLOG(COMP_CORE, LVL_I, "Start training hour - Training frequency (H:%d M:%d)\n", opts->training_start_hour,
       opts->training_frequency_minutes);
}

// The clock has just entered the start hour. With a period configured, periodic retraining is
// armed from this minute on.
bool start_hour_trigger(int32_t hour, int32_t minute, const int32_t* last_hour, int32_t* period_base_minute,
                        const options* opts, int32_t* training_state) {
  if (*last_hour == opts->training_start_hour || hour != opts->training_start_hour) return false;
  ZLOG(COMP_CORE, LVL_I, "Start training at (H:%d M:%d) -> retrain!\n", hour, minute);
  ZLOG(COMP_CORE, LVL_I, "Training triggered by configured start hour\n");
  log_schedule(opts);
  if (opts->training_frequency_minutes > 0) {
    *training_state = TRAINING_STATE_PERIODIC;
    *period_base_minute = minute;
  }
  return true;
}

// Only the minute within the hour counts. The remainder truncates toward zero, so minutes before
// the base minute never match; a period set to 0 after arming leaves only the base minute.
bool periodic_trigger(int32_t hour, int32_t minute, int32_t period_base_minute, const options* opts) {
  int32_t elapsed = minute - period_base_minute;
  int32_t frequency = opts->training_frequency_minutes;
  int32_t remainder = frequency != 0 ? elapsed % frequency : elapsed;
  if (remainder != 0) return false;
  ZLOG(COMP_CORE, LVL_I, "Start training at (H:%d M:%d) -> retrain!\n", hour, minute);
  ZLOG(COMP_CORE, LVL_I, "Training triggered by periodicity\n");
  log_schedule(opts);
  return true;
}

}  // namespace

int zunta_check_training_time(int32_t* last_hour, int32_t* period_base_minute, const options* opts,
                              int32_t* training_state) {
  ZLOG(COMP_CORE, LVL_I, ">>>>>>>>>>>>>>> %s\n", "zunta_check_training_time");
  char now[TIME_TEXT_SIZE];
  print_systime(now);
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (std::sscanf(now, "%d:%d:%d", &hour, &minute, &second) < 3) return -1;
  return zunta_training_time_decision(hour, minute, last_hour, period_base_minute, opts, training_state);
}

int zunta_training_time_decision(int32_t hour, int32_t minute, int32_t* last_hour,
                                 int32_t* period_base_minute, const options* opts, int32_t* training_state) {
  if (last_hour == nullptr || period_base_minute == nullptr || opts == nullptr || training_state == nullptr) {
    ZLOG_AS("zunta_check_training_time", COMP_CORE, LVL_E, "NULL pointer exception for options\n");
    return -1;
  }
  if (*training_state == TRAINING_STATE_FIRST_PENDING) {
    *last_hour = hour;
    ZLOG(COMP_CORE, LVL_I, "First Training not done!\n");
    return -1;
  }
  if ((opts->training_start_hour != 0 || opts->training_frequency_minutes != 0) &&
      hour != opts->training_start_hour && *training_state == TRAINING_STATE_FIRST_DONE) {
    // The hour is kept here as well: otherwise last_hour would still hold yesterday's start hour
    // when the clock comes round to it again, and with no period the daily retraining would
    // happen only once.
    *last_hour = hour;
    ZLOG(COMP_CORE, LVL_I, "Training start hour not reached\n");
    log_schedule(opts);
    return -1;
  }
  int result = -1;
  if (start_hour_trigger(hour, minute, last_hour, period_base_minute, opts, training_state)) result = 0;
  if (*training_state == TRAINING_STATE_PERIODIC &&
      periodic_trigger(hour, minute, *period_base_minute, opts)) {
    result = 0;
  }
  *last_hour = hour;
  return result;
}
