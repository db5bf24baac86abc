// sa_list: the circular doubly linked list threaded through a node embedded in every record.
// Insertion is at the front, so a walk from the head meets the newest record first.
#ifndef ZUNTA_CORE_LIST_H_
#define ZUNTA_CORE_LIST_H_

#include <cstddef>

struct sa_list {
  sa_list* next;
  sa_list* prev;
};

inline void INIT_SA_LIST_HEAD(sa_list* node) {
  node->next = node;
  node->prev = node;
}

// Hooks for checking the links before they are changed; they accept everything.
inline bool __sa_list_add_valid(sa_list* /*entry*/, sa_list* /*prev*/, sa_list* /*next*/) {
  return true;
}
inline bool __sa_list_del_entry_valid(sa_list* /*entry*/) {
  return true;
}

inline bool __sa_list_add(sa_list* entry, sa_list* prev, sa_list* next) {
  if (!__sa_list_add_valid(entry, prev, next)) return false;
  next->prev = entry;
  entry->next = next;
  entry->prev = prev;
  prev->next = entry;
  return true;
}

// Inserts entry directly behind head.
inline void sa_list_add(sa_list* entry, sa_list* head) {
  __sa_list_add(entry, head, head->next);
}

inline void __sa_list_del(sa_list* prev, sa_list* next) {
  next->prev = prev;
  prev->next = next;
}

inline void __sa_list_del_entry(sa_list* entry) {
  if (!__sa_list_del_entry_valid(entry)) return;
  __sa_list_del(entry->prev, entry->next);
}

// Unlinks entry and nulls its links; it must be initialised again before it is inserted anywhere.
inline void sa_list_del(sa_list* entry) {
  __sa_list_del_entry(entry);
  entry->next = nullptr;
  entry->prev = nullptr;
}

inline bool sa_list_empty(const sa_list* head) {
  return head->next == head;
}

// The record that embeds `node` as its field `member`.
#define sa_list_entry(node, type, member) \
  (reinterpret_cast<type*>(reinterpret_cast<char*>(node) - offsetof(type, member)))

// Walks the records of `head` front to back.
#define sa_list_for_each_entry(pos, head, type, member)                               \
  for (type* pos = sa_list_entry((head)->next, type, member); &pos->member != (head); \
       pos = sa_list_entry(pos->member.next, type, member))

// The same walk for loops that unlink and free `pos`: the successor is taken first.
#define sa_list_for_each_entry_safe(pos, head, type, member)              \
  for (type* pos = sa_list_entry((head)->next, type, member),             \
             *pos##_next = sa_list_entry(pos->member.next, type, member); \
       &pos->member != (head); pos = pos##_next, pos##_next = sa_list_entry(pos->member.next, type, member))

#endif  // ZUNTA_CORE_LIST_H_
