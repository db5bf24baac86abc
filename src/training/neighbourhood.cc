// The neighbourhoods of the pairs of a training pass: who hears whom, which pairs are within two
// hops of each other, and the claims of the pairs that are training.
#include "training/neighbourhood.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/heap.h"
#include "core/list.h"
#include "core/text.h"
#include "meshpair/meshpair.h"
#include "registry/ath.h"

namespace {

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
// let two neighbours train at once.
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
    macs_ = heap_allocate<mac_key>(aths + listed);
    auto from = heap_allocate<int32_t>(listed);
    auto to = heap_allocate<int32_t>(listed);
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
    first_ = heap_allocate<int32_t>(node_count_ + 1);
    adjacent_ = heap_allocate<int32_t>(2 * edge);
    if (!first_ || !adjacent_) return false;
    for (int32_t e = 0; e < edge; ++e) {
      ++first_[from[e] + 1];
      ++first_[to[e] + 1];
    }
    for (int32_t i = 0; i < node_count_; ++i)
      first_[i + 1] += first_[i];
    auto fill = heap_allocate<int32_t>(node_count_);
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

  // Hands over the adjacency: node i's neighbours are adjacent[first[i] .. first[i + 1]).
  heap_array<int32_t> take_first() { return std::move(first_); }
  heap_array<int32_t> take_adjacent() { return std::move(adjacent_); }

 private:
  heap_array<mac_key> macs_;
  int32_t node_count_ = 0;
  heap_array<int32_t> first_;  // node i's adjacent nodes are adjacent_[first_[i] .. first_[i + 1])
  heap_array<int32_t> adjacent_;
};

}  // namespace

bool pair_neighbourhoods::build(const node_tables* nodes, mesh_pair* const* pairs, int32_t count) {
  mesh_graph graph;
  ends_ = heap_allocate<int32_t>(2 * static_cast<std::size_t>(count));
  if (nodes == nullptr || !graph.build(nodes) || !ends_) return false;
  // A pair end that is no known node (its ath gone) gets a node of its own, heard by nobody.
  const int32_t known = graph.node_count();
  node_count_ = known;
  for (int32_t i = 0; i < count; ++i) {
    const int32_t left = graph.index_of(pairs[i]->left_mac);
    const int32_t right = graph.index_of(pairs[i]->right_mac);
    ends_[2 * i] = left >= 0 ? left : node_count_++;
    ends_[2 * i + 1] = right >= 0 ? right : node_count_++;
  }
  heap_array<int32_t> known_first = graph.take_first();
  adjacent_ = graph.take_adjacent();
  first_ = heap_allocate<int32_t>(static_cast<std::size_t>(node_count_) + 1);
  claims_ = heap_allocate<int32_t>(node_count_);
  if (!first_ || !claims_) return false;
  for (int32_t n = 0; n <= node_count_; ++n)
    first_[n] = known_first[n < known ? n : known];
  return list_conflicts(count);
}

// For every pair, the other pairs that have an end on one of its ends or on their neighbours: once
// counted, then listed.
bool pair_neighbourhoods::list_conflicts(int32_t count) {
  count_ = count;
  conflict_first_ = heap_allocate<int32_t>(static_cast<std::size_t>(count) + 1);
  auto first_pair = heap_allocate<int32_t>(static_cast<std::size_t>(node_count_) + 1);
  auto pairs_at = heap_allocate<int32_t>(2 * static_cast<std::size_t>(count));
  auto fill = heap_allocate<int32_t>(node_count_);
  auto seen = heap_allocate<int32_t>(count);
  if (!conflict_first_ || !first_pair || !pairs_at || !fill || !seen) return false;
  for (int32_t e = 0; e < 2 * count; ++e)
    ++first_pair[ends_[e] + 1];
  for (int32_t n = 0; n < node_count_; ++n)
    first_pair[n + 1] += first_pair[n];
  for (int32_t e = 0; e < 2 * count; ++e)
    pairs_at[first_pair[ends_[e]] + fill[ends_[e]]++] = e / 2;
  // Calls note(pair, other) once for every other pair within two hops of `pair`.
  auto walk = [&](int32_t pair, int32_t stamp, auto note) {
    auto at_node = [&](int32_t node) {
      for (int32_t i = first_pair[node]; i < first_pair[node + 1]; ++i) {
        const int32_t other = pairs_at[i];
        if (other == pair || seen[other] == stamp) continue;
        seen[other] = stamp;
        note(other);
      }
    };
    for (int32_t side = 0; side < 2; ++side) {
      const int32_t end = ends_[2 * pair + side];
      at_node(end);
      for (int32_t i = first_[end]; i < first_[end + 1]; ++i)
        at_node(adjacent_[i]);
    }
  };
  for (int32_t p = 0; p < count; ++p)
    walk(p, p + 1, [&](int32_t) { ++conflict_first_[p + 1]; });
  for (int32_t p = 0; p < count; ++p)
    conflict_first_[p + 1] += conflict_first_[p];
  conflict_list_ = heap_allocate<int32_t>(static_cast<std::size_t>(conflict_first_[count]));
  if (!conflict_list_) return false;
  for (int32_t p = 0; p < count; ++p) {
    int32_t at = conflict_first_[p];
    walk(p, count + p + 1, [&](int32_t other) { conflict_list_[at++] = other; });
  }
  return true;
}

namespace {

// Recolourings tried after the first colouring; each keeps or lowers the number of colours.
constexpr int32_t RECOLOUR_ROUNDS = 30;

// The pairs and their conflicts as the colourings see them.
struct conflict_view {
  const int32_t* first;
  const int32_t* list;
  int32_t count;
  int32_t degree(int32_t p) const { return first[p + 1] - first[p]; }
};

// Colours by saturation: the next pair coloured is the one whose conflicting pairs already show the
// most colours (then the one with the most conflicts, then the earlier), and it takes the smallest
// colour none of them has. Returns the number of colours, or -1 when memory is short.
int32_t colour_by_saturation(const conflict_view& g, int32_t* colour) {
  int32_t most = 0;
  for (int32_t p = 0; p < g.count; ++p)
    most = std::max(most, g.degree(p));
  const std::size_t words = static_cast<std::size_t>(most) / 64 + 1;  // colours 0..most
  auto shown = heap_allocate<uint64_t>(words * static_cast<std::size_t>(g.count));
  auto saturation = heap_allocate<int32_t>(g.count);
  if (!shown || !saturation) return -1;
  auto has = [&](int32_t p, int32_t c) { return (shown[p * words + c / 64] >> (c % 64) & 1u) != 0; };
  int32_t colours = 0;
  for (int32_t p = 0; p < g.count; ++p)
    colour[p] = -1;
  for (int32_t k = 0; k < g.count; ++k) {
    int32_t next = -1;
    for (int32_t p = 0; p < g.count; ++p) {
      if (colour[p] >= 0) continue;
      if (next < 0 || saturation[p] > saturation[next] ||
          (saturation[p] == saturation[next] && g.degree(p) > g.degree(next)))
        next = p;
    }
    int32_t c = 0;
    while (has(next, c))
      ++c;
    colour[next] = c;
    colours = std::max(colours, c + 1);
    for (int32_t i = g.first[next]; i < g.first[next + 1]; ++i) {
      const int32_t q = g.list[i];
      if (has(q, c)) continue;
      shown[q * words + c / 64] |= uint64_t{1} << (c % 64);
      ++saturation[q];
    }
  }
  return colours;
}

// Colours the pairs again, one colour class after the other in an order that depends on the round
// (last first, largest first, most conflicted first), each pair taking the smallest colour its
// conflicting pairs do not show yet. Taken class by class, a greedy colouring never needs more
// colours than the classes it follows, and often fewer. Returns the number of colours.
int32_t recolour(const conflict_view& g, int32_t round, int32_t colours, int32_t* colour, int32_t* order,
                 int32_t* rank, int32_t* mark) {
  for (int32_t c = 0; c < colours; ++c) {
    rank[c] = c;
    mark[c] = 0;
  }
  for (int32_t p = 0; p < g.count; ++p) {
    mark[colour[p]] += round % 3 == 1 ? 1 : g.degree(p);  // class size, or its conflicts
    order[p] = p;
  }
  std::sort(rank, rank + colours, [&](int32_t a, int32_t b) {
    if (round % 3 == 0) return a > b;
    return mark[a] != mark[b] ? mark[a] > mark[b] : a < b;
  });
  for (int32_t i = 0; i < colours; ++i)
    mark[rank[i]] = i;  // the position of each class
  std::sort(order, order + g.count, [&](int32_t a, int32_t b) {
    return mark[colour[a]] != mark[colour[b]] ? mark[colour[a]] < mark[colour[b]] : a < b;
  });
  for (int32_t p = 0; p < g.count; ++p)
    colour[p] = -1;
  for (int32_t c = 0; c <= colours; ++c)
    mark[c] = -1;
  int32_t used = 0;
  for (int32_t i = 0; i < g.count; ++i) {
    const int32_t p = order[i];
    for (int32_t k = g.first[p]; k < g.first[p + 1]; ++k) {
      if (colour[g.list[k]] >= 0) mark[colour[g.list[k]]] = p;
    }
    int32_t c = 0;
    while (mark[c] == p)
      ++c;
    colour[p] = c;
    used = std::max(used, c + 1);
  }
  return used;
}

}  // namespace

bool pair_neighbourhoods::turn_order(int32_t* order, int32_t* turns) const {
  const conflict_view g{conflict_first_.get(), conflict_list_.get(), count_};
  auto colour = heap_allocate<int32_t>(count_);
  auto rank = heap_allocate<int32_t>(static_cast<std::size_t>(count_) + 1);
  auto mark = heap_allocate<int32_t>(static_cast<std::size_t>(count_) + 1);
  if (!colour || !rank || !mark) return false;
  int32_t colours = colour_by_saturation(g, colour.get());
  if (colours < 0) return false;
  for (int32_t round = 0; round < RECOLOUR_ROUNDS && count_ > 0; ++round)
    colours = recolour(g, round, colours, colour.get(), order, rank.get(), mark.get());
  *turns = colours;
  for (int32_t p = 0; p < count_; ++p)
    order[p] = p;
  std::sort(order, order + count_, [&](int32_t a, int32_t b) {
    if (colour[a] != colour[b]) return colour[a] < colour[b];
    return conflicts(a) != conflicts(b) ? conflicts(a) > conflicts(b) : a < b;
  });
  return true;
}

bool pair_neighbourhoods::free(int32_t pair) const {
  return claims_[ends_[2 * pair]] == 0 && claims_[ends_[2 * pair + 1]] == 0;
}

void pair_neighbourhoods::mark_around(int32_t node, int32_t delta) {
  claims_[node] += delta;
  for (int32_t i = first_[node]; i < first_[node + 1]; ++i)
    claims_[adjacent_[i]] += delta;
}

void pair_neighbourhoods::claim(int32_t pair) {
  mark_around(ends_[2 * pair], 1);
  mark_around(ends_[2 * pair + 1], 1);
}

void pair_neighbourhoods::release(int32_t pair) {
  mark_around(ends_[2 * pair], -1);
  mark_around(ends_[2 * pair + 1], -1);
}

bool pair_turns::build(const node_tables* nodes, mesh_pair* const* pairs, int32_t count) {
  count_ = count;
  order_ = heap_allocate<int32_t>(count);
  state_ = heap_allocate<uint8_t>(count);
  ends_at_ = heap_allocate<int64_t>(count);
  reserved_for_ = heap_allocate<int64_t>(count);
  held_in_ = heap_allocate<int32_t>(count);
  if (!order_ || !state_ || !ends_at_ || !reserved_for_ || !held_in_) return false;
  if (!hoods_.build(nodes, pairs, count) || !hoods_.turn_order(order_.get(), &turns_)) return false;
  waiting_ = count;
  return true;
}

int32_t pair_turns::start_due(int64_t now, int64_t lasting, int32_t* out) {
  ++stamp_;
  const int64_t slack = lasting / 16;  // about one round
  int32_t started = 0;
  for (int32_t i = 0; i < count_; ++i) {
    const int32_t p = order_[i];
    if (state_[p] != WAITING) continue;
    bool held = !hoods_.free(p);
    int64_t earliest = now;
    hoods_.for_each_conflict(p, [&](int32_t q) {
      if (state_[q] == TRAINING) {
        earliest = std::max(earliest, ends_at_[q]);
      } else if (state_[q] == WAITING && held_in_[q] == stamp_ && now + lasting > reserved_for_[q] + slack) {
        // Starting now would hold back an earlier pair past its reservation: after that pair.
        held = true;
        earliest = std::max(earliest, reserved_for_[q] + lasting);
      }
    });
    if (held) {
      reserved_for_[p] = earliest;
      held_in_[p] = stamp_;
      continue;
    }
    hoods_.claim(p);
    state_[p] = TRAINING;
    ends_at_[p] = now + lasting;
    out[started++] = p;
    --waiting_;
    ++training_;
  }
  return started;
}

void pair_turns::end(int32_t pair, bool again) {
  if (state_[pair] != TRAINING) return;
  hoods_.release(pair);
  --training_;
  state_[pair] = again ? WAITING : ENDED;
  if (again) ++waiting_;
}
