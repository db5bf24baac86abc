#include "support/capture_stdout.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "core/log.h"
#include "support/test_env.h"

capture_stdout::capture_stdout() {
  static int serial = 0;
  path_ = test_dir() + "/stdout-" + std::to_string(++serial) + ".txt";
  std::fflush(stdout);
  saved_fd_ = dup(STDOUT_FILENO);
  int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  dup2(fd, STDOUT_FILENO);
  close(fd);
}

capture_stdout::~capture_stdout() {
  std::fflush(stdout);
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  unlink(path_.c_str());
}

std::string capture_stdout::text() {
  std::fflush(stdout);
  return read_file(path_);
}

log_level_scope::log_level_scope(int level) {
  for (int c = 0; c < LOG_COMPONENT_COUNT; ++c) {
    saved_[c] = global_log.components[c].level;
    global_log.components[c].level = level;
  }
}

log_level_scope::~log_level_scope() {
  for (int c = 0; c < LOG_COMPONENT_COUNT; ++c)
    global_log.components[c].level = saved_[c];
}
