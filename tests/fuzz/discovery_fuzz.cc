// Discovery answers into aths: one answer as the collection keeps it (at most 64 bytes, up to its
// first NUL, then a line feed), or a whole collection. Built twice, once per form.
#include <cstdlib>

#include "commander/transport.h"
#include "coordinator/coordinator.h"
#include "coordinator/discovery.h"
#include "fuzz_support.h"
#include "registry/ath.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static char collection[BROADCAST_BUFFER_SIZE];
#ifdef ZUNTA_FUZZ_ONE_ANSWER
  std::size_t len = strnlen(reinterpret_cast<const char*>(data),
                            size < DISCOVERY_ANSWER_SIZE ? size : DISCOVERY_ANSWER_SIZE);
  std::memcpy(collection, data, len);
  collection[len] = '\n';
  collection[len + 1] = '\0';
#else
  fuzz_fill(collection, data, size);
#endif
  struct coordinator c = {};
  INIT_SA_LIST_HEAD(&c.ath_list);
  INIT_SA_LIST_HEAD(&c.module_client_list);
  zunta_parse_broadcast_message(&c, collection);
  int32_t count = 0;
  sa_list_for_each_entry(a, &c.ath_list, ath, list) {
    if (a->ip[IP_TEXT_SIZE - 1] != '\0' || a->mac[MAC_TEXT_SIZE - 1] != '\0') __builtin_trap();
    ++count;
  }
  if (count != c.ath_count) __builtin_trap();
  zunta_flush_ath(&c);
  sa_list_for_each_entry_safe(m, &c.module_client_list, module_client, list) std::free(m);
  return 0;
}
