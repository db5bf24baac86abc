// The simulated mesh: nodes with what their agents report, the radio model of each directed link,
// the faults of each node, and the state the agents keep between commands. The same statements
// build it from a topology file and change it at run time.
#ifndef ZUNTA_MESHSIM_TOPOLOGY_H_
#define ZUNTA_MESHSIM_TOPOLOGY_H_

#include <cstdint>
#include <string>
#include <vector>

namespace meshsim {

constexpr int PATTERN_COUNT = 4;
constexpr int DEFAULT_PATTERN = 3;  // every radio starts on the default pattern
constexpr int MESH_RADIO = 2;       // the radio whose links are trained

enum class fault_kind {
  nack_count,     // "nack N": the next N commands get "nack", then the node behaves
  nack_always,    // "nack_always"
  silent,         // "silent": read the command, answer nothing, hold until the peer hangs up
  no_marker,      // "no_marker": answer text, then close without a marker
  cut,            // "cut": send part of the answer text, then close
  refuse,         // "refuse": no listener at all (applies to every command)
  delay,          // "delay MS": the marker follows MS ms after the text instead of the gap
  same_send,      // "same_send": text and marker in one send
  garbage,        // "garbage": junk and over-long lines around the answer lines
  radio,          // "radio N": command 5 lines name radio N
  no_peer_line,   // "no_peer_line": command 5 lines name another MAC than the measured peer
  no_discovery,   // "no_discovery": the node does not answer discovery
  dup_discovery,  // "dup_discovery": the node answers discovery twice
  trickle,        // "trickle MS": each answer line, and then the marker, MS ms after the previous send
  eth_lines,      // "eth_lines N": the node answers discovery with N lines, eth indexes 0..N-1
  claim_mac,      // "claim_mac MAC": the node answers discovery with another MAC than its own
};

struct fault {
  fault_kind kind = fault_kind::nack_always;
  int arg = 0;                // nack count, delay or trickle ms, radio index or discovery lines
  std::string mac;            // the MAC that claim_mac announces
  std::vector<int> commands;  // command indexes it is limited to; empty means all
};

struct neighbour_entry {
  std::string mac;  // as the agent reports it
  int radio = MESH_RADIO;
  int pattern = DEFAULT_PATTERN;
};

// Radio model of the link from the owning node to `peer`: an exact table when has_table, else
// the gain model with base_kbps at 0 dB.
struct link_model {
  std::string peer;  // node name
  bool has_table = false;
  int table[PATTERN_COUNT][PATTERN_COUNT] = {};  // kbit/s; row = own pattern, column = peer's
  int base_kbps = 0;
  double last_avg = -1.0;  // exponential average carried between measurements; -1 before any
};

struct pattern_entry {
  std::string peer_mac;  // lower case
  int pattern = DEFAULT_PATTERN;
};

// One node's measurement towards one peer, from the command 4 or 8 that started it to the command 5
// that reported it. Times are ms since the simulator started. The sequence numbers order every start
// and stop in the mesh: two windows overlap exactly when each started before the other stopped.
struct measure_window {
  std::string node, peer;          // node names; peer is empty when the MAC named no node at the start
  std::string node_mac, peer_mac;  // lower case
  int64_t start_ms = 0;
  int64_t stop_ms = -1;  // -1 while open
  uint64_t start_seq = 0;
  uint64_t stop_seq = 0;  // 0 while open
  double gain_db = 0;     // the node's gain on its pattern towards the peer at the start
  double share = 1.0;     // part of the bitrate that interference left, set at the stop
};

struct node {
  std::string name, ip, mac;
  int value = 1;                     // discovery value
  int eth = 0;                       // eth index
  std::vector<std::string> clients;  // command 9 lines, without their line feed
  std::vector<neighbour_entry> neighbours;
  std::vector<link_model> links;
  double gains_db[PATTERN_COUNT] = {};
  std::vector<fault> faults;

  // What the agent has been told.
  std::vector<pattern_entry> tx_patterns;
  int rx_pattern = -1;                    // -1 until command 11
  std::string fallback;                   // last fallback text of command 2
  std::vector<std::string> learned_macs;  // command 0
  int optimisations = 0;                  // command 6
  std::vector<measure_window> measuring;  // open windows: peers started since the last command 5
};

struct topology {
  uint64_t seed = 1;
  int noise_percent = 0;                       // 0: every measurement gives the model value exactly
  std::vector<node> nodes;                     // in the order of their statements
  uint64_t window_seq = 0;                     // the last sequence number given to a window's start or stop
  std::vector<measure_window> closed_windows;  // closed windows that an open one may still overlap

  node* find(const std::string& name);
  node* find_by_mac(const std::string& mac);  // any letter case
  node* find_by_ip(const std::string& ip);
  const node* find(const std::string& name) const;
};

// Applies one statement (a topology file line or a control command). Returns 0, or -1 with the
// reason in *error; on -1 the topology is unchanged.
int apply_statement(topology& topo, const std::string& line, std::string* error);

// Applies every line of a topology file. On -1, *error names the line and the topology holds the
// lines before it.
int load_topology(topology& topo, const std::string& text, std::string* error);

// Rewrites the first three numbers of every node IP of a topology text to `base` ("127.A.B"),
// keeping the last; other lines are kept as they are. Returns 0, or -1 for a bad base.
int relocate_topology(const std::string& text, const std::string& base, std::string* out);

// The node's current transmit pattern towards a peer MAC (any case); the default when never set.
int tx_pattern_of(const node& n, const std::string& peer_mac);
void set_tx_pattern(node& n, const std::string& peer_mac, int pattern);

// Checks of the texts the statements and the agents accept.
bool is_loopback_node_ip(const std::string& ip);  // 127.x.y.z, z in 1..254
bool is_mac_text(const std::string& text);        // 17 characters, hexadecimal pairs and colons
std::string lower_text(const std::string& text);
// Pieces of text between separators; a separator at the end adds no empty piece.
std::vector<std::string> split_lines(const std::string& text, char separator = '\n');
bool parse_int(const std::string& text, int* out);

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_TOPOLOGY_H_
