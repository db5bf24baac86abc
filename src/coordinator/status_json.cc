// The JSON status document, written by hand: texts escaped, numbers as numbers, null for what is
// not known. Pairs are listed by key, the current mesh pairs merged with the trained pairs.
#include "coordinator/status_json.h"

#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "commander/failures.h"
#include "coordinator/coordinator.h"
#include "coordinator/options.h"
#include "coordinator/snapshot.h"
#include "core/atomic_file.h"
#include "core/clock.h"
#include "core/heap.h"
#include "core/json.h"
#include "core/log.h"
#include "core/runtime.h"
#include "meshpair/meshpair.h"
#include "training/pass.h"
#include "training/training.h"

namespace {

const options* g_watched = nullptr;
bool g_failing = false;  // the last write failed and said so

int64_t wall_now() {
  timeval now{};
  zunta_wall_time(&now);
  return static_cast<int64_t>(now.tv_sec);
}

// The pass keeps its start on this clock.
int64_t monotonic_now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void write_time(std::FILE* out, int64_t seconds) {
  char text[TIME_TEXT_SIZE];
  if (seconds <= 0 || !print_iso_time(text, seconds)) {
    std::fputs("null", out);
    return;
  }
  std::fprintf(out, "\"%s\"", text);
}

// A pattern index a node can be on, or null.
void write_pattern(std::FILE* out, int32_t pattern) {
  if (zunta_pattern_valid(pattern)) {
    std::fprintf(out, "%d", static_cast<int>(pattern));
    return;
  }
  std::fputs("null", out);
}

const char* bool_text(bool value) {
  return value ? "true" : "false";
}

// With no pair ended yet, a pair takes its sixteen round pauses and the pairs measuring now are
// taken as the pass's breadth; once pairs have ended, the rest go at the rate they went so far.
// Both ways of training are estimated alike, from the counts of the pass alone.
int64_t estimated_end(const training_pass& pass, int64_t now) {
  const int64_t done = static_cast<int64_t>(pass.trained) + pass.stopped;
  const int64_t left = pass.to_train > done ? pass.to_train - done : 0;
  if (done > 0) {
    const int64_t elapsed_ms = monotonic_now_ms() - pass.started_ms;
    return now + (left * (elapsed_ms > 0 ? elapsed_ms : 0) / done + 999) / 1000;
  }
  const int64_t pair_ms = TXCS_ROUNDS * zunta_scaled_us(TRAINING_ROUND_PAUSE_US) / 1000;
  const int64_t breadth = pass.training > 0 ? pass.training : 1;
  const int64_t end = pass.started_at + ((left + breadth - 1) / breadth * pair_ms + 999) / 1000;
  return end > now ? end : now;
}

void write_pass(std::FILE* out, int64_t now) {
  const training_pass& pass = *zunta_pass_state();
  std::fprintf(out,
               "\"pass\": {\"running\": %s, \"mode\": \"%s\", \"to_train\": %d, \"trained\": %d, "
               "\"stopped\": %d, \"training\": %d, \"started_at\": ",
               bool_text(pass.running != 0), pass.parallel ? "parallel" : "one at a time", pass.to_train,
               pass.trained, pass.stopped, pass.training);
  write_time(out, pass.started_at);
  std::fputs(", \"ended_at\": ", out);
  write_time(out, pass.running ? 0 : pass.ended_at);
  std::fputs(", \"estimated_end\": ", out);
  write_time(out, pass.running ? estimated_end(pass, now) : 0);
  std::fputs("},\n", out);
}

void write_nodes(std::FILE* out, struct coordinator* coordinator) {
  std::fputs("\"nodes\": [", out);
  const char* separator = "\n";
  sa_list_for_each_entry(a, &coordinator->ath_list, ath, list) {
    std::fprintf(out, "%s{\"mac\": ", separator);
    zunta_json_string(out, a->mac);
    std::fputs(", \"ip\": ", out);
    zunta_json_string(out, a->ip);
    std::fprintf(out, ", \"eth_index\": %d, \"mesh_node\": %s, \"rx_pattern\": ", a->eth_index,
                 bool_text(a->is_mesh_node == 1));
    write_pattern(out, a->rx_chosen ? a->rx_pattern : RX_PATTERN_NONE);
    std::fputs(", \"answered_at\": ", out);
    write_time(out, a->answered_at);
    std::fprintf(out, ", \"failed_exchanges\": %u}", zunta_exchange_failures(a->ip));
    separator = ",\n";
  }
  std::fputs("\n],\n", out);
}

// One pair as the document shows it: the trained copy when there is one, else the mesh pair.
struct pair_view {
  const mesh_pair* mp;
  const trained_mesh_pair* tp;
};

double round_sum(const txcs_record& rec) {
  return static_cast<double>(rec.left_avg_bitrate_ma + rec.right_avg_bitrate_ma);
}

void write_end(std::FILE* out, const char* name, const char (&mac)[MAC_TEXT_SIZE],
               const char (&ip)[IP_TEXT_SIZE], int32_t tx_pattern) {
  std::fprintf(out, "\"%s\": {\"mac\": ", name);
  zunta_json_string(out, mac);
  std::fputs(", \"ip\": ", out);
  zunta_json_string(out, ip);
  std::fputs(", \"tx_pattern\": ", out);
  write_pattern(out, tx_pattern);
  std::fputs("}, ", out);
}

// Bitrates come from the agents' integers: whole numbers, written as such (the fast way, as the
// document may be written several times a second with hundreds of pairs).
// Rounded by hand: the daemon links nothing but the C library, not the maths library.
long long kbps(float value) {
  constexpr double LIMIT = 1e15;  // far beyond any 32-bit report, far inside a long long
  const double v = static_cast<double>(value);
  if (!(v > -LIMIT && v < LIMIT)) return 0;  // NaN fails both
  return static_cast<long long>(v < 0 ? v - 0.5 : v + 0.5);
}

// The measured rounds, each [left pattern, right pattern, left kbit/s, right kbit/s] (the moving
// averages the training table prints), then the chosen round and its gain over the default round.
void write_rounds(std::FILE* out, const txcs_block* block, int32_t measured, int32_t chosen) {
  std::fputs("\"rounds\": [", out);
  for (int32_t i = 0; i < measured; ++i) {
    const txcs_record& rec = block->rounds[i];
    std::fprintf(out, "%s[%d, %d, %lld, %lld]", i > 0 ? ", " : "", rec.left_pattern, rec.right_pattern,
                 kbps(rec.left_avg_bitrate_ma), kbps(rec.right_avg_bitrate_ma));
  }
  std::fputs("], \"chosen_round\": ", out);
  if (chosen < 0) {
    std::fprintf(out, "null, \"default_round\": %d, \"gain_percent\": null}", BENCHMARK_ROUND);
    return;
  }
  const double base = round_sum(block->rounds[BENCHMARK_ROUND]);
  const double gain = (round_sum(block->rounds[chosen]) - base) / base * 100.0;
  std::fprintf(out, "%d, \"default_round\": %d, \"gain_percent\": ", chosen, BENCHMARK_ROUND);
  if (base == 0.0 || !std::isfinite(gain)) {
    std::fputs("null}", out);
    return;
  }
  std::fprintf(out, "%.2f}", gain == 0.0 ? 0.0 : gain);  // never "-0.00"
}

// Why a current pair holds no training: its rounds are under way, a node of its last pass stopped
// answering, or it never was trained.
void write_untrained(std::FILE* out, const mesh_pair* mp, bool measuring) {
  char node_ip[IP_TEXT_SIZE] = {};
  char node_mac[MAC_TEXT_SIZE] = {};
  if (measuring) {
    std::fputs("\"untrained\": \"training\", \"stopped_node\": null, ", out);
  } else if (zunta_pass_stopped_pair(mp->meshkey, node_ip, node_mac)) {
    std::fputs("\"untrained\": \"stopped: node not answering\", \"stopped_node\": {\"mac\": ", out);
    zunta_json_string(out, node_mac);
    std::fputs(", \"ip\": ", out);
    zunta_json_string(out, node_ip);
    std::fputs("}, ", out);
  } else {
    std::fputs("\"untrained\": \"never trained\", \"stopped_node\": null, ", out);
  }
}

void write_pair(std::FILE* out, const pair_view& v, bool running) {
  const trained_mesh_pair* tp = v.tp;
  const mesh_pair* mp = v.mp;
  const char* key = tp != nullptr ? tp->meshkey : mp->meshkey;
  // A pair trained in this pass whose trained copy is still to be made counts as trained.
  const bool trained = tp != nullptr || mp->trained == 1;
  const bool measuring = !trained && running && mp->txcs != nullptr && mp->txcs_count > 0;
  std::fputs("{\"key\": ", out);
  zunta_json_string(out, key, MESHKEY_TEXT_SIZE);
  std::fprintf(out, ", \"trained\": %s, \"current\": %s, \"trained_at\": ", bool_text(trained),
               bool_text(mp != nullptr));
  write_time(out, tp != nullptr ? tp->trained_at : 0);
  std::fputs(", ", out);
  if (trained) {
    std::fputs("\"untrained\": null, \"stopped_node\": null, ", out);
  } else {
    write_untrained(out, mp, measuring);
  }
  if (tp != nullptr) {
    write_end(out, "left", tp->left_mac, tp->left_ip, tp->left_tx_pattern);
    write_end(out, "right", tp->right_mac, tp->right_ip, tp->right_tx_pattern);
  } else {
    write_end(out, "left", mp->left_mac, mp->left_ip, TX_PATTERN_NONE);
    write_end(out, "right", mp->right_mac, mp->right_ip, TX_PATTERN_NONE);
  }
  const txcs_block* block = tp != nullptr ? tp->txcs : mp->txcs;
  int32_t measured = 0;
  if (block != nullptr && trained) measured = TXCS_ROUNDS;
  if (block != nullptr && measuring) measured = mp->txcs_count < TXCS_ROUNDS ? mp->txcs_count : TXCS_ROUNDS;
  const int32_t chosen =
      measured == TXCS_ROUNDS ? zunta_best_round(block, tp != nullptr ? tp->radioidx : mp->radioidx) : -1;
  write_rounds(out, block, measured, chosen);
}

int compare_keys(const char* a, const char* b) {
  return std::strncmp(a, b, MESHKEY_TEXT_SIZE);
}

template <typename T>
void sort_by_key(T** records, int32_t count) {
  std::qsort(records, static_cast<std::size_t>(count), sizeof(T*), [](const void* a, const void* b) {
    return compare_keys((*static_cast<T* const*>(a))->meshkey, (*static_cast<T* const*>(b))->meshkey);
  });
}

// Both tables, each sorted by key, walked side by side: a key in both is one pair.
struct pair_tables {
  heap_array<mesh_pair*> current;
  int32_t current_count;
  heap_array<trained_mesh_pair*> trained;
  int32_t trained_count;
};

template <typename T>
bool collect(sa_list* head, heap_array<T*>* out, int32_t* count) {
  int32_t n = 0;
  for (sa_list* pos = head->next; pos != head; pos = pos->next)
    ++n;
  *out = heap_allocate<T*>(n);
  if (!*out) return false;
  *count = 0;
  sa_list_for_each_entry(record, head, T, list) {
    if (*count < n) (*out)[(*count)++] = record;
  }
  sort_by_key(out->get(), *count);
  return true;
}

void write_pairs(std::FILE* out, const pair_tables& t) {
  const bool running = zunta_pass_state()->running != 0;
  std::fputs("\"pairs\": [", out);
  int32_t c = 0;
  int32_t k = 0;
  const char* separator = "\n";
  while (c < t.current_count || k < t.trained_count) {
    int order = 0;
    if (c == t.current_count) order = 1;
    if (k == t.trained_count) order = -1;
    if (order == 0) order = compare_keys(t.current[c]->meshkey, t.trained[k]->meshkey);
    pair_view v = {order <= 0 ? t.current[c] : nullptr, order >= 0 ? t.trained[k] : nullptr};
    if (order <= 0) ++c;
    if (order >= 0) ++k;
    std::fputs(separator, out);
    write_pair(out, v, running);
    separator = ",\n";
  }
  std::fputs("\n]\n", out);
}

void write_document(std::FILE* out, struct coordinator* coordinator, const options* opts,
                    const pair_tables& tables) {
  const int64_t now = wall_now();
  std::fprintf(out, "{\"version\": \"%s %s\",\n\"time\": ", ZUNTA_VERSION, ZUNTA_BUILD);
  write_time(out, now);
  std::fprintf(out,
               ",\n\"schedule\": {\"training_start_hour\": %d, \"training_frequency_minutes\": %d},\n"
               "\"last_training\": ",
               opts->training_start_hour, opts->training_frequency_minutes);
  if (coordinator->last_training[0] == '\0') {
    std::fputs("null", out);
  } else {
    zunta_json_string(out, coordinator->last_training);
  }
  std::fprintf(out, ",\n\"mode\": \"%s\",\n", opts->parallel_training ? "parallel" : "one at a time");
  write_pass(out, now);
  write_nodes(out, coordinator);
  write_pairs(out, tables);
  std::fputs("}\n", out);
}

// One line for a run of failures (a write every few seconds must not flood the log); a success
// ends the run.
bool first_failure() {
  const bool first = !g_failing;
  g_failing = true;
  return first;
}

void write_during_pass() {
  if (g_watched == nullptr || zunta_pass_state()->running == 0) return;
  zunta_status_json_write(coordinator, g_watched);
}

}  // namespace

int zunta_status_json_write(struct coordinator* coordinator, const options* opts) {
  if (coordinator == nullptr || opts == nullptr) {
    ZLOG(COMP_CORE, LVL_E, "NULL pointer exception for Coordinator\n");
    return -1;
  }
  pair_tables tables{};
  if (!collect(&coordinator->mesh_pair_list, &tables.current, &tables.current_count) ||
      !collect(&coordinator->trained_mesh_pair_list, &tables.trained, &tables.trained_count)) {
    if (first_failure()) ZLOG(COMP_CORE, LVL_E, "Memory allocation error for the status document\n");
    return -1;
  }
  const char* path = zunta_status_json_path();
  replacement_file file;
  if (file.open(path) == 0) {
    write_document(file.stream(), coordinator, opts, tables);
    if (file.commit() == 0) {
      g_failing = false;
      return 0;
    }
  }
  const int error = errno;
  if (first_failure()) ZLOG(COMP_CORE, LVL_E, "ERROR writing file %s: %s\n", path, std::strerror(error));
  return -1;
}

void zunta_status_json_watch(const options* opts) {
  g_watched = opts;
  zunta_set_wait_task(write_during_pass, zunta_scaled_us(STATUS_JSON_PASS_PERIOD_US));
}

void zunta_status_json_unwatch() {
  zunta_set_wait_task(nullptr, 0);
  g_watched = nullptr;
}
