// A node agent's side of one command: reading the command line out of the 1024-byte frame, acting
// on it, and planning what goes back on the connection. Answers are built from the wire formats
// alone:
//   command 1  "mac,radioidx,pattern\n" per neighbour
//   command 5  "mac,radio,0x<pattern>,avg_bitrate,nframes,nfeedback,avg_bitrate_ma\n" per peer
//   command 9  one client line per client, "mac[,extra...]\n"
// then "ack" (or "nack") in a send of its own.
#ifndef ZUNTA_MESHSIM_AGENT_H_
#define ZUNTA_MESHSIM_AGENT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "meshsim/topology.h"

namespace meshsim {

constexpr std::size_t FRAME_SIZE = 1024;  // every command arrives as exactly this many bytes

struct command_line {
  int index = -1;
  int value = 0;
  std::string arg1, arg2;
};

// The text of a frame before its first line feed; *complete tells whether there was one.
std::string frame_line(const std::string& frame, bool* complete);

// Parses "%d,%d,%s %s": two decimal integers each followed by a comma, then two words without
// blanks separated by one blank. Returns false for anything else.
bool parse_command_line(const std::string& line, command_line* out);

// What acting on a command needs besides the topology and the node.
struct command_context {
  int64_t t_ms = 0;         // when the command arrived, ms since the simulator started
  uint64_t* rng = nullptr;  // the measurement noise generator
};

struct step {
  enum class kind { send, wait, close, hold } what = kind::close;
  std::string bytes;  // send
  int ms = 0;         // wait
};

struct answer_plan {
  std::vector<step> steps;
  std::string kind;  // what was sent, for the record: ack, text+ack, nack, silent, no_marker, ...
  std::string note;  // something worth logging (a refused command, an unknown peer); may be empty
  std::vector<measure_window> closed;  // measurement windows that the command stopped
};

// Acts on one received frame for node n (faults included) and plans the answer. `cmd` is null
// when the command line was malformed.
answer_plan answer_command(topology& topo, node& n, const command_line* cmd, int marker_gap_ms,
                           const command_context& ctx);

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_AGENT_H_
