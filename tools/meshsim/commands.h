// What a node's agent does for each command index, and the answer text it builds.
#ifndef ZUNTA_MESHSIM_COMMANDS_H_
#define ZUNTA_MESHSIM_COMMANDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "meshsim/agent.h"
#include "meshsim/topology.h"

namespace meshsim {

struct reply {
  bool accepted = false;               // false: the agent answers "nack"
  std::string text;                    // answer lines, each ended by a line feed
  std::string note;                    // reason of a refusal or something odd, for the log
  std::vector<measure_window> closed;  // measurement windows that command 5 stopped
};

// Acts on a well-formed command line: changes the node's state and builds the answer text.
reply act_on_command(topology& topo, node& n, const command_line& cmd, const command_context& ctx);

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_COMMANDS_H_
