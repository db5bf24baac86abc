// What the control cycle keeps for the life of the program, shared by the cycle and the
// command-line options it obeys.
#ifndef ZUNTA_COORDINATOR_CYCLE_STATE_H_
#define ZUNTA_COORDINATOR_CYCLE_STATE_H_

#include <cstdint>

struct options;
struct training_memory;

struct cycle_state {
  int argc;
  char** argv;
  options* opts;
  int32_t new_broadcast;     // a discovery request went out in this cycle
  uint8_t new_mesh_pair;     // generation added a mesh pair
  uint8_t topology_changed;  // the topology check saw the mesh pairs change
  uint8_t rx_update;         // the receive antennas must be recomputed
  uint8_t training_needed;   // a training pass is wanted
  uint8_t topology_check;    // option -e
  int32_t training_state;    // shared with the schedule
  int32_t interval;          // measurement interval of option -3, seconds
  training_memory* memory;   // read at start-up, owned until the first mesh pairs recall it
};

enum class cycle_next { go_on, exit_path };

// Start-up check of the first argument: false (with an error line) when option -2 lacks its two
// integer patterns.
bool zunta_command_line_valid(const cycle_state* s);

// True when the first argument leaves the daemon in the control cycle (none, -e, or one it ignores).
bool zunta_command_line_runs_cycle(const cycle_state* s);

// Obeys the first command-line argument; tells whether the cycle goes on or exits.
cycle_next zunta_apply_command_line(cycle_state* s);

// Selects the best transmit patterns of every trained pair, the receive patterns when rx_update is
// set, and applies the transmit patterns.
void zunta_select_and_apply_patterns(cycle_state* s);

// With parallel_training: trains every mesh pair (`every`, option -1) or every pair not trained yet,
// several at once, and keeps each trained one as a trained pair, in list order, as one pair after
// the other would; a stopped pair is kept by none. False, with nothing trained, when memory for the
// pass is short.
bool zunta_train_in_parallel(cycle_state* s, bool every);

// Applies the transmit patterns of every trained pair and logs each.
void zunta_apply_trained_patterns();

#endif  // ZUNTA_COORDINATOR_CYCLE_STATE_H_
