// Owners for one descriptor and one C stream: closed on every path out of the scope.
#ifndef ZUNTA_CORE_FD_H_
#define ZUNTA_CORE_FD_H_

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  ~unique_fd() { reset(); }
  unique_fd(const unique_fd&) = delete;  // one owner; moving hands it over
  unique_fd& operator=(const unique_fd&) = delete;
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct file_closer {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using unique_file = std::unique_ptr<std::FILE, file_closer>;

#endif  // ZUNTA_CORE_FD_H_
