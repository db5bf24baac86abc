// The command 1, 5 and 9 answer parsers over any answer text of up to 1023 characters. Built once
// per command (ZUNTA_FUZZ_COMMAND).
#include <cstdlib>

#include "commander/transport.h"
#include "fuzz_support.h"
#include "registry/ath.h"
#include "training/training.h"

namespace {

constexpr char PEER_MAC[] = "aa:bb:cc:dd:ee:02";

void parse_mesh_list(char (&answer)[ANSWER_SIZE]) {
  ath a = {};
  INIT_SA_LIST_HEAD(&a.neighbours);
  zunta_parse_mesh_list(&a, answer);
  sa_list_for_each_entry(n, &a.neighbours, neighbour, list) {
    if (n->mac[MAC_TEXT_SIZE - 1] != '\0' || n->radioidx == -1) __builtin_trap();
  }
  zunta_flush_ath_neighbors(&a);
}

void parse_result(char (&answer)[ANSWER_SIZE]) {
  round_result_line line = {};
  if (zunta_find_result_line(answer, PEER_MAC, &line) &&
      (std::strcmp(line.mac, PEER_MAC) != 0 || line.pattern < 0))
    __builtin_trap();
}

void parse_client_list(char (&answer)[ANSWER_SIZE]) {
  node_tables t = {};
  INIT_SA_LIST_HEAD(&t.ath_list);
  INIT_SA_LIST_HEAD(&t.module_client_list);
  ath a = {};
  zunta_copy_text(a.ip, "127.0.0.1");
  zunta_save_client_macs(&t, answer, &a);
  sa_list_for_each_entry_safe(m, &t.module_client_list, module_client, list) {
    if (m->mac[0] == '\0' || m->mac[MAC_TEXT_SIZE - 1] != '\0') __builtin_trap();
    std::free(m);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  char answer[ANSWER_SIZE];
  fuzz_fill(answer, data, size);
  constexpr int INDEX = ZUNTA_FUZZ_COMMAND;
  static_assert(INDEX == 1 || INDEX == 5 || INDEX == 9, "commands 1, 5 and 9 have answer parsers");
  (INDEX == 1 ? parse_mesh_list : INDEX == 5 ? parse_result : parse_client_list)(answer);
  return 0;
}
