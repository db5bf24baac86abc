// Topology statements: parsing, checking and applying one line at a time.
#include "meshsim/topology.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "meshsim/faults.h"

namespace meshsim {
namespace {

using words = std::vector<std::string>;

words split_words(const std::string& line) {
  std::string text = line.substr(0, line.find('#'));
  words out;
  std::size_t pos = 0;
  while ((pos = text.find_first_not_of(" \t\r", pos)) != std::string::npos) {
    std::size_t end = text.find_first_of(" \t\r", pos);
    out.push_back(text.substr(pos, end - pos));
    pos = end;
  }
  return out;
}

bool valid_name(const std::string& name) {
  if (name.empty() || name.size() > 32) return false;
  for (char c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.') return false;
  }
  return true;
}

int fail(std::string* error, const std::string& why) {
  if (error != nullptr) *error = why;
  return -1;
}

// A peer given by node name or by MAC text; empty when neither.
std::string peer_mac(topology& topo, const std::string& peer) {
  if (node* n = topo.find(peer)) return n->mac;
  return is_mac_text(peer) ? peer : std::string();
}

node* peer_node(topology& topo, const std::string& peer) {
  if (node* n = topo.find(peer)) return n;
  return topo.find_by_mac(peer);
}

link_model* find_link(node& n, const std::string& peer_name) {
  for (link_model& l : n.links) {
    if (l.peer == peer_name) return &l;
  }
  return nullptr;
}

link_model& ensure_link(node& n, const std::string& peer_name) {
  if (link_model* l = find_link(n, peer_name)) return *l;
  n.links.push_back(link_model{});
  n.links.back().peer = peer_name;
  return n.links.back();
}

void erase_neighbour(node& n, const std::string& mac) {
  std::string key = lower_text(mac);
  for (auto it = n.neighbours.begin(); it != n.neighbours.end();) {
    it = lower_text(it->mac) == key ? n.neighbours.erase(it) : it + 1;
  }
}

void erase_link(node& n, const std::string& peer_name) {
  for (auto it = n.links.begin(); it != n.links.end();) {
    it = it->peer == peer_name ? n.links.erase(it) : it + 1;
  }
}

int apply_node(topology& topo, const words& w, std::string* error) {
  if (w.size() < 4 || w.size() > 6) return fail(error, "usage: node NAME IP MAC [VALUE [ETH]]");
  if (!valid_name(w[1])) return fail(error, "bad node name " + w[1]);
  if (!is_loopback_node_ip(w[2])) return fail(error, "node IP must be 127.x.y.z with z in 1..254: " + w[2]);
  if (!is_mac_text(w[3])) return fail(error, "bad MAC " + w[3]);
  int value = 1, eth = 0;
  if ((w.size() > 4 && !parse_int(w[4], &value)) || (w.size() > 5 && !parse_int(w[5], &eth))) {
    return fail(error, "bad discovery value or eth index");
  }
  for (const node& other : topo.nodes) {
    if (other.name == w[1]) continue;
    if (other.ip == w[2]) return fail(error, "IP " + w[2] + " already belongs to " + other.name);
    if (lower_text(other.mac) == lower_text(w[3])) return fail(error, "MAC already belongs to " + other.name);
  }
  node* n = topo.find(w[1]);
  if (n == nullptr) {
    topo.nodes.push_back(node{});
    n = &topo.nodes.back();
    n->name = w[1];
  }
  n->ip = w[2];
  n->mac = w[3];
  n->value = value;
  n->eth = eth;
  return 0;
}

int apply_neighbour(topology& topo, node& n, const words& w, std::string* error) {
  if (w.size() < 3 || w.size() > 5) return fail(error, "usage: neighbour NAME PEER [RADIO [PATTERN]]");
  std::string mac = peer_mac(topo, w[2]);
  if (mac.empty()) return fail(error, "unknown peer " + w[2]);
  neighbour_entry e;
  e.mac = mac;
  if ((w.size() > 3 && !parse_int(w[3], &e.radio)) || (w.size() > 4 && !parse_int(w[4], &e.pattern))) {
    return fail(error, "bad radio index or pattern");
  }
  n.neighbours.push_back(e);
  return 0;
}

int apply_table(topology& topo, node& n, const words& w, std::string* error) {
  if (w.size() != 3 + PATTERN_COUNT * PATTERN_COUNT)
    return fail(error, "usage: table NAME PEER and 16 kbit/s values");
  node* peer = peer_node(topo, w[2]);
  if (peer == nullptr || peer == &n) return fail(error, "unknown peer " + w[2]);
  int values[PATTERN_COUNT * PATTERN_COUNT];
  for (int i = 0; i < PATTERN_COUNT * PATTERN_COUNT; ++i) {
    if (!parse_int(w[3 + i], &values[i]) || values[i] < 0) return fail(error, "bad bitrate " + w[3 + i]);
  }
  link_model& l = ensure_link(n, peer->name);
  l.has_table = true;
  for (int i = 0; i < PATTERN_COUNT * PATTERN_COUNT; ++i)
    l.table[i / PATTERN_COUNT][i % PATTERN_COUNT] = values[i];
  return 0;
}

int apply_gains(node& n, const words& w, std::string* error) {
  if (w.size() != 2 + PATTERN_COUNT) return fail(error, "usage: gains NAME G0 G1 G2 G3");
  double gains[PATTERN_COUNT];
  for (int i = 0; i < PATTERN_COUNT; ++i) {
    char* end = nullptr;
    gains[i] = std::strtod(w[2 + i].c_str(), &end);
    if (end == w[2 + i].c_str() || *end != '\0' || gains[i] < -30 || gains[i] > 30) {
      return fail(error, "bad gain " + w[2 + i]);
    }
  }
  for (int i = 0; i < PATTERN_COUNT; ++i)
    n.gains_db[i] = gains[i];
  return 0;
}

// "link A B BASE" sets one direction; "mesh A B BASE" both directions and both neighbour entries.
int apply_link(topology& topo, node& n, const words& w, bool mutual, std::string* error) {
  if (w.size() != 4) return fail(error, "usage: " + w[0] + " NAME PEER BASE_KBPS");
  node* peer = peer_node(topo, w[2]);
  if (peer == nullptr || peer == &n) return fail(error, "unknown peer " + w[2]);
  int base = 0;
  if (!parse_int(w[3], &base) || base <= 0) return fail(error, "bad base bitrate " + w[3]);
  link_model& l = ensure_link(n, peer->name);
  l.has_table = false;
  l.base_kbps = base;
  if (!mutual) return 0;
  link_model& back = ensure_link(*peer, n.name);
  back.has_table = false;
  back.base_kbps = base;
  erase_neighbour(n, peer->mac);
  erase_neighbour(*peer, n.mac);
  n.neighbours.push_back(neighbour_entry{peer->mac, MESH_RADIO, DEFAULT_PATTERN});
  peer->neighbours.push_back(neighbour_entry{n.mac, MESH_RADIO, DEFAULT_PATTERN});
  return 0;
}

void remove_node(topology& topo, const std::string& name) {
  node* gone = topo.find(name);
  std::string mac = gone->mac;
  for (node& other : topo.nodes) {
    erase_neighbour(other, mac);
    erase_link(other, name);
  }
  for (auto it = topo.nodes.begin(); it != topo.nodes.end(); ++it) {
    if (it->name == name) {
      topo.nodes.erase(it);
      return;
    }
  }
}

int apply_delete(topology& topo, const words& w, std::string* error) {
  if (w.size() < 3) return fail(error, "usage: del node|client|neighbour|link|mesh NAME ...");
  node* n = topo.find(w[2]);
  if (n == nullptr) return fail(error, "unknown node " + w[2]);
  if (w[1] == "node" && w.size() == 3) {
    remove_node(topo, w[2]);
    return 0;
  }
  if (w.size() != 4) return fail(error, "usage: del " + w[1] + " NAME PEER");
  if (w[1] == "client") {
    for (auto it = n->clients.begin(); it != n->clients.end();) {
      it = (*it == w[3] || lower_text(it->substr(0, it->find(','))) == lower_text(w[3]))
               ? n->clients.erase(it)
               : it + 1;
    }
    return 0;
  }
  std::string mac = peer_mac(topo, w[3]);
  node* peer = peer_node(topo, w[3]);
  if (w[1] == "neighbour" && !mac.empty()) {
    erase_neighbour(*n, mac);
    return 0;
  }
  if ((w[1] == "link" || w[1] == "mesh") && peer != nullptr) {
    erase_link(*n, peer->name);
    if (w[1] == "link") return 0;
    erase_link(*peer, n->name);
    erase_neighbour(*n, peer->mac);
    erase_neighbour(*peer, n->mac);
    return 0;
  }
  return fail(error, "cannot delete " + w[1] + " " + w[3]);
}

int apply_global(topology& topo, const words& w, std::string* error) {
  int v = 0;
  if (w.size() != 2 || !parse_int(w[1], &v) || v < 0) return fail(error, "usage: " + w[0] + " NUMBER");
  if (w[0] == "seed") {
    topo.seed = static_cast<uint64_t>(v);
    return 0;
  }
  if (v > 100) return fail(error, "noise is a percentage, 0..100");
  topo.noise_percent = v;
  return 0;
}

int apply_node_statement(topology& topo, const words& w, const std::string& line, std::string* error) {
  if (w.size() < 2) return fail(error, "missing node name");
  node* n = topo.find(w[1]);
  if (n == nullptr) return fail(error, "unknown node " + w[1]);
  const std::string& kw = w[0];
  if (kw == "client") {
    // The client line is the rest of the statement as written (it may carry extra comma fields).
    if (w.size() != 3) return fail(error, "usage: client NAME MAC[,EXTRA...]");
    n->clients.push_back(w[2]);
    return 0;
  }
  if (kw == "neighbour") return apply_neighbour(topo, *n, w, error);
  if (kw == "table") return apply_table(topo, *n, w, error);
  if (kw == "gains") return apply_gains(*n, w, error);
  if (kw == "link" || kw == "mesh") return apply_link(topo, *n, w, kw == "mesh", error);
  if (kw == "fault") return apply_fault(*n, w, error);
  return fail(error, "unknown statement: " + line);
}

}  // namespace

std::vector<std::string> split_lines(const std::string& text, char separator) {
  std::vector<std::string> lines;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find(separator, pos);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return lines;
}

node* topology::find(const std::string& name) {
  for (node& n : nodes) {
    if (n.name == name) return &n;
  }
  return nullptr;
}

const node* topology::find(const std::string& name) const {
  for (const node& n : nodes) {
    if (n.name == name) return &n;
  }
  return nullptr;
}

node* topology::find_by_mac(const std::string& mac) {
  std::string key = lower_text(mac);
  for (node& n : nodes) {
    if (lower_text(n.mac) == key) return &n;
  }
  return nullptr;
}

node* topology::find_by_ip(const std::string& ip) {
  for (node& n : nodes) {
    if (n.ip == ip) return &n;
  }
  return nullptr;
}

int apply_statement(topology& topo, const std::string& line, std::string* error) {
  words w = split_words(line);
  if (w.empty()) return 0;
  if (w[0] == "node") return apply_node(topo, w, error);
  if (w[0] == "seed" || w[0] == "noise") return apply_global(topo, w, error);
  if (w[0] == "del") return apply_delete(topo, w, error);
  return apply_node_statement(topo, w, line, error);
}

int load_topology(topology& topo, const std::string& text, std::string* error) {
  int number = 0;
  for (const std::string& line : split_lines(text)) {
    ++number;
    std::string why;
    if (apply_statement(topo, line, &why) != 0)
      return fail(error, "line " + std::to_string(number) + ": " + why);
  }
  return 0;
}

int relocate_topology(const std::string& text, const std::string& base, std::string* out) {
  if (!is_loopback_node_ip(base + ".1")) return -1;
  out->clear();
  for (std::string line : split_lines(text)) {
    words w = split_words(line);
    if (w.size() >= 3 && w[0] == "node" && is_loopback_node_ip(w[2])) {
      std::string ip = base + w[2].substr(w[2].rfind('.'));
      line.replace(line.find(w[2], line.find(w[1]) + w[1].size()), w[2].size(), ip);
    }
    *out += line + "\n";
  }
  return 0;
}

int tx_pattern_of(const node& n, const std::string& peer_mac) {
  std::string key = lower_text(peer_mac);
  for (const pattern_entry& e : n.tx_patterns) {
    if (e.peer_mac == key) return e.pattern;
  }
  return DEFAULT_PATTERN;
}

void set_tx_pattern(node& n, const std::string& peer_mac, int pattern) {
  std::string key = lower_text(peer_mac);
  for (pattern_entry& e : n.tx_patterns) {
    if (e.peer_mac == key) {
      e.pattern = pattern;
      return;
    }
  }
  n.tx_patterns.push_back(pattern_entry{key, pattern});
}

bool is_loopback_node_ip(const std::string& ip) {
  int parts[4];
  char tail = 0;
  if (std::sscanf(ip.c_str(), "%d.%d.%d.%d%c", &parts[0], &parts[1], &parts[2], &parts[3], &tail) != 4)
    return false;
  for (char c : ip) {
    if (!std::isdigit(static_cast<unsigned char>(c)) && c != '.') return false;
  }
  return parts[0] == 127 && parts[1] >= 0 && parts[1] <= 255 && parts[2] >= 0 && parts[2] <= 255 &&
         parts[3] >= 1 && parts[3] <= 254;
}

bool is_mac_text(const std::string& text) {
  if (text.size() != 17) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool colon = i % 3 == 2;
    if (colon ? text[i] != ':' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

std::string lower_text(const std::string& text) {
  std::string out = text;
  for (char& c : out)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool parse_int(const std::string& text, int* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
  *out = static_cast<int>(v);
  return true;
}

}  // namespace meshsim
