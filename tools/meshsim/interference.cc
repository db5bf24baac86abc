// Measurement windows and the bitrate share that overlapping measurements nearby leave.
#include "meshsim/interference.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace meshsim {
namespace {

constexpr int NO_RADIO = -1;  // a neighbour line that names no radio
constexpr uint64_t STILL_OPEN = std::numeric_limits<uint64_t>::max();

uint64_t end_seq(const measure_window& w) {
  return w.stop_seq == 0 ? STILL_OPEN : w.stop_seq;
}

bool same_pair(const measure_window& a, const measure_window& b) {
  return (a.node_mac == b.node_mac && a.peer_mac == b.peer_mac) ||
         (a.node_mac == b.peer_mac && a.peer_mac == b.node_mac);
}

// MAC texts in any letter case; no copies, as zones are built for every disturbed window.
bool same_mac(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

// The MACs (lower case) of the two ends, of the nodes they list and of the nodes that list them.
// A pair is within two hops of the ends exactly when one of its nodes is in this set.
std::vector<std::string> two_hop_zone(const topology& topo, const std::string& mac1,
                                      const std::string& mac2) {
  std::vector<std::string> zone{mac1, mac2};
  for (const node& other : topo.nodes) {
    bool is_end = same_mac(other.mac, mac1) || same_mac(other.mac, mac2);
    for (const neighbour_entry& e : other.neighbours) {
      if (e.radio == NO_RADIO) continue;
      if (is_end) {
        zone.push_back(lower_text(e.mac));
      } else if (same_mac(e.mac, mac1) || same_mac(e.mac, mac2)) {
        zone.push_back(lower_text(other.mac));
        break;
      }
    }
  }
  return zone;
}

bool in_zone(const std::vector<std::string>& zone, const std::string& mac) {
  return std::find(zone.begin(), zone.end(), mac) != zone.end();
}

// Signal over signal plus the power of every measuring node whose window overlaps w on a pair
// within two hops. The other end of w's own pair measures at the same time by design: not counted.
double share_left(const topology& topo, const measure_window& w) {
  std::vector<const measure_window*> overlapping;
  auto consider = [&](const measure_window& c) {
    if (&c != &w && !same_pair(c, w) && windows_overlap(c, w)) overlapping.push_back(&c);
  };
  for (const node& n : topo.nodes) {
    for (const measure_window& c : n.measuring)
      consider(c);
  }
  for (const measure_window& c : topo.closed_windows)
    consider(c);
  if (overlapping.empty()) return 1.0;
  std::vector<std::string> zone = two_hop_zone(topo, w.node_mac, w.peer_mac);
  double power = 0;
  for (const measure_window* c : overlapping) {
    if (in_zone(zone, c->node_mac) || in_zone(zone, c->peer_mac))
      power += INTERFERER_POWER_AT_0_DB * std::pow(10.0, c->gain_db / 10.0);
  }
  return 1.0 / (1.0 + power);
}

// A stopped window matters only while a window that started before its stop is still open.
void prune_closed(topology& topo) {
  uint64_t oldest_open = STILL_OPEN;
  for (const node& n : topo.nodes) {
    for (const measure_window& w : n.measuring)
      oldest_open = std::min(oldest_open, w.start_seq);
  }
  auto& closed = topo.closed_windows;
  closed.erase(std::remove_if(closed.begin(), closed.end(),
                              [&](const measure_window& w) { return w.stop_seq <= oldest_open; }),
               closed.end());
}

}  // namespace

void open_window(topology& topo, node& n, const std::string& peer_mac, int64_t t_ms) {
  std::string key = lower_text(peer_mac);
  for (const measure_window& w : n.measuring) {
    if (w.peer_mac == key) return;
  }
  measure_window w;
  w.node = n.name;
  if (const node* peer = topo.find_by_mac(key)) w.peer = peer->name;
  w.node_mac = lower_text(n.mac);
  w.peer_mac = key;
  w.start_ms = t_ms;
  w.start_seq = ++topo.window_seq;
  w.gain_db = n.gains_db[tx_pattern_of(n, key)];
  n.measuring.push_back(std::move(w));
}

std::vector<measure_window> close_windows(topology& topo, node& n, int64_t t_ms) {
  if (n.measuring.empty()) return {};
  uint64_t seq = ++topo.window_seq;
  for (measure_window& w : n.measuring) {
    w.stop_ms = t_ms;
    w.stop_seq = seq;
  }
  // All shares first: the node's windows stopped together still overlap one another.
  for (measure_window& w : n.measuring)
    w.share = share_left(topo, w);
  std::vector<measure_window> closed = std::move(n.measuring);
  n.measuring.clear();
  topo.closed_windows.insert(topo.closed_windows.end(), closed.begin(), closed.end());
  prune_closed(topo);
  return closed;
}

bool windows_overlap(const measure_window& a, const measure_window& b) {
  return a.start_seq < end_seq(b) && b.start_seq < end_seq(a);
}

bool pairs_within_two_hops(const topology& topo, const std::string& a1, const std::string& a2,
                           const std::string& b1, const std::string& b2) {
  const node* a[] = {topo.find(a1), topo.find(a2)};
  const node* b[] = {topo.find(b1), topo.find(b2)};
  if (!a[0] || !a[1] || !b[0] || !b[1]) return false;
  std::vector<std::string> zone = two_hop_zone(topo, lower_text(a[0]->mac), lower_text(a[1]->mac));
  return in_zone(zone, lower_text(b[0]->mac)) || in_zone(zone, lower_text(b[1]->mac));
}

}  // namespace meshsim
