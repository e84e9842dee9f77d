// llist_d: an intrusive doubly-linked list. A node is embedded in the object it links; a list head is
// a node whose next/prev point at itself when empty. A node that is on no list has null links, so
// llist_d_threaded tells whether it is linked. No allocation, no locking: the owner's lock guards both.
#pragma once

#include <cstddef>

struct llist_d_t {
  llist_d_t* next = nullptr;
  llist_d_t* prev = nullptr;
};

inline void llist_d_init_head(llist_d_t* head) { head->next = head->prev = head; }
inline bool llist_d_empty(const llist_d_t* head) { return head->next == head; }
inline bool llist_d_threaded(const llist_d_t* node) { return node->next != nullptr; }

inline void llist_d_insert_tail(llist_d_t* head, llist_d_t* node) {
  node->prev = head->prev;
  node->next = head;
  head->prev->next = node;
  head->prev = node;
}
inline void llist_d_insert_head(llist_d_t* head, llist_d_t* node) {
  node->next = head->next;
  node->prev = head;
  head->next->prev = node;
  head->next = node;
}
inline void llist_d_remove(llist_d_t* node) {
  node->prev->next = node->next;
  node->next->prev = node->prev;
  node->next = node->prev = nullptr;
}
// First node or null when empty.
inline llist_d_t* llist_d_head(llist_d_t* head) { return llist_d_empty(head) ? nullptr : head->next; }

#define LLIST_D_ENTRY(node, type, member) \
  reinterpret_cast<type*>(reinterpret_cast<char*>(node) - offsetof(type, member))
