// Bitrates of the radio model and the figures of one measurement.
#include "meshsim/radio.h"

#include <cmath>

namespace meshsim {
namespace {

constexpr double MAX_KBPS = 2.0e9;         // keeps every figure within 32 bits
constexpr double SKEW_RANGE_DB = 2.0;      // gain-model skew of a pattern pair, +-
constexpr double EXP_KEEP = 0.449;         // (7/8)^6: a 1/8 weight per second over the 6-s measurement
constexpr int FEEDBACK_LOSS_DIVISOR = 32;  // about 3 % of the frames get no feedback

uint64_t mix(uint64_t h, const std::string& text) {
  for (unsigned char c : text)
    h = (h ^ c) * 0x100000001b3ULL;  // FNV-1a
  return h;
}

double skew_db(uint64_t seed, const node& self, const node& peer, int own, int theirs) {
  uint64_t h = mix(0xcbf29ce484222325ULL ^ seed, lower_text(self.mac));
  h = mix(h, lower_text(peer.mac));
  h = (h ^ static_cast<uint64_t>(own * PATTERN_COUNT + theirs)) * 0x100000001b3ULL;
  uint64_t state = h;
  return (random_unit(&state) * 2.0 - 1.0) * SKEW_RANGE_DB;
}

int clamp_kbps(double v) {
  if (!(v > 0)) return 0;
  return static_cast<int>(std::lround(std::fmin(v, MAX_KBPS)));
}

}  // namespace

uint64_t next_random(uint64_t* state) {  // splitmix64
  uint64_t z = (*state += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

double random_unit(uint64_t* state) {
  return static_cast<double>(next_random(state) >> 11) * 0x1.0p-53;
}

int peer_pattern(const node& peer, const node& self) {
  if (peer.rx_pattern >= 0 && peer.rx_pattern < PATTERN_COUNT) return peer.rx_pattern;
  return tx_pattern_of(peer, self.mac);
}

int model_bitrate(const topology& topo, const node& self, const node& peer, const link_model& link) {
  int own = tx_pattern_of(self, peer.mac);
  int theirs = peer_pattern(peer, self);
  if (link.has_table) return link.table[own][theirs];
  double db = self.gains_db[own] + peer.gains_db[theirs] + skew_db(topo.seed, self, peer, own, theirs);
  return clamp_kbps(link.base_kbps * std::pow(10.0, db / 20.0));
}

measurement measure(const topology& topo, const node& self, const node& peer, link_model& link,
                    uint64_t* rng) {
  return measure_rate(topo, model_bitrate(topo, self, peer, link), link, rng);
}

measurement measure_rate(const topology& topo, double model_kbps, link_model& link, uint64_t* rng) {
  double rate = model_kbps;
  if (topo.noise_percent > 0) rate *= 1.0 + topo.noise_percent / 100.0 * (random_unit(rng) * 2.0 - 1.0);
  measurement m;
  m.avg_bitrate_ma = clamp_kbps(rate);
  double before = link.last_avg < 0 ? m.avg_bitrate_ma : link.last_avg;
  double avg = m.avg_bitrate_ma + (before - m.avg_bitrate_ma) * EXP_KEEP;
  link.last_avg = avg;
  m.avg_bitrate = clamp_kbps(avg);
  m.nframes = static_cast<int>(static_cast<int64_t>(m.avg_bitrate_ma) * MEASURE_SECONDS / FRAME_KBIT);
  m.nfeedback = m.nframes - m.nframes / FEEDBACK_LOSS_DIVISOR;
  return m;
}

}  // namespace meshsim
