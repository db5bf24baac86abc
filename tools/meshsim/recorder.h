// The simulator's record of everything the agents and the discovery responder received, and of
// every measurement window once it stopped, kept in order in memory and written as JSON lines to an
// optional file (flushed per line).
#ifndef ZUNTA_MESHSIM_RECORDER_H_
#define ZUNTA_MESHSIM_RECORDER_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "core/fd.h"
#include "meshsim/topology.h"

namespace meshsim {

struct command_record {
  int64_t t_ms = 0;    // milliseconds since the simulator started
  std::string source;  // "agent" or "discovery"
  std::string node;    // node name (agent); empty for discovery
  std::string ip;      // node IP (agent) or the requester's "ip:port" (discovery)
  std::string line;    // command line before its line feed, or the discovery payload before its NUL
  int index = -1;      // command index; -1 when the line was malformed, and for discovery
  int value = 0;
  std::string arg1, arg2;
  std::size_t frame_len = 0;  // bytes received
  std::string answer;         // ack, text+ack, nack, silent, no_marker, cut, same_send, short_frame,
                              // no_node; "answers N" for discovery
};

using record_predicate = std::function<bool(const std::vector<command_record>&)>;

class recorder {
 public:
  // Opens (truncates) the JSON lines file. Returns 0, or -1 with the reason in *error.
  int open(const std::string& path, std::string* error);
  void add(command_record r);
  void add_window(measure_window w);  // a stopped window
  std::vector<command_record> copy() const;
  std::vector<measure_window> windows() const;  // in the order they stopped
  void clear();                                 // records and windows
  // Waits until pred holds for the records (checked at once and after each new record), at most
  // timeout_ms. Returns whether it held. pred runs with the record lock held: it must not call
  // back into the recorder or the simulator's record methods.
  bool wait_for(const record_predicate& pred, int timeout_ms) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<command_record> records_;
  std::vector<measure_window> windows_;
  unique_file file_;
};

// One record as a JSON object on one line, without the line feed.
std::string record_json(const command_record& r);
std::string window_json(const measure_window& w);

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_RECORDER_H_
