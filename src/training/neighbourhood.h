// Which pairs of a training pass may measure at the same time. Two pairs are within two hops when
// a node of one is a node of the other, or a neighbour of one in either direction by the neighbour
// lists the nodes reported; such pairs never train at once. Pairs further apart do not hear each
// other's measurements, so each pair measures what it would measure alone.
#ifndef ZUNTA_TRAINING_NEIGHBOURHOOD_H_
#define ZUNTA_TRAINING_NEIGHBOURHOOD_H_

#include <cstdint>
#include <cstdlib>
#include <memory>

struct mesh_pair;
struct node_tables;

class pair_neighbourhoods {
 public:
  // Learns the pairs (by their MACs, in any letter case) and the nodes' neighbour lists. A pair end
  // that no ath has and no ath lists is a node heard by nobody. False when memory is short.
  bool build(const node_tables* nodes, mesh_pair* const* pairs, int32_t count);

  // No pair that has claimed its neighbourhood (see claim) is within two hops of `pair`.
  bool free(int32_t pair) const;
  // The pair starts training: no pair within two hops of it is free until it is released.
  void claim(int32_t pair);
  void release(int32_t pair);
  // How many other pairs of the pass lie within two hops of `pair`.
  int32_t conflicts(int32_t pair) const { return conflicts_[pair]; }

  struct free_deleter {
    void operator()(void* p) const { std::free(p); }
  };
  template <typename T>
  using heap_array = std::unique_ptr<T[], free_deleter>;

 private:
  // Node n's own claim and its neighbours': `delta` on each of them.
  void mark_around(int32_t node, int32_t delta);
  bool count_conflicts(int32_t count);

  int32_t node_count_ = 0;         // nodes of the graph, then one per unknown pair end
  heap_array<int32_t> first_;      // node i's neighbours are adjacent_[first_[i] .. first_[i + 1])
  heap_array<int32_t> adjacent_;   // each listing in both directions
  heap_array<int32_t> ends_;       // pair p's nodes are ends_[2p] and ends_[2p + 1]
  heap_array<int32_t> claims_;     // per node: training pairs that hold it
  heap_array<int32_t> conflicts_;  // per pair
};

#endif  // ZUNTA_TRAINING_NEIGHBOURHOOD_H_
