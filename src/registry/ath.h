// The node registry: an `ath` per announced node interface, its mesh neighbours, and the client
// stations that nodes report. The coordinator's lists own the records; an ath owns its neighbours.
#ifndef ZUNTA_REGISTRY_ATH_H_
#define ZUNTA_REGISTRY_ATH_H_

#include <cstdint>
#include <type_traits>

#include "commander/transport.h"
#include "core/list.h"
#include "core/text.h"

constexpr int RX_PATTERN_NONE = -1;

// One mesh neighbour of an ath, as its agent reports it (case of the MAC kept).
struct neighbour {
  char mac[MAC_TEXT_SIZE];
  int32_t radioidx;  // never -1: such lines are not stored
  int32_t pattern;
  sa_list list;  // in the ath's neighbours
};

// One client station reported by a node's agent.
struct module_client {
  char ip[IP_TEXT_SIZE];  // ip of the reporting ath
  char mac[MAC_TEXT_SIZE];
  sa_list list;  // in the coordinator's module_client_list
};

// One node interface from a discovery answer; ip and eth_index identify it.
struct ath {
  char ip[IP_TEXT_SIZE];
  char mac[MAC_TEXT_SIZE];  // lower case
  sa_list neighbours;
  int32_t neighbour_count;
  int32_t discovery_value;  // stored from the discovery answer, never read
  int32_t eth_index;
  uint8_t is_mesh_node;
  int32_t rx_pattern;  // RX_PATTERN_NONE when none is chosen; 0 in a new record
  float rx_score[4];
  uint8_t rx_chosen;    // 1 when receive selection set rx_pattern (0 in a new record, whose 0 is no choice)
  int64_t answered_at;  // wall-clock seconds when the record was made from a discovery answer
  sa_list list;         // in the coordinator's ath_list
};

static_assert(std::is_trivial_v<ath> && std::is_standard_layout_v<ath>,
              "calloc, offsetof and free stay valid");

// The registry's two tables. The coordinator record is built on them (through the mesh pair
// tables), so every registry procedure takes the coordinator as its node tables.
struct node_tables {
  sa_list ath_list;
  int32_t ath_count;
  sa_list module_client_list;
  int32_t module_client_count;
};
static_assert(std::is_trivial_v<neighbour> && std::is_standard_layout_v<neighbour>);
static_assert(std::is_trivial_v<module_client> && std::is_standard_layout_v<module_client>);

// Inserts a new ath at the front of the ath list (MAC stored in lower case). An ath with
// eth_index 0 has its agent asked for its clients (command 9), which become module clients; when
// that command fails the ath is discarded and -1 returned. Returns 0 when inserted.
int zunta_ath_add(node_tables* coordinator, char (&buffer)[COMMAND_SIZE], const char* ip, const char* mac,
                  int32_t discovery_value, int32_t eth_index);

// 1 when an ath has this ip (16 characters) and eth_index, 0 when none has, -1 without coordinator.
int zunta_ath_find(node_tables* coordinator, const char* ip, int32_t eth_index);

// 1 and *out set when an ath's lower-cased MAC equals mac exactly; 0 when none does (out
// untouched); -1 when coordinator or out is missing.
int zunta_ath_search(node_tables* coordinator, ath** out, const char* mac);

// Frees every ath with its neighbours and sets ath_count to 0. Whoever holds references to aths
// drops them first (the mesh pair tables: zunta_forget_ath_references); trained pairs find their
// nodes' current records again by MAC at use (zunta_trained_pair_ath).
void zunta_flush_ath(node_tables* coordinator);

// Frees every neighbour of the ath and sets neighbour_count to 0.
void zunta_flush_ath_neighbors(ath* a);

// --- Client MAC sharing ---

// Appends one module client per line of a command 9 answer (the text before the first comma).
// Changes the response in place (each line feed becomes a NUL). Returns 0, -1 on allocation
// failure (records made so far stay).
int zunta_save_client_macs(node_tables* coordinator, char* response, ath* a);

// Sends every mesh node the MACs of the other mesh nodes (command 0), then starts its mesh
// optimisation (command 6). Returns 0, or -1 when the coordinator is missing or an optimisation
// command failed (the later nodes are not served).
int zunta_share_ath_mac(node_tables* coordinator, char (&buffer)[COMMAND_SIZE]);

// --- Commands addressed to a node record: each returns 0 when the command went through, -1 otherwise ---
// They are the commands of the registry steps of a cycle: an agent that leaves one refused or
// unanswered after all its repetitions is given up on until the next discovery, and the later ones
// of this cycle are not sent to it (-1 at once, nothing logged; see registry/unanswering.h).

// One of the commands below, with value -1, the placeholder IP and the given MAC as arguments.
int zunta_node_command(char (&buffer)[COMMAND_SIZE], const ath* a, int32_t index, const char* mac,
                       char (&answer)[ANSWER_SIZE]);
int zunta_send_ath_mac(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac);  // 0
// Command 1: the agent's neighbour lines become the ath's neighbour records (see mesh_list.cc).
int zunta_get_mesh_list(char (&buffer)[COMMAND_SIZE], ath* a);
// The parsing half of command 1: every complete neighbour line of the NUL-terminated answer
// (changed in place) becomes a neighbour of a. -1 when a neighbour cannot be allocated.
int zunta_parse_mesh_list(ath* a, char* answer);
int zunta_start_mesh_optimization(char (&buffer)[COMMAND_SIZE], ath* a, const char* mac);  // 6
// Command 9; the answer is left in the caller's answer buffer (cleared by the caller).
int zunta_get_module_client_list(char (&buffer)[COMMAND_SIZE], ath* a, char (&answer)[ANSWER_SIZE]);

// Sets the four rx_score values to 0.0, rx_pattern to RX_PATTERN_NONE and rx_chosen to 0.
void zunta_reset_ath_rx_stats(ath* a);

#endif  // ZUNTA_REGISTRY_ATH_H_
