// Points standard output at a temporary file for the life of the object, so tests can read what
// the logger printed.
#ifndef ZUNTA_TESTS_SUPPORT_CAPTURE_STDOUT_H_
#define ZUNTA_TESTS_SUPPORT_CAPTURE_STDOUT_H_

#include <string>

class capture_stdout {
 public:
  capture_stdout();
  ~capture_stdout();
  capture_stdout(const capture_stdout&) = delete;
  capture_stdout& operator=(const capture_stdout&) = delete;
  // Everything printed since construction (standard output is flushed first).
  std::string text();

 private:
  int saved_fd_ = -1;
  std::string path_;
};

// Raises every log component to `level` while in scope (the daemon runs at level 2).
class log_level_scope {
 public:
  explicit log_level_scope(int level);
  ~log_level_scope();

 private:
  int saved_[9];
};

#endif  // ZUNTA_TESTS_SUPPORT_CAPTURE_STDOUT_H_
