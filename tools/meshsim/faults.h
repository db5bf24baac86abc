// Faults a node's agent can be told to show, set by "fault" statements.
#ifndef ZUNTA_MESHSIM_FAULTS_H_
#define ZUNTA_MESHSIM_FAULTS_H_

#include <string>
#include <vector>

#include "meshsim/topology.h"

namespace meshsim {

// Applies "fault NAME KIND [ARG] [on=I,J,...]", "fault NAME KIND off" or "fault NAME none" to the
// node named in words[1] (already resolved to n). A fault of a kind the node has is replaced.
// Returns 0, or -1 with the reason in *error.
int apply_fault(node& n, const std::vector<std::string>& words, std::string* error);

// The node's fault of `kind` that applies to command `index` (-1: any command), or null.
fault* find_fault(node& n, fault_kind kind, int index);
const fault* find_fault(const node& n, fault_kind kind, int index);

const char* fault_name(fault_kind kind);

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_FAULTS_H_
