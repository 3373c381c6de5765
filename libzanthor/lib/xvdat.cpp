// Index-based record containers: growth in whole granules, slot allocation that always takes the
// lowest known free slot, and the same slot logic over a list embedded in one caller buffer.
#include "xvdat.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "log.h"

LOG_MODULE(0, -1);

uint32_t xvdat_flags = 0;

namespace {

// The slot bookkeeping shared by `xvlst` and `emblst`, which keep the same fields under other
// names and in other places.
struct slots {
    uint8_t* taken;
    size_t max;
    size_t& len;
    size_t& last;
    ssize_t& avail;
};

} // namespace

static slots lst_slots(xvlst* l)
{
    return {l->taken, l->max_len, l->len, l->last, l->avail};
}

static uint8_t* emb_map(const emblst* el)
{
    return reinterpret_cast<uint8_t*>(const_cast<emblst*>(el)) + el->taken_offt;
}

static slots emb_slots(emblst* el)
{
    return {emb_map(el), el->max_count, el->count, el->last, el->avail};
}

[[noreturn]] static void growth_abort(const char* func, size_t bytes)
{
    log_abort("%s: cannot allocate %zu bytes\n", func, bytes);
}

// Reallocates `*data` from `old_cap` to `cap` records and zeroes the new ones. On failure the old
// storage stays in place.
static int grow_records(void** data, size_t old_cap, size_t cap, size_t blksz, const char* func)
{
    size_t bytes = 0;
    if (__builtin_mul_overflow(cap, blksz, &bytes)) {
        if (xvdat_flags & XV_ABORT_ENOMEM)
            growth_abort(func, SIZE_MAX);
        zlog(L_ERR, "%s: %zu records of %zu bytes overflow the address space\n", func, cap, blksz);
        return -1;
    }
    void* p = std::realloc(*data, bytes);
    if (!p) {
        if (xvdat_flags & XV_ABORT_ENOMEM)
            growth_abort(func, bytes);
        zlog(L_ERR, "%s: realloc(%zu) failed\n", func, bytes);
        return -1;
    }
    if (cap > old_cap)
        std::memset(static_cast<char*>(p) + old_cap * blksz, 0, (cap - old_cap) * blksz);
    *data = p;
    return 0;
}

// The capacity that covers `new_max` in whole granules.
static size_t granular(size_t new_max, size_t growblk)
{
    return ((new_max - 1) / growblk + 1) * growblk;
}

// --- xvec ----------------------------------------------------------------------------------------

int xvec_bind(xvec* v, void* buf, size_t buflen, size_t blksz)
{
    ZASSERT(v && buf && blksz);
    const size_t n = buflen / blksz;
    if (n == 0)
        return -1;
    std::memset(buf, 0, buflen);
    v->data = buf;
    v->len = 0;
    v->max_len = n;
    v->flags = XV_FIXED_SIZE;
    return 0;
}

int xvec_reserve(xvec* v, size_t new_max, size_t blksz, size_t growblk)
{
    ZASSERT(v && growblk > 0);
    // Strictly greater, unlike the slot list: a vector exactly new_max long is reallocated at the
    // same size, and a fixed one of that size answers ERR_XV_FIXED. Callers rely on neither.
    if (v->max_len > new_max || new_max == 0)
        return 0;
    if (v->flags & XV_FIXED_SIZE)
        return ERR_XV_FIXED;
    const size_t cap = granular(new_max, growblk);
    if (grow_records(&v->data, v->max_len, cap, blksz, __func__))
        return -1;
    v->max_len = cap;
    return 0;
}

int xvec_expand(xvec* v, size_t plus, size_t blksz, size_t growblk)
{
    ZASSERT(v && plus && blksz && growblk);
    return xvec_reserve(v, v->len + plus, blksz, growblk);
}

ssize_t xvec_add(xvec* v, size_t blksz, size_t growblk)
{
    ZASSERT(v);
    if (v->len >= v->max_len) {
        if (v->flags & XV_FIXED_SIZE)
            return -1;
        if (xvec_reserve(v, v->len + 1, blksz, growblk))
            return -1;
    }
    return static_cast<ssize_t>(v->len++);
}

void xvec_reset(xvec* v)
{
    if (!v)
        return;
    if (!(v->flags & XV_FIXED_SIZE)) {
        std::free(v->data);
        v->data = nullptr;
        v->max_len = 0;
    }
    v->len = 0;
}

// The common walk of the three xvec visitors; `call` invokes the user's function for index i.
template <class Call> static int xvec_walk(xvec* v, size_t* pos, Call call)
{
    ZASSERT(v);
    int rc = 0;
    for (size_t i = 0; i < v->len; ++i) {
        rc = call(i);
        if (rc && pos) {
            *pos = i;
            return rc;
        }
    }
    return rc;
}

int xvec_each(xvec* v, xv_fn f, size_t* pos)
{
    ZASSERT(f);
    return xvec_walk(v, pos, [&](size_t i) { return f(v->data, i); });
}

int xvec_each_aux(xvec* v, xv_aux_fn f, void* aux, size_t* pos)
{
    ZASSERT(f);
    return xvec_walk(v, pos, [&](size_t i) { return f(v->data, i, aux); });
}

int xvec_find(xvec* v, const void* what, xv_find_fn f, size_t* pos)
{
    ZASSERT(f);
    return xvec_walk(v, pos, [&](size_t i) { return f(v->data, i, what); });
}

// --- slot bookkeeping ----------------------------------------------------------------------------

// Marks the lowest known free slot taken and finds the next one. -1 when none is free.
static ssize_t take_slot(slots s)
{
    if (s.avail < 0)
        return -1;
    const size_t i = static_cast<size_t>(s.avail);
    s.taken[i] = 1;
    if (s.last < i)
        s.last = i;
    if (i == s.last) {
        // Everything above `last` has never been handed out since the last purge.
        const size_t next = i + 1;
        if (next >= s.max) {
            s.avail = -1;
        } else {
            ZASSERT(!s.taken[next]);
            s.avail = static_cast<ssize_t>(next);
        }
    } else if (!s.taken[i + 1]) {
        s.avail = static_cast<ssize_t>(i + 1);
    } else {
        // `avail` was the lowest free slot, so the next one can only lie above it.
        const void* z = std::memchr(s.taken + i + 1, 0, s.max - i - 1);
        s.avail = z ? static_cast<const uint8_t*>(z) - s.taken : -1;
    }
    ++s.len;
    return static_cast<ssize_t>(i);
}

static int free_slot(slots s, void* data, size_t index, xv_cleanup_fn cleanup)
{
    if (index > s.last)
        return 34;
    if (!s.taken || index >= s.max || !s.taken[index])
        return 114;
    s.taken[index] = 0;
    if (cleanup)
        cleanup(data, index);
    if (s.avail < 0 || static_cast<size_t>(s.avail) > index)
        s.avail = static_cast<ssize_t>(index);
    ZASSERT(s.len);
    --s.len;
    return 0;
}

// Visits taken slots 0..last. The data pointer and the bounds are read again on every step
// because a callback may delete, purge or even reset the list it is walking.
template <class Call>
static int slot_walk(void* const& data, uint8_t* const& taken, const size_t& last,
                     const size_t& max, size_t* pos, bool stop_always, Call call)
{
    int rc = 0;
    for (size_t i = 0; data && taken && i <= last && i < max; ++i) {
        if (!taken[i])
            continue;
        rc = call(i);
        if (rc && (pos || stop_always)) {
            if (pos)
                *pos = i;
            return rc;
        }
    }
    return rc;
}

// --- xvlst ---------------------------------------------------------------------------------------

int xvlst_bind(xvlst* l, void* buf, size_t buflen, size_t blksz)
{
    ZASSERT(l && buf && blksz);
    size_t n = buflen / blksz;
    // Each record needs one byte of taken map behind the records.
    while (n > 0 && buflen - n * blksz < n)
        --n;
    if (n == 0)
        return -1;
    std::memset(buf, 0, n * blksz + n);
    l->data = buf;
    l->len = 0;
    l->max_len = n;
    l->flags = XV_FIXED_SIZE;
    l->taken = static_cast<uint8_t*>(buf) + n * blksz;
    l->last = 0;
    l->avail = 0;
    l->meta.unum = 0;
    return 0;
}

int xvlst_mmap_fixed(xvlst* l, size_t count, size_t blksz)
{
    ZASSERT(l && count && blksz);
    size_t bytes = 0;
    if (__builtin_mul_overflow(blksz + 1, count, &bytes)) {
        zlogf(L_ERR, "%s: %zu records of %zu bytes overflow the address space\n", count, blksz);
        return 12;
    }
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                   -1, 0);
    if (p == MAP_FAILED) {
        const int e = errno;
        zlogf(L_ERR, "%s: mmap(%zu) ERROR(%d): %s\n", bytes, e, strerror(e));
        errno = e;
        return 12;
    }
    l->data = p;
    l->len = 0;
    l->max_len = count;
    l->flags = XV_FIXED_SIZE | XV_MMAP;
    l->taken = static_cast<uint8_t*>(p) + count * blksz;
    l->last = 0;
    l->avail = 0;
    l->meta.unum = blksz;
    return 0;
}

int xvlst_reserve(xvlst* l, size_t new_max, size_t blksz, size_t growblk)
{
    ZASSERT(l && growblk > 0);
    if (l->max_len >= new_max)
        return 0;
    if (l->flags & XV_FIXED_SIZE)
        return ERR_XV_FIXED;
    const size_t old_cap = l->max_len;
    const size_t cap = granular(new_max, growblk);
    if (grow_records(&l->data, old_cap, cap, blksz, __func__))
        return -1;
    // The records may now be larger than `max_len` says; that is harmless if the map fails.
    if (grow_records(reinterpret_cast<void**>(&l->taken), old_cap, cap, 1, __func__))
        return -1;
    l->max_len = cap;
    if (l->avail < 0)
        l->avail = static_cast<ssize_t>(old_cap);
    return 0;
}

int xvlst_expand(xvlst* l, size_t plus, size_t blksz, size_t growblk)
{
    ZASSERT(l && plus && blksz && growblk);
    return xvlst_reserve(l, l->len + plus, blksz, growblk);
}

ssize_t xvlst_add(xvlst* l, size_t blksz, size_t growblk)
{
    ZASSERT(l);
    if (l->max_len)
        ZASSERT(l->avail < static_cast<ssize_t>(l->max_len));
    if (const int rc = xvlst_expand(l, 1, blksz, growblk))
        return rc;
    return take_slot(lst_slots(l));
}

int xvlst_del(xvlst* l, size_t index, xv_cleanup_fn cleanup)
{
    ZASSERT(l);
    return free_slot(lst_slots(l), l->data, index, cleanup);
}

int xvlst_each(xvlst* l, xv_fn f, size_t* pos)
{
    ZASSERT(l && f);
    return slot_walk(l->data, l->taken, l->last, l->max_len, pos, false,
                     [&](size_t i) { return f(l->data, i); });
}

int xvlst_each_aux(xvlst* l, void* aux, xv_aux_fn f, size_t* pos)
{
    ZASSERT(l && f);
    return slot_walk(l->data, l->taken, l->last, l->max_len, pos, false,
                     [&](size_t i) { return f(l->data, i, aux); });
}

int xvlst_find(xvlst* l, const void* what, xv_find_fn f, size_t* pos)
{
    ZASSERT(l && f);
    return slot_walk(l->data, l->taken, l->last, l->max_len, pos, true,
                     [&](size_t i) { return f(l->data, i, what); });
}

int xvlst_rmif(xvlst* l, void* udata, xv_aux_fn is_match, size_t* pos)
{
    ZASSERT(l && is_match);
    int n = 0;
    for (size_t i = 0; l->data && l->taken && i <= l->last && i < l->max_len; ++i) {
        if (!l->taken[i] || !is_match(l->data, i, udata))
            continue;
        if (xvlst_del(l, i, nullptr)) {
            if (pos)
                *pos = i;
            return -1;
        }
        ++n;
    }
    return n;
}

void xvlst_purge_all(xvlst* l, xv_cleanup_fn cleanup)
{
    ZASSERT(l);
    if (!l->len)
        return;
    ZASSERT(l->taken);
    if (cleanup) {
        for (size_t i = 0; i <= l->last && i < l->max_len; ++i)
            if (l->taken[i])
                cleanup(l->data, i);
    }
    l->last = 0;
    l->len = 0;
    l->avail = l->max_len ? 0 : -1;
    std::memset(l->taken, 0, l->max_len);
}

void xvlst_reset(xvlst* l)
{
    if (!l)
        return;
    if (l->flags & XV_MMAP) {
        const size_t blksz = l->meta.unum;
        ZASSERT(blksz > 0);
        if (l->data && munmap(l->data, (blksz + 1) * l->max_len)) {
            const int e = errno;
            log_abort("%s: munmap(%p, %zu) ERROR(%d): %s\n", __func__, l->data,
                      (blksz + 1) * l->max_len, e, strerror(e));
        }
    } else if (!(l->flags & XV_FIXED_SIZE)) {
        std::free(l->data);
        std::free(l->taken);
    }
    *l = xvlst{};
}

// --- emblst --------------------------------------------------------------------------------------

static constexpr size_t EMB_HDR = offsetof(emblst, data);

emblst* emblst_create(void* buf, size_t len, size_t blksz)
{
    ZASSERT(buf && blksz);
    ZASSERT(reinterpret_cast<uintptr_t>(buf) % sizeof(long) == 0);
    if (len <= EMB_HDR)
        return nullptr;
    const size_t room = len - EMB_HDR;
    size_t n = room / blksz;
    while (n > 0 && room - n * blksz < n)
        --n;
    if (n == 0)
        return nullptr;
    auto* el = static_cast<emblst*>(buf);
    el->count = 0;
    el->max_count = n;
    el->avail = 0;
    el->last = 0;
    el->flags = XV_FIXED_SIZE;
    el->taken_offt = static_cast<off_t>(EMB_HDR + n * blksz);
    ZASSERT(static_cast<size_t>(el->taken_offt) + n <= len);
    std::memset(el->data, 0, n * blksz + n);
    return el;
}

ssize_t emblst_add(emblst* el)
{
    ZASSERT(el);
    if (el->max_count)
        ZASSERT(el->avail < static_cast<ssize_t>(el->max_count));
    return take_slot(emb_slots(el));
}

int emblst_del(emblst* el, size_t index, xv_cleanup_fn cleanup)
{
    ZASSERT(el);
    return free_slot(emb_slots(el), el->data, index, cleanup);
}

int emblst_each(emblst* el, xv_fn f, size_t* pos)
{
    ZASSERT(el && f);
    void* const data = el->data;
    uint8_t* const taken = emb_map(el);
    return slot_walk(data, taken, el->last, el->max_count, pos, false,
                     [&](size_t i) { return f(data, i); });
}

int emblst_each_aux(emblst* el, void* aux, xv_aux_fn f, size_t* pos)
{
    ZASSERT(el && f);
    void* const data = el->data;
    uint8_t* const taken = emb_map(el);
    return slot_walk(data, taken, el->last, el->max_count, pos, false,
                     [&](size_t i) { return f(data, i, aux); });
}

emblst* emblst_copy(const emblst* se, void* dst, size_t dstlen)
{
    ZASSERT(se && dst);
    const size_t n = emblst_size(se);
    if (dstlen < n) {
        errno = EINVAL;
        return nullptr;
    }
    std::memcpy(dst, se, n);
    return static_cast<emblst*>(dst);
}
