// The list container. Rings of nodes are spliced with a few small helpers. The sort merges chains of nodes.
// It selects the next element by computing addresses, not by branching: the branches would be unpredictable,
// and a mispredicted branch costs more than a comparison.

#include "trelm_dlist.h"

#include <cstdlib>

namespace {

bool is_element(const trelm_dlist* list, const trelm_dl_node* node) { return node && node != list->head; }

bool never_filled(const trelm_dlist* list) { return !list->head->next; }

// The analyzer cannot see that rings are closed and contain no freed node.
void link(trelm_dl_node* before, trelm_dl_node* after) {
    before->next = after;
    after->prev = before;  // NOLINT(clang-analyzer-core.NullDereference)
}

void move_cursor(trelm_dlist* list, int direction) {
    if (trelm_dl_node* target = direction ? list->marker->next : list->marker->prev) list->marker = target;
}

// Removes the node from the ring, but not from the count. A cursor on the node moves away first.
void unlink(trelm_dlist* list, trelm_dl_node* node, int direction) {
    if (list->marker == node) move_cursor(list, direction);
    link(node->prev, node->next);
}

void* take(trelm_dlist* list, trelm_dl_node* node, int direction) {
    unlink(list, node, direction);
    --list->count;
    void* data = node->data;
    free(node);
    return data;
}

void forget_ring(trelm_dlist* list) { list->head->next = list->head->prev = nullptr; }

}  // namespace

trelm_dlist* trelm_dlist_new(size_t datasize) { return trelm_dlist_new_with_delete(datasize, free); }

trelm_dlist* trelm_dlist_new_with_delete(size_t datasize, trelm_dlist_release del_func) {
    auto* list = static_cast<trelm_dlist*>(calloc(1, sizeof(trelm_dlist)));
    if (!list) return nullptr;
    list->data_size = datasize;
    list->del_func = del_func;
    list->head = &list->headnode;
    return list;
}

void trelm_dlist_destroy(trelm_dlist* list) {
    if (!list) return;
    list->marker = list->count ? list->head->next : list->head;
    while (is_element(list, list->marker)) trelm_dlist_delete(list, 1);
    free(list);
}

void trelm_dlist_start(trelm_dlist* list) {
    if (list) list->marker = list->head;
}

void trelm_dlist_end(trelm_dlist* list) { trelm_dlist_start(list); }

void* trelm_dlist_mark(trelm_dlist* list) {
    return list && is_element(list, list->marker) ? list->marker->data : nullptr;
}

void* _trelm_dlist_mark_move(trelm_dlist* list, int direction) {
    if (!list || !list->marker) return nullptr;
    move_cursor(list, direction);
    return list->marker->data;
}

trelm_dl_node* _trelm_dlist_insert_dlnode(trelm_dlist* list, trelm_dl_node* node, int direction) {
    if (!list || !node) return nullptr;
    if (!list->marker) list->marker = list->head;
    if (never_filled(list)) link(list->head, list->head);
    trelm_dl_node* before = direction ? list->marker : list->marker->prev;
    trelm_dl_node* after = before->next;
    link(before, node);
    link(node, after);
    list->marker = node;
    ++list->count;
    return node;
}

void* trelm_dlist_insert(trelm_dlist* list, void* data, int direction) {
    if (!list || !data) return nullptr;
    auto* node = static_cast<trelm_dl_node*>(malloc(sizeof(trelm_dl_node)));
    if (!node) return nullptr;
    *node = {nullptr, nullptr, data};
    _trelm_dlist_insert_dlnode(list, node, direction);
    return data;
}

void* trelm_dlist_push(trelm_dlist* list, void* data) {
    if (!list || !data) return nullptr;
    list->marker = list->head->prev;
    return trelm_dlist_insert(list, data, 1);
}

void* trelm_dlist_unshift(trelm_dlist* list, void* data) {
    if (!list || !data) return nullptr;
    list->marker = list->head->next;
    return trelm_dlist_insert(list, data, 0);
}

void* trelm_dlist_insert_sorted(trelm_dlist* list, void* data, trelm_dlist_match sorter) {
    if (!list || !data) return nullptr;
    trelm_dl_node* place = list->head->next;
    while (is_element(list, place) && !sorter(data, place->data)) place = place->next;
    list->marker = place;
    return trelm_dlist_insert(list, data, 0);
}

void* trelm_dlist_unshift_sorted(trelm_dlist* list, void* data, trelm_dlist_match sorter) {
    if (!list) return nullptr;
    return list->count ? trelm_dlist_insert_sorted(list, data, sorter) : trelm_dlist_unshift(list, data);
}

void* _trelm_dlist_remove(trelm_dlist* list, trelm_dl_node* node, int direction) {
    return list && is_element(list, node) ? take(list, node, direction) : nullptr;
}

void trelm_dlist_delete(trelm_dlist* list, int direction) {
    if (!list || !is_element(list, list->marker)) return;
    trelm_dl_node* node = list->marker;
    unlink(list, node, direction);
    if (list->del_func) list->del_func(node->data);
    --list->count;
    free(node);
}

void* trelm_dlist_pop(trelm_dlist* list) {
    return list && list->count ? take(list, list->head->prev, 0) : nullptr;
}

void* trelm_dlist_shift(trelm_dlist* list) {
    return list && list->count ? take(list, list->head->next, 1) : nullptr;
}

void trelm_dlist_move(trelm_dlist* source, trelm_dlist* dest, trelm_dl_node* node, int direction) {
    if (!source || !dest || !is_element(source, node)) return;
    unlink(source, node, direction);
    if (--source->count == 0) forget_ring(source);
    _trelm_dlist_insert_dlnode(dest, node, direction);
}

void* trelm_dlist_find_custom(trelm_dlist* list, void* target, trelm_dlist_match comp) {
    if (!list) return nullptr;
    for (trelm_dl_node* node = list->head->next; is_element(list, node); node = node->next) {
        if (comp(target, node->data)) return node->data;
    }
    return nullptr;
}

void trelm_dlist_transform(trelm_dlist* list, trelm_dlist_operation node_operation) {
    if (!list) return;
    for (trelm_dl_node* node = list->head->next; is_element(list, node);) {
        trelm_dl_node* next = node->next;
        node_operation(node->data);
        node = next;
    }
}

void _trelm_dlist_swap(trelm_dlist*, trelm_dl_node* a, trelm_dl_node* b) {
    if (!a || !b) return;
    void* data = a->data;
    a->data = b->data;
    b->data = data;
}

// ---- Sorting

namespace {

// Linked nodes; the last one's `next` is null, and the first one's `prev` and an empty chain's `last` mean
// nothing.
struct Chain {
    trelm_dl_node* first = nullptr;
    trelm_dl_node* last = nullptr;
};

Chain detach(trelm_dlist* list) {
    if (!list->count) return {};
    Chain chain{list->head->next, list->head->prev};
    chain.last->next = nullptr;
    forget_ring(list);
    list->marker = list->head;
    list->count = 0;
    return chain;
}

// Appends the chain behind the cursor of the list; the cursor ends on its last node.
void append(trelm_dlist* list, Chain chain, uint64_t count) {
    if (!chain.first) return;
    if (!list->marker) list->marker = list->head;
    if (never_filled(list)) link(list->head, list->head);
    trelm_dl_node* after = list->marker->next;
    link(list->marker, chain.first);
    link(chain.last, after);
    list->marker = chain.last;
    list->count += count;
}

// Merges two sorted chains. On ties the element of `a` comes first.
Chain merge(Chain a, Chain b, trelm_dlist_compare compare) {
    trelm_dl_node* left = a.first;
    trelm_dl_node* right = b.first;
    trelm_dl_node start;
    trelm_dl_node* tail = &start;
    while (left && right) {
        const bool takes_left = compare(left->data, right->data) <= 0;
        trelm_dl_node* const lesser = takes_left ? left : right;
        link(tail, lesser);
        tail = lesser;
        left = takes_left ? lesser->next : left;
        right = takes_left ? right : lesser->next;
    }
    link(tail, left ? left : right);
    return {start.next, left ? a.last : b.last};
}

// Cuts at most `length` nodes off the front.
Chain cut(Chain& chain, uint64_t length) {
    Chain run{chain.first, chain.first};
    while (--length && run.last->next) run.last = run.last->next;
    chain.first = run.last->next;  // NOLINT(clang-analyzer-unix.Malloc): released nodes are in no chain
    run.last->next = nullptr;
    return run;
}

void join(Chain& chain, Chain more) {
    if (!chain.first) {
        chain = more;
    } else {
        link(chain.last, more.first);
        chain.last = more.last;
    }
}

// Level n holds a run of 2^n elements or nothing, as in a binary counter. Neighbours of equal size are merged
// as they arise, while they are still in the cache.
Chain sort_chain(Chain chain, trelm_dlist_compare compare) {
    Chain levels[64];
    size_t highest = 0;
    while (chain.first) {
        Chain run = cut(chain, 1);
        size_t level = 0;
        for (; level < highest && levels[level].first; ++level) {
            run = merge(levels[level], run, compare);
            levels[level] = {};
        }
        levels[level] = run;
        if (level == highest) ++highest;
    }
    Chain sorted;
    for (size_t level = 0; level < highest; ++level) {
        if (levels[level].first)
            sorted = sorted.first ? merge(levels[level], sorted, compare) : levels[level];
    }
    return sorted;
}

// The list takes over the other's elements and cursor; the other is left empty with null links.
void take_over(trelm_dlist* list, trelm_dlist* other) {
    list->marker = other->marker;
    list->count = other->count;
    link(list->head, other->head->next);
    link(other->head->prev, list->head);
    other->count = 0;
    forget_ring(other);
}

}  // namespace

int _trelm_dlist_merge(trelm_dlist* listsource, trelm_dlist* listdest, unsigned int passcount,
                       trelm_dlist_compare compare) {
    if (!listsource || !listdest || !listsource->count || !passcount) return 0;
    uint64_t count = listsource->count;
    Chain source = detach(listsource);
    Chain merged;
    int steps = 0;
    while (source.first) {
        Chain a = cut(source, passcount);
        bool alone = !source.first;
        steps += alone ? 1 : 2;
        join(merged, alone ? a : merge(a, cut(source, passcount), compare));
    }
    append(listdest, merged, count);
    return steps;
}

void trelm_dlist_sort_custom(trelm_dlist* list, trelm_dlist_compare compare) {
    if (!list || list->count < 2) return;
    list->marker = list->head;
    trelm_dlist* temporary = trelm_dlist_new_with_delete(list->data_size, list->del_func);
    if (!temporary) return;
    uint64_t count = list->count;
    append(temporary, sort_chain(detach(list), compare), count);
    take_over(list, temporary);
    trelm_dlist_destroy(temporary);
}

void trelm_dlist_filter_sort(trelm_dlist* list, trelm_dlist_filter filter, trelm_dlist_compare compare) {
    if (!list || !list->count) return;
    if (filter) {
        trelm_dl_node* node = list->head->next;
        while (is_element(list, node)) {
            trelm_dl_node* next = node->next;
            if (!filter(node->data)) {
                list->marker = node;
                trelm_dlist_delete(list, 1);
            }
            node = next;
        }
    }
    trelm_dlist_sort_custom(list, compare);
}
