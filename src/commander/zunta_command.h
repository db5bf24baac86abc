// The node agent command channel: one 1024-byte command per TCP connection, answered by text
// lines and the marker "ack" or "nack"; and the wrappers of the twelve commands.
#ifndef ZUNTA_COMMANDER_ZUNTA_COMMAND_H_
#define ZUNTA_COMMANDER_ZUNTA_COMMAND_H_

#include <cstddef>
#include <cstdint>

struct ath;
struct mesh_pair;

constexpr std::size_t COMMAND_SIZE = 1024;
constexpr std::size_t ANSWER_SIZE = 1024;
constexpr int32_t COMMAND_INDEX_MAX = 11;
constexpr int COMMAND_RETRIES = 20;

// Placeholders where a command needs no address or no MAC.
constexpr char PLACEHOLDER_IP[] = "127.0.0.1";
constexpr char ZERO_MAC[] = "00:00:00:00:00:00";

// Command indexes (3 and 7 exist in the framing but are never sent).
enum : int32_t {
  CMD_SEND_ATH_MAC = 0,
  CMD_GET_MESH_LIST = 1,
  CMD_SET_PATTERN = 2,
  CMD_START_DUMP = 4,
  CMD_STOP_TRAINING = 5,
  CMD_START_MESH_OPTIMIZATION = 6,
  CMD_START_TRAINING = 8,
  CMD_GET_MODULE_CLIENT_LIST = 9,
  CMD_SET_PATTERN_TX = 10,
  CMD_SET_PATTERN_RX = 11,
};

// The global command buffer through which the coordinator sends every command.
extern char command[COMMAND_SIZE];

// --- Transport ---

// Writes "index,value,arg1 arg2\n" into buffer (cut to 1023 characters, NUL-terminated; the bytes
// after the NUL are left as they were). -1 when index > 11.
int zunta_make_command(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                       const char* arg2);

// One exchange with the agent at the dotted IPv4 text ip: sends all 1024 bytes of buffer on a
// fresh connection and reads until "ack" or "nack". Answer text read before the marker is
// appended to answer (kept NUL-terminated; what does not fit is dropped).
// Returns 0 ack, 1 nack or nothing received, 2 text without a marker, -1 local failure (no
// connection attempt is made for an ip that is not dotted IPv4).
int zunta_send_command(char (&buffer)[COMMAND_SIZE], char (&answer)[ANSWER_SIZE], const char* ip);

// Builds the command and sends it, repeating a refused, silent or unmarked exchange up to 20 more
// times at one-second pauses, with the answer text of every attempt accumulating. Returns 0 when
// acknowledged or answered without a marker, 1 when still refused or silent, -1 when the command
// cannot be built or an exchange fails locally (the first one without any repetition).
int zunta_make_and_send_command(char (&buffer)[COMMAND_SIZE], int32_t index, int32_t value, const char* arg1,
                                const char* arg2, char (&answer)[ANSWER_SIZE], const char* ip);

// --- Catalogue: each returns 0 when the command went through, -1 otherwise ---

int zunta_send_ath_mac(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac);                          // 0
int zunta_get_mesh_list(char (&buffer)[COMMAND_SIZE], ath* a);                                          // 1
int zunta_set_pattern(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac, int32_t pattern);  // 2
// Command 2 with "1.<m>.0.<fallback>" in arg1.
int zunta_set_pattern_with_fallback(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac,
                                    int32_t pattern, int32_t fallback, int32_t m);
int zunta_start_dump(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac);  // 4
// Command 5; parses the answer into the pair's txcs record txcs_count (see zunta_stop_training.cc).
// Returns -1 only when the pair or its block is missing.
int zunta_stop_training(char (&buffer)[COMMAND_SIZE], mesh_pair* mp, const char* peer_mac,
                        const char* own_mac, const char* ip);
int zunta_start_mesh_optimization(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac);     // 6
int zunta_start_training(char (&buffer)[COMMAND_SIZE], const char* ip, const char* peer_ip);  // 8
// Command 9; the answer is left in the caller's answer buffer (cleared by the caller).
int zunta_get_module_client_list(char (&buffer)[COMMAND_SIZE], ath* a, char (&answer)[ANSWER_SIZE]);
int zunta_set_pattern_tx(char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac,
                         int32_t pattern);                                                // 10
int zunta_set_pattern_rx(char (&buffer)[COMMAND_SIZE], const char* ip, int32_t pattern);  // 11

#endif  // ZUNTA_COMMANDER_ZUNTA_COMMAND_H_
