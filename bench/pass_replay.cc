// Replays a training pass of several pairs at once at full time: the pairs of a simulator topology
// and the daemon's own start rule (pair_turns: two hops apart, by turns, with reservations), with
// each pair lasting what it is given. Prints the time from the first start to the last end.
//
//   pass_replay TOPOLOGY [--order KEYS] [--durations FILE] [--uniform S] [--greedy]
//
// KEYS: the pass's pair keys in the daemon's list order, one a line (default: every mutual pair,
// by key). FILE: "<key> <seconds> trained|stopped" lines; pairs it lacks last --uniform seconds
// (default 96). The rule's estimate of a pair's length is the mean of the trained ones.
// --greedy replays the plain rule instead (most conflicts first, no reservations), to compare.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <queue>
#include <sstream>
#include <string>
#include <vector>

#include "meshpair/meshpair.h"
#include "meshsim/topology.h"
#include "training/neighbourhood.h"

namespace {

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The registry the daemon would hold: one ath per node, with the neighbour lines it reports.
void build_registry(const meshsim::topology& topo, node_tables* t) {
  INIT_SA_LIST_HEAD(&t->ath_list);
  for (const meshsim::node& n : topo.nodes) {
    auto* a = static_cast<ath*>(std::calloc(1, sizeof(ath)));
    zunta_copy_text(a->mac, meshsim::lower_text(n.mac).c_str());
    INIT_SA_LIST_HEAD(&a->neighbours);
    for (const meshsim::neighbour_entry& e : n.neighbours) {
      if (e.radio == -1) continue;
      auto* nb = static_cast<neighbour*>(std::calloc(1, sizeof(neighbour)));
      zunta_copy_text(nb->mac, e.mac.c_str());
      sa_list_add(&nb->list, &a->neighbours);
    }
    sa_list_add(&a->list, &t->ath_list);
  }
}

// Every pair of nodes that list each other, by key.
std::vector<std::string> mutual_pairs(const meshsim::topology& topo) {
  std::vector<std::string> keys;
  for (const meshsim::node& n : topo.nodes) {
    for (const meshsim::neighbour_entry& e : n.neighbours) {
      const meshsim::node* peer = const_cast<meshsim::topology&>(topo).find_by_mac(e.mac);
      if (peer == nullptr || e.radio == -1) continue;
      bool back = false;
      for (const meshsim::neighbour_entry& f : peer->neighbours)
        back = back || (meshsim::lower_text(f.mac) == meshsim::lower_text(n.mac) && f.radio != -1);
      const std::string a = meshsim::lower_text(n.mac), b = meshsim::lower_text(peer->mac);
      if (back && a < b) keys.push_back(a + "-" + b);
    }
  }
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return keys;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr,
                 "usage: %s TOPOLOGY [--order KEYS] [--durations FILE] [--uniform S] [--list-order]\n",
                 argv[0]);
    return 2;
  }
  std::string order_path, durations_path;
  double uniform = 96.0;
  bool greedy = false;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--order" && i + 1 < argc) order_path = argv[++i];
    if (arg == "--durations" && i + 1 < argc) durations_path = argv[++i];
    if (arg == "--uniform" && i + 1 < argc) uniform = std::atof(argv[++i]);
    if (arg == "--greedy") greedy = true;
  }
  meshsim::topology topo;
  std::string error;
  if (meshsim::load_topology(topo, read_text(argv[1]), &error) != 0) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  std::vector<std::string> keys;
  if (order_path.empty()) {
    keys = mutual_pairs(topo);
  } else {
    std::istringstream in(read_text(order_path));
    for (std::string key; in >> key;)
      keys.push_back(key);
  }
  std::map<std::string, std::pair<double, bool>> lasting;  // seconds, stopped
  std::istringstream durations(durations_path.empty() ? "" : read_text(durations_path));
  for (std::string key, how; durations >> key;) {
    durations >> lasting[key].first >> how;
    lasting[key].second = how == "stopped";
  }

  node_tables t{};
  build_registry(topo, &t);
  std::vector<mesh_pair> pairs(keys.size());
  std::vector<mesh_pair*> order;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    zunta_split_meshkey(keys[i].c_str(), pairs[i].left_mac, pairs[i].right_mac);
    order.push_back(&pairs[i]);
  }
  const auto count = static_cast<int32_t>(order.size());
  std::vector<double> seconds(keys.size(), uniform);
  double trained_sum = 0;
  int trained = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    auto it = lasting.find(keys[i]);
    if (it == lasting.end()) continue;
    seconds[i] = it->second.first;
    if (it->second.second) continue;
    trained_sum += it->second.first;
    ++trained;
  }
  const double estimate = trained > 0 ? trained_sum / trained : uniform;
  pair_turns turns;
  pair_neighbourhoods hoods;
  if (!turns.build(&t, order.data(), count) || !hoods.build(&t, order.data(), count)) return 1;
  std::vector<int32_t> greedy_order(count), due(count);
  for (int32_t p = 0; p < count; ++p)
    greedy_order[p] = p;
  std::sort(greedy_order.begin(), greedy_order.end(), [&](int32_t a, int32_t b) {
    return hoods.conflicts(a) != hoods.conflicts(b) ? hoods.conflicts(a) > hoods.conflicts(b) : a < b;
  });
  std::vector<bool> started(count, false);
  // The pairs that start at `now` (microseconds) under the chosen rule.
  auto start_due = [&](int64_t now) {
    if (!greedy) return turns.start_due(now, static_cast<int64_t>(estimate * 1e6), due.data());
    int32_t n = 0;
    for (int32_t p : greedy_order) {
      if (started[p] || !hoods.free(p)) continue;
      started[p] = true;
      hoods.claim(p);
      due[n++] = p;
    }
    return n;
  };
  using event = std::pair<int64_t, int32_t>;  // end time, pair
  std::priority_queue<event, std::vector<event>, std::greater<event>> ends;
  int64_t now = 0;
  int32_t most = 0;
  for (;;) {
    const int32_t n = start_due(now);
    for (int32_t i = 0; i < n; ++i)
      ends.push({now + static_cast<int64_t>(seconds[due[i]] * 1e6), due[i]});
    most = std::max(most, static_cast<int32_t>(ends.size()));
    if (ends.empty()) break;
    now = ends.top().first;
    while (!ends.empty() && ends.top().first <= now) {
      turns.end(ends.top().second, false);
      if (greedy) hoods.release(ends.top().second);
      ends.pop();
    }
  }
  const double last = static_cast<double>(now) / 1e6;
  std::printf("pairs %d makespan_s %.1f most_at_once %d\n", count, last, most);
  sa_list_for_each_entry_safe(a, &t.ath_list, ath, list) {
    zunta_flush_ath_neighbors(a);
    std::free(a);
  }
  return 0;
}
