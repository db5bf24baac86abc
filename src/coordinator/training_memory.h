// The training memory: the trained pairs and the chosen receive patterns kept in a file, so that a
// restarted daemon takes up what it had learned instead of measuring every pair again.
//
// The file is text, one record per line, fields separated by one blank:
//   zunta training memory 1
//   saved <seconds> pairs <P> nodes <N>
//   pair <key> <left mac> <left ip> <right mac> <right ip> <left tx> <right tx> <trained at>
//   round <r> <left pattern> <right pattern> <left avg> <right avg> <left avg ma> <right avg ma>
//         <left nframes> <right nframes> <left nfeedback> <right nfeedback>     (16 lines, r 0..15)
//   node <mac> <rx pattern>
//   crc32 <8 hex digits: CRC-32 of every byte before this line>
// Times are wall-clock seconds; bitrates are the round records' kbit/s figures, written so that
// they read back bit for bit.
#ifndef ZUNTA_COORDINATOR_TRAINING_MEMORY_H_
#define ZUNTA_COORDINATOR_TRAINING_MEMORY_H_

#include <cstddef>
#include <cstdint>

#include "core/runtime.h"
#include "core/text.h"
#include "meshpair/txcs.h"

struct coordinator;
struct mesh_tables;
struct trained_mesh_pair;

constexpr int32_t TRAINING_MEMORY_VERSION = 1;
// Bounds of a file we read: about 2.6 KiB per pair at most, and a 250-node mesh has about 500 pairs.
constexpr std::size_t TRAINING_MEMORY_MAX_BYTES = 8 * 1024 * 1024;
constexpr int32_t TRAINING_MEMORY_MAX_PAIRS = 2048;
constexpr int32_t TRAINING_MEMORY_MAX_NODES = 4096;
constexpr std::size_t TRAINING_MEMORY_REASON_SIZE = 96;
constexpr char MEMORY_MAGIC[] = "zunta training memory ";  // and the version
constexpr char CHECKSUM_TAG[] = "crc32 ";
constexpr std::size_t CHECKSUM_DIGITS = 8;
constexpr std::size_t CHECKSUM_LINE_SIZE = sizeof CHECKSUM_TAG - 1 + CHECKSUM_DIGITS + 1;  // with '\n'
constexpr std::size_t MEMORY_LINE_SIZE = 192;  // longer than any line the writer makes

// A trained pair as the file keeps it. Only pairs trained on the measured radio, with both transmit
// patterns and every round's patterns in 0..3, are remembered.
struct remembered_pair {
  char meshkey[MESHKEY_TEXT_SIZE];
  char left_mac[MAC_TEXT_SIZE];
  char right_mac[MAC_TEXT_SIZE];
  char left_ip[IP_TEXT_SIZE];
  char right_ip[IP_TEXT_SIZE];
  int32_t left_tx_pattern;
  int32_t right_tx_pattern;
  int64_t trained_at;
  txcs_block txcs;
};

// A mesh node and the receive pattern last chosen for it.
struct remembered_node {
  char mac[MAC_TEXT_SIZE];
  int32_t rx_pattern;
};

struct training_memory {
  char path[RUNTIME_PATH_SIZE];  // the file it was read from; empty for a parsed text
  int64_t saved_at;
  int32_t pair_count;
  int32_t node_count;
  remembered_pair* pairs;  // owned, pair_count records
  remembered_node* nodes;  // owned, node_count records
};

// Six lower-case hexadecimal bytes joined by ':', as the registry keeps node MACs.
bool zunta_memory_mac_valid(const char* text);
// A trained pair the memory keeps: trained on the measured radio, both transmit patterns and every
// round's patterns in 0..3, finite bitrates, well-formed MACs and IPs, the key its two MACs. Any
// other is trained again after a restart. The reader takes nothing else.
bool zunta_memory_pair_keepable(const trained_mesh_pair* tp);

// Reads a whole memory document of `size` bytes. Returns a new record (free it with
// zunta_training_memory_free), or null with the reason in `reason` when the document is not one
// this daemon wrote whole: another format or version, no checksum line (truncated), a checksum
// that does not match, a malformed line, a value out of range (patterns outside 0..3, a malformed
// MAC or IP, a key that is not its two MACs, a duplicate key or node, counts beyond the bounds).
training_memory* zunta_training_memory_parse(const char* text, std::size_t size,
                                             char (&reason)[TRAINING_MEMORY_REASON_SIZE]);

// Reads the file at path: only a regular file (not a link) of at most TRAINING_MEMORY_MAX_BYTES,
// opened without blocking. A new record with an operator line naming the file and its pairs; null
// when path is empty (nothing is read), when there is no file (an operator line: a first start),
// or when the file is refused (one warning naming the path and the reason).
training_memory* zunta_training_memory_load(const char* path);

void zunta_training_memory_free(training_memory* memory);

// Replaces the file at path with the trained pairs that can be remembered (newest first, at most
// TRAINING_MEMORY_MAX_PAIRS, a key once) and every mesh node's chosen receive pattern, by rename,
// synced to storage. Nothing when path is empty. 0, or -1 with one error line (the file as it was).
int zunta_training_memory_save(const char* path, mesh_tables* tables);

// Takes the remembered pairs among the untrained mesh pairs as trained: each gets a trained copy
// with its remembered rounds, transmit patterns and training time, and its trained flag. The
// trained copies go in the order a training pass would put them. last_training becomes the local
// time of the newest one. Returns the number recalled; *left_to_train receives the number of mesh
// pairs still untrained. Sends nothing.
int32_t zunta_training_memory_recall(struct coordinator* c, const training_memory* memory,
                                     int32_t* left_to_train);

#endif  // ZUNTA_COORDINATOR_TRAINING_MEMORY_H_
