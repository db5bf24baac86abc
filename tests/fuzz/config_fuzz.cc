// A configuration file of any content, read through the reader's own file path (a memory file).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "coordinator/options.h"
#include "core/fd.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  unique_fd file(memfd_create("zunta.conf", MFD_CLOEXEC));
  if (!file.valid()) return 0;
  for (std::size_t done = 0; done < size;) {
    ssize_t n = write(file.get(), data + done, size - done);
    if (n <= 0) return 0;
    done += static_cast<std::size_t>(n);
  }
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", file.get());
  options opts = {};
  zunta_init_config_options(&opts);
  zunta_config_load_options(path, &opts);
  if (opts.broadcast_address[sizeof opts.broadcast_address - 1] != '\0') __builtin_trap();
  if (opts.training_start_hour < 0 || opts.training_start_hour > 23) __builtin_trap();
  return 0;
}
