// trelm_dlist.h - a doubly linked list of element references with a built-in cursor.
//
// The elements and a sentinel form a ring. The sentinel is before the first and after the last element. A new
// list has null links and a null cursor until its first insertion. A direction of 0 is backward; any other is
// forward (towards `next`, after the cursor). The list owns its nodes. It releases elements only where a
// function says so.
//
// A list is not guarded: only one thread at a time may use it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "trelm_exported.h"

extern "C" {

struct trelm_dl_node {
    trelm_dl_node* prev;
    trelm_dl_node* next;
    void* data;  // null only in the sentinel
};
using trelm_DL_node = trelm_dl_node;

struct trelm_dlist {
    trelm_dl_node* marker;  // the cursor
    uint64_t count;
    size_t data_size;
    void (*del_func)(void*);  // releases an element
    trelm_dl_node headnode;   // the sentinel
    trelm_dl_node* head;      // always &headnode
};
using trelm_Dlist = trelm_dlist;

using trelm_dlist_release = void (*)(void*);
// Non-zero if the element is the one that is searched for, or if the new element goes before it.
using trelm_dlist_match = int (*)(void* target, void* element);
using trelm_dlist_operation = void (*)(void* element);
using trelm_dlist_filter = int (*)(void* element);
// Negative, 0 or positive for less, equal, greater.
using trelm_dlist_compare = int (*)(void* a, void* b);

// Both return null if memory is exhausted. Lists of the first release elements with free().
TRELM_EXPORTED trelm_dlist* trelm_dlist_new(size_t datasize);
TRELM_EXPORTED trelm_dlist* trelm_dlist_new_with_delete(size_t datasize, trelm_dlist_release del_func);
// Deletes every element, first to last, and the list.
TRELM_EXPORTED void trelm_dlist_destroy(trelm_dlist* list);

// Sets the cursor to the sentinel.
TRELM_EXPORTED void trelm_dlist_start(trelm_dlist* list);
TRELM_EXPORTED void trelm_dlist_end(trelm_dlist* list);
// The element at the cursor, or null at the sentinel.
TRELM_EXPORTED void* trelm_dlist_mark(trelm_dlist* list);
// Moves the cursor one node and returns the element there, null at the sentinel.
TRELM_EXPORTED void* _trelm_dlist_mark_move(trelm_dlist* list, int direction);

// Insertions set the cursor to the new node and return its element, or null if nothing was inserted.
TRELM_EXPORTED void* trelm_dlist_insert(trelm_dlist* list, void* data, int direction);
TRELM_EXPORTED trelm_dl_node* _trelm_dlist_insert_dlnode(trelm_dlist* list, trelm_dl_node* node,
                                                         int direction);
TRELM_EXPORTED void* trelm_dlist_push(trelm_dlist* list, void* data);
TRELM_EXPORTED void* trelm_dlist_unshift(trelm_dlist* list, void* data);
// Inserts before the first element for which sorter(data, element) is non-zero, else at the end.
TRELM_EXPORTED void* trelm_dlist_insert_sorted(trelm_dlist* list, void* data, trelm_dlist_match sorter);
TRELM_EXPORTED void* trelm_dlist_unshift_sorted(trelm_dlist* list, void* data, trelm_dlist_match sorter);

// Removals return the element. Only trelm_dlist_delete releases it. A cursor on the removed node moves in
// `direction`.
TRELM_EXPORTED void* _trelm_dlist_remove(trelm_dlist* list, trelm_dl_node* node, int direction);
TRELM_EXPORTED void trelm_dlist_delete(trelm_dlist* list, int direction);
TRELM_EXPORTED void* trelm_dlist_pop(trelm_dlist* list);
TRELM_EXPORTED void* trelm_dlist_shift(trelm_dlist* list);
TRELM_EXPORTED void trelm_dlist_move(trelm_dlist* source, trelm_dlist* dest, trelm_dl_node* node,
                                     int direction);

// Neither moves the cursor.
TRELM_EXPORTED void* trelm_dlist_find_custom(trelm_dlist* list, void* target, trelm_dlist_match comp);
TRELM_EXPORTED void trelm_dlist_transform(trelm_dlist* list, trelm_dlist_operation node_operation);
TRELM_EXPORTED void _trelm_dlist_swap(trelm_dlist* list, trelm_dl_node* a, trelm_dl_node* b);

// A stable sort. The list stays unsorted if there is no memory for the temporary list.
TRELM_EXPORTED void trelm_dlist_sort_custom(trelm_dlist* list, trelm_dlist_compare compare);
// Releases the elements for which filter returns 0, then sorts the rest.
TRELM_EXPORTED void trelm_dlist_filter_sort(trelm_dlist* list, trelm_dlist_filter filter,
                                            trelm_dlist_compare compare);
// One pass of a merge sort: merges neighbouring runs of `passcount` elements of the source and appends them
// to dest. Returns 0 for an empty source, 1 if the source was a single run, and 2 or more if runs were
// merged.
TRELM_EXPORTED int _trelm_dlist_merge(trelm_dlist* listsource, trelm_dlist* listdest, unsigned int passcount,
                                      trelm_dlist_compare compare);

}  // extern "C"
