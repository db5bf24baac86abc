// The interference model: a measurement loses bitrate while another measurement runs at an
// overlapping time on a pair within two hops of its own, the more the higher the gain of the other
// measuring node's pattern. Farther or at other times, measurements do not affect each other.
#ifndef ZUNTA_MESHSIM_INTERFERENCE_H_
#define ZUNTA_MESHSIM_INTERFERENCE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "meshsim/topology.h"

namespace meshsim {

// Interference power of one measuring node on a 0 dB pattern, against a signal of 1: such a node
// halves the bitrate, one on a +10 dB pattern leaves 1/11 of it, one on -10 dB leaves 10/11.
constexpr double INTERFERER_POWER_AT_0_DB = 1.0;

// Starts n's window towards peer_mac (any case) at t_ms, unless one is open already: a command 8
// after the command 4 towards the same peer continues the window.
void open_window(topology& topo, node& n, const std::string& peer_mac, int64_t t_ms);

// Stops every open window of n at t_ms and returns them in their start order, each with the share of
// its bitrate that interference left. Keeps, of the stopped windows, those that a window still open
// overlaps, and drops the others.
std::vector<measure_window> close_windows(topology& topo, node& n, int64_t t_ms);

// Whether two windows ran at an overlapping time (an open window runs on). Decided by the sequence
// numbers, so a window that starts right after another stopped never overlaps it.
bool windows_overlap(const measure_window& a, const measure_window& b);

// Whether the pairs a1-a2 and b1-b2 (node names) are within two hops: a node of one is a node of
// the other or a neighbour of one, in either direction. Neighbours are those of the neighbour
// statements on a radio (a radio of -1 does not count, as the coordinator drops such lines). False
// when a name is unknown.
bool pairs_within_two_hops(const topology& topo, const std::string& a1, const std::string& a2,
                           const std::string& b1, const std::string& b2);

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_INTERFERENCE_H_
