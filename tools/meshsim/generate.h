// Random meshes for trials at scale: nodes scattered over a plane, each listing its nearest nodes
// in radio range as neighbours, which makes most links mutual and a few one-sided.
#ifndef ZUNTA_MESHSIM_GENERATE_H_
#define ZUNTA_MESHSIM_GENERATE_H_

#include <cstdint>
#include <string>

namespace meshsim {

constexpr int GENERATE_MAX_NODES = 5000;

// Writes a topology of `count` nodes to *out. Node k (0-based) is "n<k+1>" with MAC
// 02:5a:00:00:HH:LL (HH:LL = k + 1) and an IP counted from base.1 ("127.A.B"): 254 nodes per /24,
// then 127.A.(B+1).1 and so on. Every node reports the MACs of the nodes it lists as neighbours as
// its clients, so every node is a mesh node. The same count, seed and base give the same text.
// Returns 0, or -1 with the reason in *error (bad base, count out of range, addresses exhausted).
int generate_topology(int count, uint64_t seed, const std::string& base, std::string* out,
                      std::string* error);

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_GENERATE_H_
