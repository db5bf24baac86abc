// Test-wide settings: the time scale, the agent port and a private directory for every file the
// code under test writes. main.cc applies them before any test runs.
#ifndef ZUNTA_TESTS_SUPPORT_TEST_ENV_H_
#define ZUNTA_TESTS_SUPPORT_TEST_ENV_H_

#include <sys/resource.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

constexpr double TEST_TIME_SCALE = 0.05;  // a 3-s socket time-out becomes 150 ms

// The agent port of the in-process tests; each test program listens on its own 127.0.N.x range.
uint16_t test_agent_port();
// A directory private to this test process, removed at exit.
const std::string& test_dir();
// Reads a whole file; empty when it cannot be read.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);
// The names in a directory that begin with `prefix`, sorted.
std::vector<std::string> dir_entries(const std::string& dir, const std::string& prefix);

// Caps the size of every file this process writes while in scope, as a full disk would: a write
// past `bytes` fails with EFBIG (SIGXFSZ is ignored meanwhile).
class file_size_limit {
 public:
  explicit file_size_limit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit cap = {bytes, saved_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &cap);
  }
  ~file_size_limit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, old_handler_);
  }
  file_size_limit(const file_size_limit&) = delete;
  file_size_limit& operator=(const file_size_limit&) = delete;

 private:
  rlimit saved_{};
  void (*old_handler_)(int) = nullptr;
};

#endif  // ZUNTA_TESTS_SUPPORT_TEST_ENV_H_
