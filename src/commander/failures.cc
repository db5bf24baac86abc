// The failure counts, in a fixed open-addressing table keyed by the IPv4 address.
#include "commander/failures.h"

#include <arpa/inet.h>

namespace {

struct failure_slot {
  uint32_t address;  // network order; 0 marks a free slot (0.0.0.0 is never an agent)
  uint32_t failures;
};

failure_slot g_failures[FAILURE_TABLE_SLOTS];

// The slot of the address, or of the free place where it would go; null when the table is full.
failure_slot* find_slot(uint32_t address) {
  uint32_t h = address * 2654435761u;
  for (int32_t probe = 0; probe < FAILURE_TABLE_SLOTS; ++probe) {
    failure_slot& slot = g_failures[(h + static_cast<uint32_t>(probe)) % FAILURE_TABLE_SLOTS];
    if (slot.address == address || slot.address == 0) return &slot;
  }
  return nullptr;
}

bool address_of(const char* ip, uint32_t* address) {
  in_addr parsed{};
  if (ip == nullptr || inet_pton(AF_INET, ip, &parsed) != 1 || parsed.s_addr == 0) return false;
  *address = parsed.s_addr;
  return true;
}

}  // namespace

void zunta_count_failure(const char* ip) {
  uint32_t address = 0;
  if (!address_of(ip, &address)) return;
  failure_slot* slot = find_slot(address);
  if (slot == nullptr) return;
  slot->address = address;
  if (slot->failures < UINT32_MAX) ++slot->failures;
}

uint32_t zunta_exchange_failures(const char* ip) {
  uint32_t address = 0;
  if (!address_of(ip, &address)) return 0;
  const failure_slot* slot = find_slot(address);
  return slot != nullptr && slot->address == address ? slot->failures : 0;
}
