// The training schedule: retrain when the clock enters the start hour, then every period.
#ifndef ZUNTA_COORDINATOR_SCHEDULE_H_
#define ZUNTA_COORDINATOR_SCHEDULE_H_

#include <cstdint>

struct options;

// training_state values, shared with the control cycle.
constexpr int32_t TRAINING_STATE_FIRST_PENDING = 0;
constexpr int32_t TRAINING_STATE_FIRST_DONE = 1;
constexpr int32_t TRAINING_STATE_PERIODIC = 2;

// Reads the local time and decides. 0 when retraining is due now, -1 when not.
int zunta_check_training_time(int32_t* last_hour, int32_t* period_base_minute, const options* opts,
                              int32_t* training_state);

// The decision itself for a given hour and minute, so it can be tried on any time of day.
int zunta_training_time_decision(int32_t hour, int32_t minute, int32_t* last_hour,
                                 int32_t* period_base_minute, const options* opts, int32_t* training_state);

#endif  // ZUNTA_COORDINATOR_SCHEDULE_H_
