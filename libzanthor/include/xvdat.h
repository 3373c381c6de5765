// Index-based containers of fixed-size records: a growable array (`xvec`), a slot list whose
// indices stay stable while records come and go (`xvlst`), and the same slot list laid out inside
// one caller buffer so that it can be copied byte for byte (`emblst`).
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "ztypes.h"

// Container flags.
enum : uint32_t {
    XV_ABORT_ENOMEM = 1, // in `xvdat_flags`: a failed growth aborts instead of returning -1
    XV_FIXED_SIZE = 2,   // the capacity never changes (bound, mapped or embedded storage)
    XV_MMAP = 4,         // the storage is an anonymous mapping owned by the list
};

// A fixed container was asked to grow.
enum : int { ERR_XV_FIXED = -11 };

// Library-wide behaviour bits (only XV_ABORT_ENOMEM is looked at); set once at start-up.
extern uint32_t xvdat_flags;

// Callbacks get the base of the record storage and the record's index.
using xv_fn = int (*)(void* data, size_t i);
using xv_aux_fn = int (*)(void* data, size_t i, void* aux);
using xv_find_fn = int (*)(void* data, size_t i, const void* what);
using xv_cleanup_fn = void (*)(void* data, size_t i);

// A growable array of records, indices 0..len-1. A zeroed record is an empty vector.
struct xvec {
    void* data;
    size_t len;     // records in use
    size_t max_len; // capacity in records
    uint32_t flags;
};

// A slot list. It begins with the four fields of `xvec` so that both share the growth code. A
// zeroed record is an empty growable list.
struct xvlst {
    void* data;
    size_t len;     // taken slots
    size_t max_len; // capacity in slots
    uint32_t flags;
    uint8_t* taken; // max_len bytes: 1 taken, 0 free
    size_t last;    // highest slot handed out since the last purge; scans run 0..last
    ssize_t avail;  // lowest known free slot, -1 when there is none
    wordata meta;   // for a mapped list: the record size
};

static_assert(offsetof(xvlst, data) == offsetof(xvec, data) &&
              offsetof(xvlst, len) == offsetof(xvec, len) &&
              offsetof(xvlst, max_len) == offsetof(xvec, max_len) &&
              offsetof(xvlst, flags) == offsetof(xvec, flags));

// A slot list inside one caller buffer: this header, then `max_count` records, then the taken map
// at `taken_offt` bytes from the header. Nothing in it is a pointer, so a byte copy is a list.
struct emblst {
    size_t count;
    size_t max_count;
    size_t last;
    ssize_t avail;
    uint32_t flags; // always has XV_FIXED_SIZE
    off_t taken_offt;
    alignas(sizeof(long)) unsigned char data[]; // the records
};

// --- xvec ----------------------------------------------------------------------------------------

// Uses `buf` as fixed storage of buflen / blksz records and zero-fills it. -1 when not even one
// record fits. The caller keeps ownership of `buf`.
[[nodiscard]] int xvec_bind(xvec* v, void* buf, size_t buflen, size_t blksz);
// Grows the capacity to `new_max` rounded up to whole granules of `growblk` records, unless it is
// already above `new_max` (strictly: a vector exactly `new_max` long is reallocated at the same
// size); new records are zeroed. 0; ERR_XV_FIXED for a fixed vector that would have to grow; -1
// when memory runs out (storage left intact), or an abort when XV_ABORT_ENOMEM is set.
[[nodiscard]] int xvec_reserve(xvec* v, size_t new_max, size_t blksz, size_t growblk);
// xvec_reserve(len + plus); all arguments must be non-zero.
[[nodiscard]] int xvec_expand(xvec* v, size_t plus, size_t blksz, size_t growblk);
// Appends one record (its bytes are what the storage held: zeros unless reused after a reset);
// its index, or -1 (fixed vector full, or growth failed).
[[nodiscard]] ssize_t xvec_add(xvec* v, size_t blksz, size_t growblk);
// Frees the storage of a growable vector (capacity 0); any vector ends with len 0. Null is ignored.
void xvec_reset(xvec* v);
// Call f for records 0..len-1. When f returns non-zero and `pos` is given, the index goes to `pos`
// and that value is returned at once; without `pos` the walk goes on to the end. The result is the
// last value f returned, 0 for an empty vector.
int xvec_each(xvec* v, xv_fn f, size_t* pos);
int xvec_each_aux(xvec* v, xv_aux_fn f, void* aux, size_t* pos);
int xvec_find(xvec* v, const void* what, xv_find_fn f, size_t* pos);

// --- xvlst ---------------------------------------------------------------------------------------

// Fixed list in caller memory: as many records as fit together with one map byte each. -1 when
// none fits. The caller keeps ownership of `buf`.
[[nodiscard]] int xvlst_bind(xvlst* l, void* buf, size_t buflen, size_t blksz);
// Fixed list of `count` records in an anonymous mapping reserved without swap, so a large table
// costs nothing until touched; 12 when the mapping fails. Released by xvlst_reset.
[[nodiscard]] int xvlst_mmap_fixed(xvlst* l, size_t count, size_t blksz);
// As for xvec, but nothing to do when `max_len` >= `new_max`; the taken map grows along.
[[nodiscard]] int xvlst_reserve(xvlst* l, size_t new_max, size_t blksz, size_t growblk);
[[nodiscard]] int xvlst_expand(xvlst* l, size_t plus, size_t blksz, size_t growblk);
// Takes the lowest free slot, growing a growable list when all are taken. Returns the index, -1
// when no slot is free or memory ran out, ERR_XV_FIXED when a full fixed list would have to grow.
// The record keeps whatever its slot held before.
[[nodiscard]] ssize_t xvlst_add(xvlst* l, size_t blksz, size_t growblk);
// Frees slot `index` and then calls cleanup(data, index) when given. 0; 34 when `index` is beyond
// `last`; 114 when the slot is not taken.
int xvlst_del(xvlst* l, size_t index, xv_cleanup_fn cleanup);
// As xvec_each over the taken slots 0..last; the walk also stops when the list loses its storage.
int xvlst_each(xvlst* l, xv_fn f, size_t* pos);
int xvlst_each_aux(xvlst* l, void* aux, xv_aux_fn f, size_t* pos);
// Stops at the first taken slot for which f is non-zero, with or without `pos`: stores the index
// in `pos` when given and returns f's value; 0 (pos untouched) when nothing matches.
int xvlst_find(xvlst* l, const void* what, xv_find_fn f, size_t* pos);
// Deletes, without cleanup, every taken slot that matches. The number deleted; -1 with the index
// in `pos` when a deletion fails.
int xvlst_rmif(xvlst* l, void* udata, xv_aux_fn is_match, size_t* pos);
// Calls cleanup for each taken slot, then empties the list (capacity kept). No-op when empty.
void xvlst_purge_all(xvlst* l, xv_cleanup_fn cleanup);
// Releases what the list owns (heap storage or its mapping; bound memory stays with the caller) and
// zeroes the record. Null is ignored.
void xvlst_reset(xvlst* l);

// --- emblst --------------------------------------------------------------------------------------

// Lays a list out in `buf` (word-aligned) of `len` bytes; null when not even one record fits.
// The result is `buf` itself.
[[nodiscard]] emblst* emblst_create(void* buf, size_t len, size_t blksz);
// As xvlst_add without growth: the index, or -1 when full.
[[nodiscard]] ssize_t emblst_add(emblst* el);
int emblst_del(emblst* el, size_t index, xv_cleanup_fn cleanup);
int emblst_each(emblst* el, xv_fn f, size_t* pos);
int emblst_each_aux(emblst* el, void* aux, xv_aux_fn f, size_t* pos);
// Byte copy of the whole list into `dst`; null with errno EINVAL when `dstlen` is too small.
emblst* emblst_copy(const emblst* se, void* dst, size_t dstlen);
// Bytes a copy of `el` needs.
inline size_t emblst_size(const emblst* el)
{
    return static_cast<size_t>(el->taken_offt) + el->max_count;
}

// --- typed faces ---------------------------------------------------------------------------------

template <class T> inline T* xv_at(const xvec* v, size_t i)
{
    return static_cast<T*>(v->data) + i;
}
template <class T> inline T* xv_at(const xvlst* l, size_t i)
{
    return static_cast<T*>(l->data) + i;
}
template <class T> inline T* xv_at(emblst* el, size_t i)
{
    return reinterpret_cast<T*>(el->data) + i;
}
template <class T> [[nodiscard]] inline int xv_reserve(xvec* v, size_t new_max, size_t growblk)
{
    return xvec_reserve(v, new_max, sizeof(T), growblk);
}
template <class T> [[nodiscard]] inline int xv_reserve(xvlst* l, size_t new_max, size_t growblk)
{
    return xvlst_reserve(l, new_max, sizeof(T), growblk);
}
// Appends a copy of `rec`; the index or the container's error.
template <class T> [[nodiscard]] inline ssize_t xv_push(xvec* v, const T& rec, size_t growblk)
{
    const ssize_t i = xvec_add(v, sizeof(T), growblk);
    if (i >= 0)
        static_cast<T*>(v->data)[i] = rec;
    return i;
}
template <class T> [[nodiscard]] inline ssize_t xv_push(xvlst* l, const T& rec, size_t growblk)
{
    const ssize_t i = xvlst_add(l, sizeof(T), growblk);
    if (i >= 0)
        static_cast<T*>(l->data)[i] = rec;
    return i;
}
