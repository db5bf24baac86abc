// The radio model: what a node's agent measures on its link to a peer, given the patterns both
// ends use at the time of the measurement.
//
// The pattern of the peer is its receive pattern when command 11 set one, else its pattern towards
// the measuring node. With a table, the bitrate is table[own pattern][peer pattern]. With the gain
// model it is base * 10^((own gain + peer gain + skew) / 20) kbit/s, where skew is a fixed offset in
// -2..+2 dB drawn from the seed, the two MACs and the two patterns, so that links differ in their
// best patterns. Noise, when set, scales each measurement by a seeded factor in 1 +- noise %.
#ifndef ZUNTA_MESHSIM_RADIO_H_
#define ZUNTA_MESHSIM_RADIO_H_

#include <cstdint>

#include "meshsim/topology.h"

namespace meshsim {

constexpr int MEASURE_SECONDS = 6;  // the nominal measurement that the figures describe
constexpr int FRAME_KBIT = 12;      // one 1500-byte frame

struct measurement {
  int avg_bitrate = 0;  // exponential average, kbit/s
  int nframes = 0;
  int nfeedback = 0;
  int avg_bitrate_ma = 0;  // moving average, kbit/s: the model value (times the noise factor)
};

// The pattern the peer uses towards `self` in the model.
int peer_pattern(const node& peer, const node& self);

// The model bitrate in kbit/s of the link self -> peer with the current patterns.
int model_bitrate(const topology& topo, const node& self, const node& peer, const link_model& link);

// One measurement of the link: the model value with noise drawn from *rng, and the figures derived
// from it (see the README). Carries the exponential average in link.last_avg.
measurement measure(const topology& topo, const node& self, const node& peer, link_model& link,
                    uint64_t* rng);
// The same from a given model value in kbit/s (the model bitrate after interference).
measurement measure_rate(const topology& topo, double model_kbps, link_model& link, uint64_t* rng);

// Deterministic generator used for the noise and by the topology generator.
uint64_t next_random(uint64_t* state);
double random_unit(uint64_t* state);  // in [0, 1)

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_RADIO_H_
