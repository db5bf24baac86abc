// Documents replaced whole: a new file beside the target, renamed over it.
#include "core/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/text.h"

replacement_file::~replacement_file() {
  discard();
}

void replacement_file::discard() {
  if (temp_[0] == '\0') return;
  int saved = errno;  // the caller reads the errno of the failure, not of the clean-up
  file_.reset();
  ::unlink(temp_);
  temp_[0] = '\0';
  errno = saved;
}

// The rename is done; a directory that cannot be synced costs at worst the previous document after a
// power cut, so its failure is not reported.
void replacement_file::sync_directory() const {
  char dir[RUNTIME_PATH_SIZE] = ".";
  const char* slash = std::strrchr(target_, '/');
  if (slash != nullptr) {
    const std::size_t len = slash == target_ ? 1 : static_cast<std::size_t>(slash - target_);
    std::memcpy(dir, target_, len);
    dir[len] = '\0';
  }
  unique_fd fd(::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.valid()) fsync(fd.get());
}

int replacement_file::open(const char* path) {
  discard();
  if (path == nullptr || !zunta_copy_text(target_, path) ||
      !zunta_format_buffer(temp_, sizeof temp_, "%s.XXXXXX", path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  // mkostemp creates with O_EXCL, so nothing planted under the name is ever opened; its mode
  // 0600 is widened because other processes read the documents.
  unique_fd fd(mkostemp(temp_, O_CLOEXEC));
  if (!fd.valid()) {
    temp_[0] = '\0';
    return -1;
  }
  if (fchmod(fd.get(), 0644) != 0) {
    ::unlink(temp_);
    temp_[0] = '\0';
    return -1;
  }
  file_.reset(fdopen(fd.get(), "w"));
  if (!file_) {
    ::unlink(temp_);
    temp_[0] = '\0';
    return -1;
  }
  fd.release();
  return 0;
}

// No fsync unless asked: the status documents live in /tmp, which does not outlive a reboot, and
// readers need a complete file, which the rename gives them; syncing several times a cycle would only
// wear the flash where /tmp is not in memory.
int replacement_file::commit(bool durable) {
  if (!file_) {
    errno = EBADF;
    return -1;
  }
  int error = 0;
  if (std::ferror(file_.get()) != 0) error = errno != 0 ? errno : EIO;
  if (std::fflush(file_.get()) != 0 && error == 0) error = errno;
  if (durable && error == 0 && fsync(fileno(file_.get())) != 0) error = errno;
  // fclose's result is the last word on whether the writes reached the file.
  if (std::fclose(file_.release()) != 0 && error == 0) error = errno;
  if (error == 0 && std::rename(temp_, target_) != 0) error = errno;
  if (error == 0) {
    temp_[0] = '\0';
    if (durable) sync_directory();
    return 0;
  }
  errno = error;
  discard();
  return -1;
}
