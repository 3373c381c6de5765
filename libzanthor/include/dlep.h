// Intrusive doubly-linked lists of records that begin with a link header, with sorted insertion
// and repositioning by a comparison function. The tail is the oldest end, the head the newest.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

// The link header as users declare it at the start of their records. `prev` points toward the
// tail, `next` toward the head. A record type may declare its own typed links instead, as long as
// it keeps this layout: a 32-bit tag, then the two links.
struct dlep_hdr {
    int32_t tag;
    dlep_hdr* prev;
    dlep_hdr* next;
};

// The same header as the list code sees it. Records declare their links with their own types, so
// the list code reaches them through a type that may alias any record.
struct [[gnu::may_alias]] dlep_elem {
    int32_t tag;
    dlep_elem* prev;
    dlep_elem* next;
};

static_assert(sizeof(dlep_hdr) == sizeof(dlep_elem) &&
              offsetof(dlep_hdr, prev) == offsetof(dlep_elem, prev) &&
              offsetof(dlep_hdr, next) == offsetof(dlep_elem, next));

struct dlep_list {
    dlep_elem* head;
    dlep_elem* tail;
    size_t count;
};
using dlep_t = dlep_list*;

// Element comparison: -1, 0 or 1 as a is below, equal to or above b.
using dlep_cmp_fn = int (*)(const void* a, const void* b);
using dlep_free_fn = void (*)(void* e);
using dlep_free1_fn = void (*)(void* e, void* aux);
// Writes an element's data for the dumps.
using dlep_print_fn = void (*)(FILE* out, const void* e);

// Every call asserts a non-null list and non-null elements; elements are records starting with a
// `dlep_hdr` layout.

// An empty list; null on allocation failure, with 12 in `*err` when `err` is given.
dlep_t dlep_create(int* err);
size_t dlep_count(const dlep_list* l);
void* dlep_head(const dlep_list* l);
void* dlep_tail(const dlep_list* l);
// Links `d` at the head and returns it.
void* dlep_append(dlep_t l, void* d);
// Appends `d`, then moves it to its sorted place (dlep_repos).
void* dlep_sadd(dlep_t l, void* d, int asc, dlep_cmp_fn ecmp);
// Moves `d` to its sorted place by swaps with its neighbours. With `asc` 1 the values rise from
// head to tail, with 0 they fall. Equal elements keep their places, so a newly appended element
// stays on the head side of its equals.
void* dlep_repos(dlep_t l, void* d, int asc, dlep_cmp_fn ecmp);
// Unlink and return the element with its links cleared; rmhead/rmtail give null on an empty list.
void* dlep_rm(dlep_t l, void* d);
void* dlep_rmhead(dlep_t l);
void* dlep_rmtail(dlep_t l);
// Call efree for each element from tail to head (it may free the element), then empty the list.
// Without `efree` the elements are only unlinked.
void dlep_purge(dlep_t l, dlep_free_fn efree);
void dlep_purge1(dlep_t l, dlep_free1_fn efree1, void* aux);
// dlep_purge, then frees the list itself.
void dlep_destroy(dlep_t l, dlep_free_fn efree);
// 0 when ordered (`asc` 1 or -1: rising from head to tail; 0: falling), -1 at the first pair out of
// order. A list of fewer than two elements answers `asc` itself.
int dlep_sverify(const dlep_list* l, int asc, dlep_cmp_fn ecmp);
// Dumps: "{data} " per element from head to tail, or the links of every element.
void dlep_print(FILE* out, const dlep_list* l, dlep_print_fn fpdat);
void dlep_debug_print(FILE* out, const dlep_list* l, dlep_print_fn fpdat);

// Typed faces for records that start with a link header.
template <class T> inline T* dlep_head_as(const dlep_list* l)
{
    return static_cast<T*>(dlep_head(l));
}
template <class T> inline T* dlep_tail_as(const dlep_list* l)
{
    return static_cast<T*>(dlep_tail(l));
}
