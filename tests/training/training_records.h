// Records for the training tests: node n is 127.0.6.n with the MAC aa:00:00:00:06:nn.
#ifndef ZUNTA_TESTS_TRAINING_TRAINING_RECORDS_H_
#define ZUNTA_TESTS_TRAINING_TRAINING_RECORDS_H_

#include "core/text.h"
#include "meshpair/meshpair.h"

inline void name_node(char (&ip)[IP_TEXT_SIZE], char (&mac)[MAC_TEXT_SIZE], int n) {
  zunta_format_buffer(ip, sizeof ip, "127.0.6.%d", n);
  zunta_format_buffer(mac, sizeof mac, "aa:00:00:00:06:%02d", n);
}

// A mesh_pair or trained_mesh_pair of nodes left and right on radio 2, unlinked, with this block.
template <typename T>
T pair_of(int left, int right, txcs_block* block) {
  T p = {};
  name_node(p.left_ip, p.left_mac, left);
  name_node(p.right_ip, p.right_mac, right);
  p.radioidx = 2;
  p.txcs = block;
  return p;
}

#endif  // ZUNTA_TESTS_TRAINING_TRAINING_RECORDS_H_
