// Every harness links this: logging at the most verbose level into /dev/null, and connect()
// refused for everything (the harnesses are linked with --wrap=connect), so parsers that make
// agent exchanges never reach a network.
#include "fuzz_support.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>

#include "core/log.h"

namespace {

struct quiet_log {
  quiet_log() {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return;
    log_init(LVL_A, -1);
  }
};
const quiet_log g_quiet_log;

}  // namespace

extern "C" int __wrap_connect(int, const sockaddr*, socklen_t) {
  errno = ECONNREFUSED;
  return -1;
}

std::vector<char> fuzz_text(const uint8_t* data, std::size_t size, std::size_t limit) {
  if (limit != 0 && size > limit) size = limit;
  std::vector<char> text(data, data + size);
  text.push_back('\0');
  return text;
}
