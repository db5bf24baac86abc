// The first command-line argument, obeyed in every cycle after the topology step. Only the first
// argument counts and options cannot be combined.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "commander/transport.h"
#include "coordinator/coordinator.h"
#include "coordinator/cycle_state.h"
#include "coordinator/measure.h"
#include "coordinator/options.h"
#include "coordinator/snapshot.h"
#include "coordinator/training_memory.h"
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "training/pass.h"
#include "training/training.h"

namespace {

// A whole argument as a decimal 32-bit integer.
bool parse_pattern(const char* text, int32_t* value) {
  char* end = nullptr;
  errno = 0;
  long parsed = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || parsed < INT32_MIN || parsed > INT32_MAX) return false;
  *value = static_cast<int32_t>(parsed);
  return true;
}

cycle_next enable_topology_check(cycle_state* s) {
  s->topology_check = 1;
  ZLOG(COMP_CORE, LVL_I, "Enable topology check\n");
  return cycle_next::go_on;
}

cycle_next set_default_patterns(cycle_state* /*s*/) {
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    zunta_set_default_antenna_pattern(mp);
  }
  ZLOG(COMP_CORE, LVL_I, "Smart antenna disabled. Default pattern set by option -0\n");
  return cycle_next::exit_path;
}

// Every mesh pair, whatever its trained flag, one after the other; each trained one is kept as a
// trained pair.
void train_every_pair(cycle_state* s) {
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    ZLOG(COMP_CORE, LVL_I, "************************MeshPair %s starts training************************\n",
         mp->meshkey);
    print_systime(coordinator->last_training);
    zunta_pass_pair_begins(mp);
    zunta_mp_training(mp, command);
    zunta_pass_pair_ends(mp, mp->trained != 1);
    ZLOG(COMP_CORE, LVL_I, "************************MeshPair %s ends training************************\n",
         mp->meshkey);
    mp->txcs_count = 0;
    s->rx_update = 1;
    // A run that was refused measured nothing and leaves the pair untrained: it gets no trained
    // copy, whose patterns would come from an empty block.
    if (mp->trained == 1) zunta_trained_mesh_pair_add(coordinator, mp);
  }
}

// Trains every mesh pair once, whatever its trained flag, applies the result and exits.
cycle_next train_once(cycle_state* s) {
  ZLOG(COMP_CORE, LVL_U, "Training triggered by argument\n");
  s->rx_update = 0;
  zunta_pass_begin(coordinator->mesh_pair_count, s->opts->parallel_training != 0);
  if (!s->opts->parallel_training || !zunta_train_in_parallel(s, true)) train_every_pair(s);
  zunta_select_and_apply_patterns(s);
  zunta_pass_end();
  zunta_snapshot_info(coordinator, s->opts);
  zunta_training_memory_save(s->opts->training_memory, coordinator);
  ZLOG(COMP_CORE, LVL_U, "Training ends\n");
  s->training_needed = 0;
  return cycle_next::exit_path;
}

// The two patterns were checked at start-up (zunta_command_line_valid).
cycle_next set_manual_patterns(cycle_state* s) {
  int32_t left = 0;
  int32_t right = 0;
  parse_pattern(s->argv[2], &left);
  parse_pattern(s->argv[3], &right);
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    zunta_set_manual_antenna_pattern(mp, command, left, right);
    zunta_start_dump(command, mp->left_ip, mp->right_mac);
    zunta_start_dump(command, mp->right_ip, mp->left_mac);
  }
  ZLOG(COMP_CORE, LVL_U, "Smart antenna disabled. Manual Pattern set by argument, %d-%d\n", left, right);
  return cycle_next::exit_path;
}

// The interval is taken only when exactly one argument follows the option; the measurement mode
// itself replaces a value that is not a positive number.
cycle_next measure(cycle_state* s) {
  s->interval = MEASURE_DEFAULT_INTERVAL_S;
  if (s->argc == 3) s->interval = std::atoi(s->argv[2]);
  ZLOG(COMP_CORE, LVL_U, "Measuring bitrate (interval = %d sec)...\n", s->interval);
  zunta_mp_measure(coordinator, s->interval);
}

struct command_line_option {
  const char* text;
  cycle_next (*apply)(cycle_state* s);
};

constexpr command_line_option COMMAND_LINE_OPTIONS[] = {
    {"-e", enable_topology_check},
    {"-0", set_default_patterns},
    {"-1", train_once},
    {"-2", set_manual_patterns},
    {"-3", measure},
};

}  // namespace

// Option -2 reads the two arguments after it. They are checked before anything is sent, so an
// incomplete command line never reaches the nodes: the program says what is missing and exits.
bool zunta_command_line_valid(const cycle_state* s) {
  if (s->argc < 2 || std::strcmp(s->argv[1], "-2") != 0) return true;
  int32_t value = 0;
  if (s->argc >= 4 && parse_pattern(s->argv[2], &value) && parse_pattern(s->argv[3], &value)) return true;
  ZLOG_AS("main", COMP_CORE, LVL_E, "Option -2 needs two integer patterns: -2 <left> <right>\n");
  return false;
}

bool zunta_command_line_runs_cycle(const cycle_state* s) {
  if (s->argc < 2) return true;
  for (const command_line_option& option : COMMAND_LINE_OPTIONS) {
    if (std::strcmp(s->argv[1], option.text) == 0) return option.apply == enable_topology_check;
  }
  return true;
}

cycle_next zunta_apply_command_line(cycle_state* s) {
  for (const command_line_option& option : COMMAND_LINE_OPTIONS) {
    if (std::strcmp(s->argv[1], option.text) == 0) return option.apply(s);
  }
  return cycle_next::go_on;
}
