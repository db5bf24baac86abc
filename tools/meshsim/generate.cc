// The random mesh generator.
#include "meshsim/generate.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "meshsim/radio.h"
#include "meshsim/topology.h"

namespace meshsim {
namespace {

constexpr double SPACING_M = 100.0;    // mean distance between nodes
constexpr double RANGE_M = 170.0;      // radio range
constexpr std::size_t MAX_LISTED = 5;  // neighbours a node lists at most
constexpr double PEAK_KBPS = 1200000;  // bitrate of a very short link at 0 dB
constexpr double FLOOR_KBPS = 20000;
constexpr int NODES_PER_SUBNET = 254;

struct spot {
  double x, y;
};

std::string node_ip(int a, int b, int k) {
  return "127." + std::to_string(a) + "." + std::to_string(b + k / NODES_PER_SUBNET) + "." +
         std::to_string(k % NODES_PER_SUBNET + 1);
}

std::string node_mac(int k) {
  char mac[18];
  std::snprintf(mac, sizeof mac, "02:5a:00:00:%02x:%02x", ((k + 1) >> 8) & 0xff, (k + 1) & 0xff);
  return mac;
}

double distance(const spot& p, const spot& q) {
  return std::hypot(p.x - q.x, p.y - q.y);
}

// The nodes each node lists: up to MAX_LISTED nearest in range, at least the nearest one.
std::vector<std::vector<int>> listed_neighbours(const std::vector<spot>& spots) {
  int count = static_cast<int>(spots.size());
  std::vector<std::vector<int>> listed(spots.size());
  for (int i = 0; i < count; ++i) {
    std::vector<int> others;
    for (int j = 0; j < count; ++j) {
      if (j != i) others.push_back(j);
    }
    std::sort(others.begin(), others.end(),
              [&](int a, int b) { return distance(spots[i], spots[a]) < distance(spots[i], spots[b]); });
    for (int j : others) {
      bool in_range = distance(spots[i], spots[j]) <= RANGE_M;
      if (listed[i].size() >= MAX_LISTED || (!in_range && !listed[i].empty())) break;
      listed[i].push_back(j);
    }
  }
  return listed;
}

bool lists(const std::vector<int>& list, int k) {
  return std::find(list.begin(), list.end(), k) != list.end();
}

int base_kbps(double metres) {
  double rate = PEAK_KBPS * std::exp(-metres / (RANGE_M / 2));
  return static_cast<int>(std::max(rate, FLOOR_KBPS));
}

void append(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void append(std::string* out, const char* format, ...) {
  char line[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  *out += line;
}

}  // namespace

int generate_topology(int count, uint64_t seed, const std::string& base, std::string* out,
                      std::string* error) {
  int a = 0, b = 0;
  char tail = 0;
  if (std::sscanf(base.c_str(), "127.%d.%d%c", &a, &b, &tail) != 2 || !is_loopback_node_ip(base + ".1")) {
    *error = "base must be 127.A.B";
    return -1;
  }
  if (count < 1 || count > GENERATE_MAX_NODES) {
    *error = "node count must be 1.." + std::to_string(GENERATE_MAX_NODES);
    return -1;
  }
  if (b + (count - 1) / NODES_PER_SUBNET > 255) {
    *error = "not enough addresses after " + base + " for " + std::to_string(count) + " nodes";
    return -1;
  }
  uint64_t rng = seed;
  double side = SPACING_M * std::sqrt(static_cast<double>(count));
  std::vector<spot> spots;
  for (int k = 0; k < count; ++k)
    spots.push_back(spot{random_unit(&rng) * side, random_unit(&rng) * side});
  std::vector<std::vector<int>> listed = listed_neighbours(spots);

  out->clear();
  append(out, "# %d random nodes, seed %llu\nseed %llu\n", count, static_cast<unsigned long long>(seed),
         static_cast<unsigned long long>(seed));
  for (int k = 0; k < count; ++k) {
    append(out, "node n%d %s %s\n", k + 1, node_ip(a, b, k).c_str(), node_mac(k).c_str());
    double g[PATTERN_COUNT];
    for (double& v : g)
      v = std::round((random_unit(&rng) * 12.0 - 6.0) * 10) / 10;
    append(out, "gains n%d %.1f %.1f %.1f %.1f\n", k + 1, g[0], g[1], g[2], g[3]);
  }
  for (int i = 0; i < count; ++i) {
    for (int j : listed[i]) {
      int rate = base_kbps(distance(spots[i], spots[j]));
      if (lists(listed[j], i) && j > i) append(out, "mesh n%d n%d %d\n", i + 1, j + 1, rate);
      if (lists(listed[j], i)) continue;
      append(out, "neighbour n%d n%d\nlink n%d n%d %d\n", i + 1, j + 1, i + 1, j + 1, rate);
    }
    // A node's clients are the nodes it hears of either way, so every node is someone's client.
    for (int j = 0; j < count; ++j) {
      if (lists(listed[i], j) || lists(listed[j], i))
        append(out, "client n%d %s\n", i + 1, node_mac(j).c_str());
    }
  }
  return 0;
}

}  // namespace meshsim
