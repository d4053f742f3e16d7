// Intrusive lists in the manner of the Linux kernel: a node lies inside its record, linking and
// unlinking cost a few pointer writes and never fail.
//
// An unlinked node carries poison in both links (tov.h), so that a use after removal faults at a
// recognisable address. No locks here: the registry that owns the records has one.
#ifndef TOV_CORE_REGISTRY_LINKS_H
#define TOV_CORE_REGISTRY_LINKS_H

#include <stddef.h>

#include "include/tov_registry.h"

// Both links null: the node is in no list.
void tov_hlist_init(tov_hlist_node_s *node);

void tov_hlist_add_head(tov_hlist_node_s *node, tov_hlist_head_s *head);

// Unlinks and poisons. A node that is in no list is only poisoned.
void tov_hlist_del(tov_hlist_node_s *node);

// Points the node to itself: a list of one.
void tov_list_init(tov_list_head_s *node);

// Links a node behind another one.
void tov_list_add(tov_list_head_s *node, tov_list_head_s *before);

// Unlinks and poisons.
void tov_list_del(tov_list_head_s *node);

// The record around its bucket link.
inline tov_pid_t *tov_chain_record(tov_hlist_node_s *node) {
  return reinterpret_cast<tov_pid_t *>(reinterpret_cast<char *>(node) -
                                       offsetof(tov_pid_t, pidlink));
}

#endif  // TOV_CORE_REGISTRY_LINKS_H
