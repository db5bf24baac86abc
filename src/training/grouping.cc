// Grouping of the pairs of a training pass into sets that can be measured at the same time: no
// two pairs of a group are within two hops of each other.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/list.h"
#include "core/log.h"
#include "meshpair/meshpair.h"
#include "registry/ath.h"
#include "training/training.h"

namespace {

struct free_deleter {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using heap_array = std::unique_ptr<T[], free_deleter>;

template <typename T>
heap_array<T> allocate(std::size_t count) {
  return heap_array<T>(static_cast<T*>(std::calloc(count == 0 ? 1 : count, sizeof(T))));
}

struct mac_key {
  char text[MAC_TEXT_SIZE];
};
bool operator<(const mac_key& a, const mac_key& b) {
  return std::memcmp(a.text, b.text, MAC_TEXT_SIZE) < 0;
}
bool operator==(const mac_key& a, const mac_key& b) {
  return std::memcmp(a.text, b.text, MAC_TEXT_SIZE) == 0;
}

// A MAC as a key: the text up to its NUL, in lower case, the rest of the width zero. Agents may
// report a neighbour's MAC in upper case; it is the same node, and taking it for another would
// put two neighbours in one group.
mac_key key_of(const char* mac) {
  mac_key k = {};
  for (std::size_t i = 0; i + 1 < MAC_TEXT_SIZE && mac[i] != '\0'; ++i) {
    const char c = mac[i];
    k.text[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return k;
}

// The nodes of the mesh (every ath and every reported neighbour) by MAC, and who hears whom in
// either direction, as adjacency lists.
class mesh_graph {
 public:
  bool build(const node_tables* nodes) {
    int32_t listed = 0;
    int32_t aths = 0;
    sa_list_for_each_entry(a, &nodes->ath_list, ath, list) {
      ++aths;
      sa_list_for_each_entry(n, &a->neighbours, neighbour, list) {
        ++listed;
      }
    }
    macs_ = allocate<mac_key>(aths + listed);
    auto from = allocate<int32_t>(listed);
    auto to = allocate<int32_t>(listed);
    if (!macs_ || !from || !to) return false;
    int32_t count = 0;
    sa_list_for_each_entry(a, &nodes->ath_list, ath, list) {
      macs_[count++] = key_of(a->mac);
      sa_list_for_each_entry(n, &a->neighbours, neighbour, list) {
        macs_[count++] = key_of(n->mac);
      }
    }
    std::sort(macs_.get(), macs_.get() + count);
    node_count_ = static_cast<int32_t>(std::unique(macs_.get(), macs_.get() + count) - macs_.get());

    int32_t edge = 0;
    sa_list_for_each_entry(a, &nodes->ath_list, ath, list) {
      const int32_t self = index_of(a->mac);
      sa_list_for_each_entry(n, &a->neighbours, neighbour, list) {
        from[edge] = self;
        to[edge++] = index_of(n->mac);
      }
    }
    // Each listing counts in both directions.
    first_ = allocate<int32_t>(node_count_ + 1);
    adjacent_ = allocate<int32_t>(2 * edge);
    if (!first_ || !adjacent_) return false;
    for (int32_t e = 0; e < edge; ++e) {
      ++first_[from[e] + 1];
      ++first_[to[e] + 1];
    }
    for (int32_t i = 0; i < node_count_; ++i)
      first_[i + 1] += first_[i];
    auto fill = allocate<int32_t>(node_count_);
    if (!fill) return false;
    for (int32_t e = 0; e < edge; ++e) {
      adjacent_[first_[from[e]] + fill[from[e]]++] = to[e];
      adjacent_[first_[to[e]] + fill[to[e]]++] = from[e];
    }
    return true;
  }

  int32_t node_count() const { return node_count_; }

  // -1 for a MAC that no ath has and no ath lists.
  int32_t index_of(const char* mac) const {
    const mac_key k = key_of(mac);
    const mac_key* begin = macs_.get();
    const mac_key* end = begin + node_count_;
    const mac_key* at = std::lower_bound(begin, end, k);
    return at != end && *at == k ? static_cast<int32_t>(at - begin) : -1;
  }

  template <typename F>
  void for_each_adjacent(int32_t node, F f) const {
    for (int32_t i = first_[node]; i < first_[node + 1]; ++i)
      f(adjacent_[i]);
  }

 private:
  heap_array<mac_key> macs_;
  int32_t node_count_ = 0;
  heap_array<int32_t> first_;  // node i's adjacent nodes are adjacent_[first_[i] .. first_[i + 1])
  heap_array<int32_t> adjacent_;
};

}  // namespace

int32_t zunta_group_mesh_pairs(const node_tables* nodes, mesh_pair* const* pairs, int32_t count,
                               int32_t* group_of) {
  if (nodes == nullptr) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for coordinator\n");
    return -1;
  }
  if (pairs == nullptr || group_of == nullptr || count < 0) {
    ZLOG(COMP_TR, LVL_E, "NULL pointer exception for Mesh Pair\n");
    return -1;
  }
  mesh_graph graph;
  auto ends = allocate<int32_t>(2 * static_cast<std::size_t>(count));
  if (!graph.build(nodes) || !ends) {
    ZLOG(COMP_TR, LVL_E, "Memory allocation error for the training groups\n");
    return -1;
  }
  // A pair end that is no known node (its ath gone) gets a node of its own, heard by nobody.
  int32_t extra = graph.node_count();
  for (int32_t i = 0; i < count; ++i) {
    int32_t left = graph.index_of(pairs[i]->left_mac);
    int32_t right = graph.index_of(pairs[i]->right_mac);
    ends[2 * i] = left >= 0 ? left : extra++;
    ends[2 * i + 1] = right >= 0 ? right : extra++;
  }
  // claimed[n] == g + 1: node n is a node of a pair of group g, or a neighbour of one.
  auto claimed = allocate<int32_t>(extra);
  if (!claimed) {
    ZLOG(COMP_TR, LVL_E, "Memory allocation error for the training groups\n");
    return -1;
  }
  for (int32_t i = 0; i < count; ++i)
    group_of[i] = -1;
  // Each group takes, in training order, every pair still without a group whose nodes nothing in
  // the group has claimed yet: the same as putting each pair in the first group it fits.
  int32_t groups = 0;
  for (int32_t placed = 0; placed < count; ++groups) {
    const int32_t stamp = groups + 1;
    for (int32_t i = 0; i < count; ++i) {
      if (group_of[i] >= 0 || claimed[ends[2 * i]] == stamp || claimed[ends[2 * i + 1]] == stamp) continue;
      group_of[i] = groups;
      ++placed;
      for (int32_t side = 0; side < 2; ++side) {
        const int32_t end = ends[2 * i + side];
        claimed[end] = stamp;
        if (end < graph.node_count()) graph.for_each_adjacent(end, [&](int32_t n) { claimed[n] = stamp; });
      }
    }
  }
  return groups;
}
