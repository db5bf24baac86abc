// Mesh links, mesh pairs and trained mesh pairs: their records, keys, generation and the
// detection of topology changes. Each table owns its records; each pair owns its txcs block.
// References to ath records never own them.
#ifndef ZUNTA_MESHPAIR_MESHPAIR_H_
#define ZUNTA_MESHPAIR_MESHPAIR_H_

#include <cstdint>
#include <type_traits>

#include "core/list.h"
#include "core/text.h"
#include "meshpair/txcs.h"
#include "registry/ath.h"

constexpr int PAIR_SIDE_LEFT = 0;
constexpr int PAIR_SIDE_RIGHT = 1;

// One (ath, neighbour) entry of the registry.
struct mesh_link {
  char left_mac[MAC_TEXT_SIZE];   // the ath's mac
  char right_mac[MAC_TEXT_SIZE];  // the neighbour's mac
  struct ath* ath;
  int32_t radioidx;
  sa_list list;
};

// Two mesh nodes that list each other; the left node has the smaller MAC.
struct mesh_pair {
  struct ath* right_ath;
  struct ath* left_ath;
  char left_mac[MAC_TEXT_SIZE];
  char right_mac[MAC_TEXT_SIZE];
  char left_ip[IP_TEXT_SIZE];
  char right_ip[IP_TEXT_SIZE];
  int32_t radioidx;
  char meshkey[MESHKEY_TEXT_SIZE];
  sa_list list;
  uint8_t trained;
  txcs_block* txcs;    // owned, zero-filled at creation
  int32_t txcs_count;  // index of the next round record to fill
};

// The retained result of a trained pair. It survives registry rebuilds; its ath references are
// either null or the current records of its two nodes (see zunta_trained_pair_ath).
struct trained_mesh_pair {
  struct ath* right_ath;
  struct ath* left_ath;
  uint8_t active;
  char left_mac[MAC_TEXT_SIZE];
  char right_mac[MAC_TEXT_SIZE];
  char left_ip[IP_TEXT_SIZE];
  char right_ip[IP_TEXT_SIZE];
  int32_t radioidx;
  char meshkey[MESHKEY_TEXT_SIZE];
  sa_list list;
  int32_t left_tx_pattern;
  int32_t right_tx_pattern;
  uint8_t trained;
  txcs_block* txcs;    // owned copy of the mesh pair's block
  int64_t trained_at;  // wall-clock seconds when the copy was made (when its training ended)
};

static_assert(std::is_trivial_v<mesh_link> && std::is_standard_layout_v<mesh_link>);
static_assert(std::is_trivial_v<mesh_pair> && std::is_standard_layout_v<mesh_pair>);
static_assert(std::is_trivial_v<trained_mesh_pair> && std::is_standard_layout_v<trained_mesh_pair>);

// The mesh pair tables, on top of the registry's. The coordinator record is built on them, so
// every procedure here (and in the training) takes the coordinator as its mesh tables.
struct mesh_tables : node_tables {
  sa_list mesh_pair_list;
  int32_t mesh_pair_count;
  sa_list trained_mesh_pair_list;
  int32_t trained_mesh_pair_count;
  sa_list mesh_link_list;
  int32_t mesh_link_count;
};

// --- Records and keys ---

// Appends a mesh link for the ath and one of its neighbours (no duplicate check). 0, or -1.
int zunta_mesh_pair_link_create(mesh_tables* coordinator, struct ath* a, neighbour* neigh);

// Writes "<smaller mac>-<larger mac>" into key. -1 (key untouched) when an ath is missing or the
// two MACs are equal.
int zunta_generate_mesh_pair_key(char (&key)[MESHKEY_TEXT_SIZE], struct ath* ath1, struct ath* ath2);

// Splits a key at its first '-' into two MACs of at most 17 characters. 0, or -1.
int zunta_split_meshkey(const char* key, char (&mac1)[MAC_TEXT_SIZE], char (&mac2)[MAC_TEXT_SIZE]);

// 1 when a mesh pair has this key, 0 when none has, -1 without coordinator.
int zunta_mesh_pair_find(mesh_tables* coordinator, const char* key);

// Inserts a mesh pair for the key (no duplicate check); both aths must be mesh nodes. 0, or -1.
int zunta_mesh_pair_add(mesh_tables* coordinator, struct ath* ath1, struct ath* ath2, const char* key,
                        int32_t radioidx);

// Inserts a trained copy of the mesh pair, with its own copy of the txcs block. 0, or -1.
int zunta_trained_mesh_pair_add(mesh_tables* coordinator, mesh_pair* mp);

// Deletes every mesh pair with this ip at either end.
void zunta_delete_mesh_pair(mesh_tables* coordinator, const char* ip);

// Deletes every trained mesh pair that is not active (and is trained).
void zunta_check_trained_mesh_pair(mesh_tables* coordinator);

// The current ath record of one end of a trained pair (PAIR_SIDE_LEFT or PAIR_SIDE_RIGHT): the
// front-most ath with that end's MAC, whatever its IP (a node may answer discovery under a new
// address), which is also kept in the pair's reference. Null when the node is absent.
struct ath* zunta_trained_pair_ath(mesh_tables* coordinator, trained_mesh_pair* tp, int side);

// Gives every trained pair its nodes' current IPs, found by MAC in the registry just rebuilt, so
// commands to a trained pair reach a node that answers discovery under a new address. An end whose
// node is not registered keeps its last IP. One operator line per moved node and pair.
void zunta_trained_pairs_follow_nodes(mesh_tables* coordinator);

// Clears every reference that mesh links, mesh pairs and trained pairs hold to ath records; called
// before the aths are freed, so none is left dangling.
void zunta_forget_ath_references(mesh_tables* coordinator);

// --- Generation ---

// Marks every ath whose MAC is among the module clients as a mesh node. 0, or -1.
int zunta_add_allow_mac_for_mesh_pair(mesh_tables* coordinator);

// Builds the mesh link table from every ath's neighbours, then adds one mesh pair per mutual
// link; sets *new_mesh_pair to 1 when a pair was added (never clears it). Always 0.
int zunta_meshpair_generation_table_create(mesh_tables* coordinator, uint8_t* new_mesh_pair);

// Pairs each ath directly with its registered neighbours (a single listing suffices). Always 0.
int zunta_meshpair_generation_process(mesh_tables* coordinator, uint8_t* not_found, uint8_t* new_mesh_pair);

// PAIR_SIDE_LEFT or PAIR_SIDE_RIGHT when the ath's ip is that end's ip, -1 when neither.
int zunta_check_ath_in_mesh_pair(const trained_mesh_pair* tp, const struct ath* a);

// --- Change detection and flushing ---

// Compares the mesh pairs with the trained ones by their MACs, marks the matches (trained,
// active). Returns 0 when unchanged; 1 when changed, with *removed 0 when pairs were added and
// 1 when pairs were removed (the inactive trained pairs are then deleted).
int zunta_mesh_pair_change(mesh_tables* coordinator, uint8_t* removed);

void zunta_flush_trained_mesh_pairs(mesh_tables* coordinator);
// Deletes every mesh pair, then every mesh link.
void zunta_flush_mesh_pairs(mesh_tables* coordinator);

#endif  // ZUNTA_MESHPAIR_MESHPAIR_H_
