// Start-up, the control cycle repeated about once per second, and the exit path.
#include "coordinator/cycle.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commander/transport.h"
#include "coordinator/coordinator.h"
#include "coordinator/cycle_state.h"
#include "coordinator/discovery.h"
#include "coordinator/mesh_definition.h"
#include "coordinator/options.h"
#include "coordinator/schedule.h"
#include "coordinator/snapshot.h"
#include "coordinator/status_json.h"
#include "coordinator/training_memory.h"
#include "core/heap.h"
#include "core/log.h"
#include "core/runtime.h"
#include "core/text.h"
#include "meshpair/meshpair.h"
#include "registry/ath.h"
#include "registry/unanswering.h"
#include "training/pass.h"
#include "training/training.h"

namespace {

constexpr int64_t CYCLE_PAUSE_US = 1000000;

// The discovery answers of one cycle; static because it is far larger than a stack frame should be.
char g_broadcast_buffer[BROADCAST_BUFFER_SIZE];

bool start_up(cycle_state* s) {
  ZLOG(COMP_CORE, LVL_U,
       "Zunta Smart Antenna Coordinator Application: Version 2.11-OSK-WIFI7(B251017.0000)\n");
  if (!zunta_command_line_valid(s)) return false;
  s->opts = static_cast<options*>(std::calloc(1, sizeof(options)));
  if (s->opts == nullptr) {
    ZLOG_AS("main", COMP_CORE, LVL_E, "Memory allocation error for options\n");
    return false;
  }
  zunta_init_config_options(s->opts);
  if (zunta_config_load_options(zunta_conf_path(), s->opts) < 0) {
    ZLOG_AS("main", COMP_CORE, LVL_E, "Config file does not exist!\n");
    return false;
  }
  ZLOG(COMP_CORE, LVL_I, "options_  root: %d\n", s->opts->root);
  ZLOG(COMP_CORE, LVL_I, "Broadcast IPv4: %s\n", s->opts->broadcast_address);
  ZLOG(COMP_CORE, LVL_I, "Broadcast port: %d\n", s->opts->broadcast_port);
  if (s->opts->root == 0) {
    ZLOG_AS("main", COMP_CORE, LVL_E, "Problem in the config file\n");
    return false;
  }
  ZLOG(COMP_CORE, LVL_I, "I am the root\n");
  zunta_exchange_slots_init();
  if (zunta_coordinator_init(coordinator, s->opts) < 0) {
    ZLOG_AS("main", COMP_CORE, LVL_E, "Coordinator not initialized!\n");
    return false;
  }
  s->training_needed = 1;
  zunta_status_json_watch(s->opts);
  zunta_snapshot_info(coordinator, s->opts);
  // Options -0 to -3 act on the mesh as they find it, and -1 trains every pair whatever it knows.
  if (zunta_command_line_runs_cycle(s)) s->memory = zunta_training_memory_load(s->opts->training_memory);
  return true;
}

// Edits of the file are picked up here; of the broadcast settings only the address is re-applied.
void reload_options(cycle_state* s) {
  if (zunta_config_load_options(zunta_conf_path(), s->opts) < 0) {
    ZLOG_AS("main", COMP_CORE, LVL_E, "Error loading the configuration file\n");
    return;
  }
  coordinator->discovery_check_sender = s->opts->discovery_check_sender;
  in_addr_t address = inet_addr(s->opts->broadcast_address);
  if (coordinator->broadcast_addr.sin_addr.s_addr == address) {
    ZLOG(COMP_CORE, LVL_I, "Broadcast address not changed: %s\n", s->opts->broadcast_address);
    return;
  }
  ZLOG(COMP_CORE, LVL_I, "Broadcast address changed: %s\n", s->opts->broadcast_address);
  coordinator->broadcast_addr.sin_addr.s_addr = address;
}

void check_schedule(cycle_state* s) {
  if (zunta_check_training_time(&coordinator->last_hour, &coordinator->period_base_minute, s->opts,
                                &s->training_state) != 0) {
    return;
  }
  ZLOG(COMP_CORE, LVL_I, "Flushing Mesh pair and Training all\n");
  zunta_flush_trained_mesh_pairs(coordinator);
  zunta_flush_mesh_pairs(coordinator);
  zunta_forget_ath_references(coordinator);
  zunta_flush_ath(coordinator);
  zunta_flush_module_client(coordinator);
  s->training_needed = 1;
  s->new_mesh_pair = 0;
}

// A node's receive pattern, kept while the registry is made anew.
struct kept_rx {
  char mac[MAC_TEXT_SIZE];
  int32_t eth_index;
  int32_t rx_pattern;
  uint8_t rx_chosen;
};
using kept_rx_table = heap_array<kept_rx>;

// The nodes go on receiving on the patterns they were told while their records are made anew from
// a fresh discovery answer. The new records take those patterns over, so the status file keeps
// showing them until the next receive selection. A node is known by its MAC and interface: one
// that answers under a new address keeps its pattern. Without memory for the table they start
// afresh.
kept_rx_table keep_rx_patterns(int32_t* count) {
  *count = 0;
  if (coordinator->ath_count <= 0) return nullptr;
  kept_rx_table kept(static_cast<kept_rx*>(std::calloc(coordinator->ath_count, sizeof(kept_rx))));
  if (!kept) return nullptr;
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    if (*count == coordinator->ath_count) break;
    kept_rx& k = kept[(*count)++];
    zunta_copy_text(k.mac, a->mac);
    k.eth_index = a->eth_index;
    k.rx_pattern = a->rx_pattern;
    k.rx_chosen = a->rx_chosen;
  }
  return kept;
}

void restore_rx_patterns(const kept_rx_table& kept, int32_t count) {
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    for (int32_t i = 0; i < count; ++i) {
      if (kept[i].eth_index == a->eth_index && zunta_text_equal(kept[i].mac, a->mac)) {
        a->rx_pattern = kept[i].rx_pattern;
        a->rx_chosen = kept[i].rx_chosen;
        break;
      }
    }
  }
}

// Fresh answers rebuild the registry and the mesh pairs; the trained pairs stay.
void rebuild(cycle_state* s) {
  ZLOG(COMP_CORE, LVL_I, "IP is %s, Port is %d\n", inet_ntoa(coordinator->sender_addr.sin_addr),
       ntohs(coordinator->sender_addr.sin_port));
  ZLOG(COMP_CORE, LVL_I, "Received message:\n`%s`\n", g_broadcast_buffer);
  ZLOG(COMP_CORE, LVL_I, "Size of broadcast_buffer: %d\n", static_cast<int>(std::strlen(g_broadcast_buffer)));
  if (s->new_broadcast == 1 && g_broadcast_buffer[0] != '\0') {
    ZLOG(COMP_CORE, LVL_I, "Flushing mesh pairs, ath and module client\n");
    zunta_forget_unanswering_agents();
    int32_t kept_count = 0;
    kept_rx_table kept = keep_rx_patterns(&kept_count);
    zunta_flush_mesh_pairs(coordinator);
    zunta_forget_ath_references(coordinator);
    zunta_flush_ath(coordinator);
    zunta_flush_module_client(coordinator);
    ZLOG(COMP_CORE, LVL_I, "Parsing broadcast message\n");
    zunta_parse_broadcast_message(coordinator, g_broadcast_buffer);
    restore_rx_patterns(kept, kept_count);
    zunta_define_mesh_pairs(coordinator, &s->new_mesh_pair);
    zunta_trained_pairs_follow_nodes(coordinator);
  }
  s->new_broadcast = 0;
  ZLOG(COMP_CORE, LVL_I, "Number of ath: %d\n", coordinator->ath_count);
}

void check_topology(cycle_state* s) {
  if (!s->topology_check) return;
  if (zunta_check_topology_mesh(coordinator, &s->topology_changed, &s->rx_update) != 0) {
    s->new_mesh_pair = 0;
    ZLOG(COMP_CORE, LVL_I, "No topology changes\n");
  } else if (s->rx_update) {
    ZLOG(COMP_CORE, LVL_I, "Topology changed -> only rx update!\n");
    s->training_needed = 0;
  } else {
    ZLOG(COMP_CORE, LVL_I, "Topology changed -> new mesh pair retrain needed!\n");
    s->training_needed = 1;
  }
}

// Trains every pair not trained yet, one after the other, and keeps each as a trained pair.
void train_one_at_a_time(cycle_state* s) {
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    if (mp->trained == 1) continue;
    ZLOG(COMP_CORE, LVL_I, "MeshPair %s starts training\n", mp->meshkey);
    print_systime(coordinator->last_training);
    zunta_pass_pair_begins(mp);
    zunta_mp_training(mp, command);
    zunta_pass_pair_ends(mp, mp->trained != 1);
    mp->txcs_count = 0;
    ZLOG(COMP_CORE, LVL_I, "MeshPair %s ends training\n", mp->meshkey);
    s->rx_update = 1;
    // A run that was refused measured nothing and leaves the pair untrained: it gets no trained
    // copy, whose patterns would come from an empty block.
    if (mp->trained == 1) zunta_trained_mesh_pair_add(coordinator, mp);
  }
}

// Trains every pair not trained yet, keeps each as a trained pair, then selects and applies the
// patterns of all trained pairs, those of earlier passes included.
void training_pass(cycle_state* s) {
  ZLOG(COMP_CORE, LVL_U, "Training triggered for new mesh pair\n");
  s->rx_update = 0;
  int32_t untrained = 0;
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    if (mp->trained != 1) ++untrained;
  }
  zunta_pass_begin(untrained, s->opts->parallel_training != 0);
  if (!s->opts->parallel_training || !zunta_train_in_parallel(s, false)) train_one_at_a_time(s);
  zunta_select_and_apply_patterns(s);
  zunta_pass_end();
  ZLOG(COMP_CORE, LVL_U, "Training ends\n");
  if (s->training_state == TRAINING_STATE_FIRST_PENDING) s->training_state = TRAINING_STATE_FIRST_DONE;
  s->training_needed = 0;
  s->topology_changed = 0;
  ZLOG(COMP_CORE, LVL_I, "No more training needed for new mesh pairs\n");
  ZLOG(COMP_CORE, LVL_I, "Trained mesh pairs: %d\n", coordinator->trained_mesh_pair_count);
  zunta_snapshot_info(coordinator, s->opts);
  zunta_training_memory_save(s->opts->training_memory, coordinator);
}

// Pairs were removed: the remaining trained pairs keep their transmit patterns, the receive
// patterns are chosen again.
void rx_update_pass(cycle_state* s) {
  zunta_compute_rx_antennas(coordinator, command);
  ZLOG(COMP_CORE, LVL_I, "Setting best pattern for topology change\n");
  zunta_apply_trained_patterns();
  s->topology_changed = 0;
  s->rx_update = 0;
  zunta_training_memory_save(s->opts->training_memory, coordinator);
}

// The first mesh pairs after start-up, whenever a discovery finds them: those the memory holds are
// trained already. Their patterns are applied at once, before any other pair trains; the pass that
// trains the others applies them again with the new ones. With every pair remembered no pass is
// needed, and the schedule starts as after the first one. The memory is then let go: later pairs,
// and every pair after a scheduled flush, are trained.
void recall_training_memory(cycle_state* s) {
  if (s->memory == nullptr || coordinator->mesh_pair_count <= 0) return;
  int32_t to_train = 0;
  const int32_t recalled = zunta_training_memory_recall(coordinator, s->memory, &to_train);
  ZLOG(COMP_CORE, LVL_U, "Recalled %d trained mesh pairs from %s, %d to train\n", recalled, s->memory->path,
       to_train);
  zunta_training_memory_free(s->memory);
  s->memory = nullptr;
  if (recalled == 0) return;
  zunta_compute_rx_antennas(coordinator, command);
  zunta_apply_trained_patterns();
  if (to_train > 0) return;
  s->training_needed = 0;
  s->topology_changed = 0;
  if (s->training_state == TRAINING_STATE_FIRST_PENDING) s->training_state = TRAINING_STATE_FIRST_DONE;
  zunta_training_memory_save(s->opts->training_memory, coordinator);
}

cycle_next run_cycle(cycle_state* s) {
  reload_options(s);
  check_schedule(s);
  if (zunta_mesh_nodes_discovery(coordinator, &s->new_broadcast, g_broadcast_buffer) == -1) {
    return cycle_next::exit_path;
  }
  rebuild(s);
  check_topology(s);
  std::memset(g_broadcast_buffer, 0, sizeof g_broadcast_buffer);
  ZLOG(COMP_CORE, LVL_I, "----------------------------------------------------------------------\n");
  if (s->argc > 1 && zunta_apply_command_line(s) == cycle_next::exit_path) return cycle_next::exit_path;
  zunta_snapshot_info(coordinator, s->opts);
  ZLOG(COMP_FLOW, LVL_I, ">>>>>>>>>>>>>>> %s\n", "training_mesh_pairs");
  recall_training_memory(s);
  if (s->training_needed && s->new_mesh_pair) training_pass(s);
  if (s->topology_changed && s->rx_update) rx_update_pass(s);
  zunta_snapshot_info(coordinator, s->opts);
  ZLOG(COMP_CORE, LVL_I, "sleep %d seconds...\n", 1);
  zunta_pause_us(CYCLE_PAUSE_US);
  return cycle_next::go_on;
}

int exit_path(cycle_state* s) {
  zunta_status_json_unwatch();
  zunta_training_memory_free(s->memory);
  s->memory = nullptr;
  std::free(s->opts);
  s->opts = nullptr;
  master_free();
  if (coordinator->sockfd >= 0) {
    close(coordinator->sockfd);
    coordinator->sockfd = -1;
  }
  std::printf("Exit\n");
  return 0;
}

}  // namespace

bool zunta_train_in_parallel(cycle_state* s, bool every) {
  int32_t count = 0;
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    if (every || mp->trained != 1) ++count;
  }
  if (count == 0) return true;
  heap_array<mesh_pair*> pairs = heap_allocate<mesh_pair*>(count);
  if (!pairs) {
    ZLOG(COMP_CORE, LVL_E, "Memory allocation error for parallel training: pairs train one by one\n");
    return false;
  }
  int32_t n = 0;
  sa_list_for_each_entry(mp, &coordinator->mesh_pair_list, mesh_pair, list) {
    if (every || mp->trained != 1) pairs[n++] = mp;
  }
  if (!zunta_mp_parallel_training(coordinator, pairs.get(), count, coordinator->last_training)) return false;
  // The trained copies go in as one pair after the other would put them, so the selections, the
  // application and the status file see the same table. A stopped pair gets none.
  for (int32_t i = 0; i < count; ++i) {
    pairs[i]->txcs_count = 0;
    s->rx_update = 1;
    if (pairs[i]->trained == 1) zunta_trained_mesh_pair_add(coordinator, pairs[i]);
  }
  return true;
}

void zunta_apply_trained_patterns() {
  sa_list_for_each_entry(tp, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    zunta_set_best_antenna_pattern(tp, command);
    ZLOG(COMP_CORE, LVL_U, "Pattern Set for Mesh Pair: %s <-> %s: 0x%x--0x%x\n", tp->left_mac, tp->right_mac,
         static_cast<unsigned>(tp->left_tx_pattern), static_cast<unsigned>(tp->right_tx_pattern));
  }
}

void zunta_select_and_apply_patterns(cycle_state* s) {
  sa_list_for_each_entry(tp, &coordinator->trained_mesh_pair_list, trained_mesh_pair, list) {
    zunta_compute_best_mp_training(tp);
  }
  if (s->rx_update) zunta_compute_rx_antennas(coordinator, command);
  zunta_apply_trained_patterns();
}

int zunta_main(int argc, char** argv) {
  cycle_state s{};
  s.argc = argc;
  s.argv = argv;
  s.interval = 6;
  if (master_init(argc, argv) != 0) return -1;
  // The socket exists only once the coordinator's start-up has been tried; until then sockfd is
  // not a descriptor of ours.
  coordinator->sockfd = -1;
  if (!start_up(&s)) return exit_path(&s);
  while (run_cycle(&s) == cycle_next::go_on) {
  }
  return exit_path(&s);
}
