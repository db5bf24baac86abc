// Tables on the C heap that free themselves. calloc never throws: a failed allocation is an empty
// pointer that the caller tests, as everywhere else in the daemon.
#ifndef ZUNTA_CORE_HEAP_H_
#define ZUNTA_CORE_HEAP_H_

#include <cstddef>
#include <cstdlib>
#include <memory>

struct free_deleter {
  void operator()(void* p) const { std::free(p); }
};

template <typename T>
using heap_array = std::unique_ptr<T[], free_deleter>;

// `count` zeroed elements; at least one, so that an empty table is not taken for a failure.
template <typename T>
heap_array<T> heap_allocate(std::size_t count) {
  return heap_array<T>(static_cast<T*>(std::calloc(count == 0 ? 1 : count, sizeof(T))));
}

#endif  // ZUNTA_CORE_HEAP_H_
