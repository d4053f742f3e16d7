// Linking and unlinking; the header says all there is to know.
// Tested by: tests/module/core/registry/tov_chain_test.cpp
#include "core/registry/links.h"

#include <stdint.h>

#include "include/tov_registry.h"

// The poison is a number on purpose: nothing is ever mapped there.
template <typename Link>
static Link poison(uintptr_t value) {
  return reinterpret_cast<Link>(value);
}

void tov_hlist_init(tov_hlist_node_s *node) {
  *node = {nullptr, nullptr};
}

void tov_hlist_add_head(tov_hlist_node_s *node, tov_hlist_head_s *head) {
  node->next = head->first;
  node->pprev = &head->first;
  if (head->first != nullptr) head->first->pprev = &node->next;
  head->first = node;
}

void tov_hlist_del(tov_hlist_node_s *node) {
  if (node->pprev != nullptr) {
    *node->pprev = node->next;
    if (node->next != nullptr) node->next->pprev = node->pprev;
  }
  node->next = poison<tov_hlist_node_s *>(TOV_LIST_POISON_NEXT);
  node->pprev = poison<tov_hlist_node_s **>(TOV_LIST_POISON_PREV);
}

void tov_list_init(tov_list_head_s *node) {
  *node = {node, node};
}

void tov_list_add(tov_list_head_s *node, tov_list_head_s *before) {
  node->prev = before;
  node->next = before->next;
  before->next->prev = node;
  before->next = node;
}

void tov_list_del(tov_list_head_s *node) {
  node->prev->next = node->next;
  node->next->prev = node->prev;
  node->next = poison<tov_list_head_s *>(TOV_LIST_POISON_NEXT);
  node->prev = poison<tov_list_head_s *>(TOV_LIST_POISON_PREV);
}
