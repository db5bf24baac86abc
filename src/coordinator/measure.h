// The bitrate measurement mode: measures every mesh pair with the patterns in force, for ever.
#ifndef ZUNTA_COORDINATOR_MEASURE_H_
#define ZUNTA_COORDINATOR_MEASURE_H_

#include <cstdint>

struct coordinator;

constexpr int32_t MEASURE_DEFAULT_INTERVAL_S = 6;

// One pass over the mesh pairs: measure each for `interval` seconds and print its row, with a
// header whenever *row_counter is a multiple of 10. With no mesh pair the pass waits one interval.
void zunta_mp_measure_pass(struct coordinator* coordinator, int32_t interval, int32_t* row_counter);

// Never returns. An interval of 0 or less is replaced by 6 with a warning.
[[noreturn]] void zunta_mp_measure(struct coordinator* coordinator, int32_t interval);

#endif  // ZUNTA_COORDINATOR_MEASURE_H_
