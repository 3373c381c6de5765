// Intrusive doubly-linked lists: linking at the head, unlinking anywhere, sorted positioning by
// neighbour swaps, and consistency-checking dumps.
#include "dlep.h"

#include <cstdlib>

#include "log.h"

LOG_MODULE(0, -1);

static dlep_elem* as_elem(void* d)
{
    ZASSERT(d);
    return static_cast<dlep_elem*>(d);
}

dlep_t dlep_create(int* err)
{
    auto* l = static_cast<dlep_list*>(std::calloc(1, sizeof(dlep_list)));
    if (!l) {
        zlogf(L_ERR, "%s: calloc(%zu) failed\n", sizeof(dlep_list));
        if (err)
            *err = 12;
    }
    return l;
}

size_t dlep_count(const dlep_list* l)
{
    ZASSERT(l);
    return l->count;
}

void* dlep_head(const dlep_list* l)
{
    ZASSERT(l);
    return l->head;
}

void* dlep_tail(const dlep_list* l)
{
    ZASSERT(l);
    return l->tail;
}

void* dlep_append(dlep_t l, void* d)
{
    ZASSERT(l);
    dlep_elem* e = as_elem(d);
    e->next = nullptr;
    e->prev = l->head;
    if (l->head)
        l->head->next = e;
    else
        l->tail = e;
    l->head = e;
    ++l->count;
    return d;
}

// Swaps `a` with its tail-side neighbour: tail..Y b a X..head becomes tail..Y a b X..head.
static void swap_with_prev(dlep_list* l, dlep_elem* a)
{
    dlep_elem* b = a->prev;
    dlep_elem* y = b->prev;
    dlep_elem* x = a->next;
    a->prev = y;
    a->next = b;
    b->prev = a;
    b->next = x;
    if (y)
        y->next = a;
    else
        l->tail = a;
    if (x)
        x->prev = b;
    else
        l->head = b;
}

void* dlep_repos(dlep_t l, void* d, int asc, dlep_cmp_fn ecmp)
{
    ZASSERT(l && ecmp);
    ZASSERT(asc == 0 || asc == 1);
    dlep_elem* e = as_elem(d);
    // The answer of ecmp(e, neighbour) that sends e toward the tail, and the one toward the head.
    const int to_tail = asc ? 1 : -1;
    const int to_head = -to_tail;
    size_t i = 0;
    // A sorted list needs at most count swaps; more means the comparison is not an order.
    while (i <= l->count) {
        if (e->prev && ecmp(e, e->prev) == to_tail)
            swap_with_prev(l, e);
        else if (e->next && ecmp(e, e->next) == to_head)
            swap_with_prev(l, e->next);
        else
            break;
        ++i;
    }
    if (!(i <= l->count))
        log_assert_fail("i <= l->count", __FILE__, __LINE__, __func__);
    return d;
}

void* dlep_sadd(dlep_t l, void* d, int asc, dlep_cmp_fn ecmp)
{
    dlep_append(l, d);
    return dlep_repos(l, d, asc, ecmp);
}

void* dlep_rm(dlep_t l, void* d)
{
    ZASSERT(l);
    dlep_elem* e = as_elem(d);
    if (!e->prev)
        ZASSERT(l->tail == e);
    if (!e->prev && !e->next)
        ZASSERT(l->count == 1);
    if (!e->next)
        ZASSERT(l->head == e);
    ZASSERT(l->count > 0);
    ZASSERT(!e->prev || e->prev->next == e);
    ZASSERT(!e->next || e->next->prev == e);

    if (e->prev)
        e->prev->next = e->next;
    else
        l->tail = e->next;
    if (e->next)
        e->next->prev = e->prev;
    else
        l->head = e->prev;
    --l->count;
    e->prev = nullptr;
    e->next = nullptr;
    return d;
}

void* dlep_rmhead(dlep_t l)
{
    ZASSERT(l);
    return l->head ? dlep_rm(l, l->head) : nullptr;
}

void* dlep_rmtail(dlep_t l)
{
    ZASSERT(l);
    return l->tail ? dlep_rm(l, l->tail) : nullptr;
}

// Walks tail to head reading each next link before the call, since the call may free the element.
template <class Free> static void purge_with(dlep_list* l, Free efree)
{
    for (dlep_elem *e = l->tail, *n = nullptr; e; e = n) {
        n = e->next;
        efree(e);
    }
    *l = dlep_list{};
}

void dlep_purge(dlep_t l, dlep_free_fn efree)
{
    ZASSERT(l);
    purge_with(l, [efree](dlep_elem* e) {
        if (efree) {
            efree(e);
        } else {
            e->prev = nullptr;
            e->next = nullptr;
        }
    });
}

void dlep_purge1(dlep_t l, dlep_free1_fn efree1, void* aux)
{
    ZASSERT(l);
    purge_with(l, [efree1, aux](dlep_elem* e) {
        if (efree1) {
            efree1(e, aux);
        } else {
            e->prev = nullptr;
            e->next = nullptr;
        }
    });
}

void dlep_destroy(dlep_t l, dlep_free_fn efree)
{
    dlep_purge(l, efree);
    std::free(l);
}

int dlep_sverify(const dlep_list* l, int asc, dlep_cmp_fn ecmp)
{
    ZASSERT(l && ecmp);
    // Kept as it always was: callers of short lists get their own `asc` back, not 0.
    if (l->count < 2)
        return asc;
    const int good = asc ? 1 : -1;
    for (const dlep_elem* e = l->head; e && e->prev; e = e->prev) {
        const int r = ecmp(e->prev, e);
        if (r != 0 && r != good)
            return -1;
    }
    return 0;
}

void dlep_print(FILE* out, const dlep_list* l, dlep_print_fn fpdat)
{
    ZASSERT(out && l);
    const dlep_elem* p = l->head;
    size_t i = 0;
    // Bounded by count so that a corrupted, cyclic list still ends in the assertion below.
    for (; p && i < l->count; p = p->prev, ++i) {
        if (fpdat) {
            fputc('{', out);
            fpdat(out, p);
            fputc('}', out);
        }
        fputc(' ', out);
    }
    fputc('\n', out);
    if (!(!p && (i == l->count)))
        log_assert_fail("!p && (i == l->count)", __FILE__, __LINE__, __func__);
}

void dlep_debug_print(FILE* out, const dlep_list* l, dlep_print_fn fpdat)
{
    ZASSERT(out && l);
    fprintf(out, "dlep_list:%p count=%ld head=%p tail=%p ", static_cast<const void*>(l),
            static_cast<long>(l->count), static_cast<void*>(l->head), static_cast<void*>(l->tail));
    const dlep_elem* p = l->head;
    size_t i = 0;
    for (; p && i < l->count; p = p->prev) {
        ++i;
        fprintf(out, "#%ld[%p]: {prev=%p next=%p ", static_cast<long>(i),
                static_cast<const void*>(p), static_cast<void*>(p->prev),
                static_cast<void*>(p->next));
        if (fpdat) {
            fputs("data=", out);
            fpdat(out, p);
            fputc('}', out);
        }
        fputs("; ", out);
    }
    fputc('\n', out);
    if (!(!p && (i == l->count))) {
        fprintf(out, "%s: ERROR: p=%p, i=%ld, l->count=%ld\n", __func__,
                static_cast<const void*>(p), static_cast<long>(i), static_cast<long>(l->count));
        fflush(out);
        log_assert_fail("!p && (i == l->count)", __FILE__, __LINE__, __func__);
    }
}
