// A whole document replacing a file: written to a new file beside the target and renamed over it,
// so that a reader opening the target finds the previous document or the new one, never a part.
#ifndef ZUNTA_CORE_ATOMIC_FILE_H_
#define ZUNTA_CORE_ATOMIC_FILE_H_

#include <cstdio>

#include "core/fd.h"
#include "core/runtime.h"

class replacement_file {
 public:
  replacement_file() = default;
  ~replacement_file();  // a new file that was not committed is removed
  replacement_file(const replacement_file&) = delete;
  replacement_file& operator=(const replacement_file&) = delete;

  // Creates the new file in the directory of `path` under a fresh name, exclusively (a link or any
  // other file already there is never opened), mode 0644. 0, or -1 with errno set.
  [[nodiscard]] int open(const char* path);
  // Where the document is written; valid after a successful open.
  std::FILE* stream() const { return file_.get(); }
  // Checks every write, closes the new file and renames it over the target (a link there is
  // replaced, not followed). 0, or -1 with errno set, the new file removed and the target as it was.
  // `durable`: the new file reaches the storage before the rename, and the rename before the return,
  // for documents that must outlive a power cut.
  [[nodiscard]] int commit(bool durable = false);

 private:
  void discard();
  void sync_directory() const;

  unique_file file_;
  char target_[RUNTIME_PATH_SIZE] = {};
  char temp_[RUNTIME_PATH_SIZE + 8] = {};  // the target's name plus ".XXXXXX"
};

#endif  // ZUNTA_CORE_ATOMIC_FILE_H_
