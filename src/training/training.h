// Antenna training of mesh pairs, the choice of transmit and receive patterns, and their
// application to the nodes.
#ifndef ZUNTA_TRAINING_TRAINING_H_
#define ZUNTA_TRAINING_TRAINING_H_

#include <array>
#include <cstdint>

#include "commander/catalogue.h"
#include "core/clock.h"
#include "core/text.h"

struct ath;
struct mesh_pair;
struct mesh_tables;
struct node_tables;
struct trained_mesh_pair;
struct txcs_block;

constexpr int32_t PATTERN_COUNT = 4;
constexpr int32_t DEFAULT_PATTERN = 3;
constexpr int32_t BENCHMARK_ROUND = 15;      // both ends on the default pattern
constexpr int32_t TRAINING_RADIO_INDEX = 2;  // only results of this radio count
constexpr int64_t TRAINING_ROUND_PAUSE_US = 6000000;
constexpr int32_t FALLBACK_M = 8;

// Pattern indexes walked by training: round r uses entry r % 4 on the left, r / 4 on the right.
extern const std::array<int32_t, PATTERN_COUNT> pattern_indeces;

// True for a pattern index a node can apply, and so the only ones that index the results block.
constexpr int32_t TX_PATTERN_NONE = -1;  // no round of the pair qualified
inline bool zunta_pattern_valid(int32_t pattern) {
  return pattern >= 0 && pattern < PATTERN_COUNT;
}

// --- Training ---

// Trains one pair in sixteen rounds into its txcs block and prints its training table. Refuses
// (error line, nothing sent) a pair without block or whose txcs_count is not 0.
void zunta_mp_training(mesh_pair* mp, char (&buffer)[COMMAND_SIZE]);
void zunta_dump_training_table(mesh_pair* mp, int32_t left_best, int32_t right_best);
// Command 5 to the node at ip: its statistics line about peer_mac goes into the pair's round record
// txcs_count (own_mac names the reporting node). Returns -1 only when the pair or its block is missing.
int zunta_stop_training(char (&buffer)[COMMAND_SIZE], mesh_pair* mp, const char* peer_mac,
                        const char* own_mac, const char* ip);
// The same in two halves, for a batch of exchanges: command 5 to the node at ip as a job, and the
// recording of its answer once the job has its result (changes the answer in place).
void zunta_job_stop_training(zunta_command_job* job, const char* ip);
int zunta_record_stop_training(mesh_pair* mp, const char* peer_mac, const char* own_mac, const char* ip,
                               char (&answer)[ANSWER_SIZE], int result);
// One command 5 statistics line: "<mac>,<radio>,0x<pattern>,<avg>,<nframes>,<nfeedback>,<avg_ma>".
struct round_result_line {
  char mac[MAC_TEXT_SIZE];
  int32_t radio_id;
  int32_t pattern;
  int32_t avg_bitrate;
  int32_t nframes;
  int32_t nfeedback;
  int32_t avg_bitrate_ma;
};
// Walks a command 5 answer line by line (each line feed becomes a NUL; text after the last one is
// not a line) and fills *out from the first complete line about peer_mac. False when none qualifies.
bool zunta_find_result_line(char (&answer)[ANSWER_SIZE], const char* peer_mac, round_result_line* out);
// Replaces the training status file with "<status>\n", by rename. 0, or -1 when the new file
// cannot be created or written (one error line; the previous file stays).
int32_t zunta_write_mp_training_status(int32_t status);

// --- Training several pairs at once ---

// Trains `count` pairs (given in the order one-at-a-time training takes them) in one event loop on
// this thread. Each pair's commands, lines, table and results are those of zunta_mp_training; no
// pair waits for another's exchanges. A pair starts as soon as no training pair is within two
// hops of it (a shared node, or a node of one that a node of the other lists or is listed by, by
// the neighbour lists of the aths in `nodes`); the waiting pairs are taken by the number of pairs
// within two hops of them, most first, then in the given order. An operator line tells when each
// pair starts and how many pairs are training. A pair one of whose commands stays refused or
// unanswered after all its repetitions stops for this pass: one line names it and the node, its
// block is cleared and it stays untrained, and the node is noted as not answering. The pass is
// reported through training/pass.h; last_training takes the local time of each start. False, with
// nothing trained, when memory for the pass is short.
bool zunta_mp_parallel_training(const node_tables* nodes, mesh_pair* const* pairs, int32_t count,
                                char (&last_training)[TIME_TEXT_SIZE]);

// --- Selection ---

// Stores the pair's best transmit patterns (highest sum of the two moving averages). Only rounds
// of radio 2 whose reported patterns lie in 0..3 qualify; without one both patterns become
// TX_PATTERN_NONE, so nothing is sent for the pair (the status file shows 0xffffffff).
void zunta_compute_best_mp_training(trained_mesh_pair* tp);
int32_t zunta_get_double_pattern_index(int32_t left_index, int32_t right_index);
// The round whose reported patterns the selection above picks for a block of sixteen measured
// rounds (the same rule, without its log lines), or -1 when none qualifies.
int32_t zunta_best_round(const txcs_block* block, int32_t radioidx);

// Scores every mesh node's receive patterns over its trained pairs and commands the best one.
int zunta_compute_rx_antennas(mesh_tables* coordinator, char (&buffer)[COMMAND_SIZE]);
int32_t zunta_compute_rx_cfun(trained_mesh_pair* tp, ath* a, int32_t side);
// 0.0 (no evidence either way, the block unread) when `pattern` or the other end's stored
// transmit pattern lies outside 0..3.
float zunta_compute_rx_score(trained_mesh_pair* tp, int32_t pattern, int32_t side);

// --- Application ---

// Sends nothing for a pair not trained on radio 2 or with a stored pattern outside 0..3.
void zunta_set_best_antenna_pattern(trained_mesh_pair* tp, char (&buffer)[COMMAND_SIZE]);
void zunta_set_default_antenna_pattern(mesh_pair* mp);
void zunta_set_manual_antenna_pattern(mesh_pair* mp, char (&buffer)[COMMAND_SIZE], int32_t left_pattern,
                                      int32_t right_pattern);

#endif  // ZUNTA_TRAINING_TRAINING_H_
