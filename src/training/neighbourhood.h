// Which pairs of a training pass may measure at the same time. Two pairs are within two hops when
// a node of one is a node of the other, or a neighbour of one in either direction by the neighbour
// lists the nodes reported; such pairs never train at once. Pairs further apart do not hear each
// other's measurements, so each pair measures what it would measure alone.
#ifndef ZUNTA_TRAINING_NEIGHBOURHOOD_H_
#define ZUNTA_TRAINING_NEIGHBOURHOOD_H_

#include <cstdint>

#include "core/heap.h"

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
  // How many other pairs of the pass lie within two hops of `pair`, and which.
  int32_t conflicts(int32_t pair) const { return conflict_first_[pair + 1] - conflict_first_[pair]; }
  template <typename F>
  void for_each_conflict(int32_t pair, F f) const {
    for (int32_t i = conflict_first_[pair]; i < conflict_first_[pair + 1]; ++i)
      f(conflict_list_[i]);
  }
  // Writes every pair into `order` (count entries) by turns: a colouring of the pairs in which no
  // two within two hops share a colour, taken colour by colour, and within one colour the pairs
  // with the most conflicts first (then by index); *turns receives the number of colours. The
  // colouring is made by saturation and then improved class by class; its colours come close to
  // the largest set of mutually conflicting pairs, below which no order can go. False when memory
  // is short.
  bool turn_order(int32_t* order, int32_t* turns) const;

 private:
  // Node n's own claim and its neighbours': `delta` on each of them.
  void mark_around(int32_t node, int32_t delta);
  bool list_conflicts(int32_t count);

  int32_t node_count_ = 0;              // nodes of the graph, then one per unknown pair end
  heap_array<int32_t> first_;           // node i's neighbours are adjacent_[first_[i] .. first_[i + 1])
  heap_array<int32_t> adjacent_;        // each listing in both directions
  heap_array<int32_t> ends_;            // pair p's nodes are ends_[2p] and ends_[2p + 1]
  heap_array<int32_t> claims_;          // per node: training pairs that hold it
  int32_t count_ = 0;                   // pairs
  heap_array<int32_t> conflict_first_;  // pair p's conflicts: conflict_list_[first[p] .. first[p + 1])
  heap_array<int32_t> conflict_list_;
};

// When each pair of a pass trains. A waiting pair starts as soon as no training pair is within two
// hops of it, taking its turn in the turn order (pair_neighbourhoods::turn_order), with one
// exception that keeps the busiest neighbourhoods busy: a pair does not start when it would still
// be training after an earlier pair within two hops of it could have started (the reservation of
// that pair, estimated from how long pairs last), so the pairs of a dense neighbourhood follow each
// other without gaps. Which pair starts when changes nothing that a pair measures: pairs within
// two hops never train at once.
class pair_turns {
 public:
  bool build(const node_tables* nodes, mesh_pair* const* pairs, int32_t count);
  // Writes into `out` the waiting pairs that start at `now` (microseconds) when a pair lasts about
  // `lasting`, and counts them as training from now on. Returns how many.
  int32_t start_due(int64_t now, int64_t lasting, int32_t* out);
  // The pair has ended (or, `again`, could not start after all and waits again): its neighbourhood
  // is free for the others.
  void end(int32_t pair, bool again);
  int32_t waiting() const { return waiting_; }
  int32_t training() const { return training_; }
  int32_t conflicts(int32_t pair) const { return hoods_.conflicts(pair); }
  // The turns of the order: with every pair lasting the same, the pass lasts this many pairs.
  int32_t turns() const { return turns_; }

 private:
  enum : uint8_t { WAITING, TRAINING, ENDED };
  pair_neighbourhoods hoods_;
  int32_t count_ = 0;
  int32_t waiting_ = 0;
  int32_t training_ = 0;
  int32_t turns_ = 0;
  int32_t stamp_ = 0;                 // one per call of start_due
  heap_array<int32_t> order_;         // the turn order
  heap_array<uint8_t> state_;         // per pair
  heap_array<int64_t> ends_at_;       // a training pair's estimated end
  heap_array<int64_t> reserved_for_;  // a held pair's earliest start
  heap_array<int32_t> held_in_;       // the stamp of the call that held it
};

#endif  // ZUNTA_TRAINING_NEIGHBOURHOOD_H_
