// Chained hash tables with two faces: `skht` maps string keys and `nkht` maps numeric keys to one
// untyped data pointer each. Chains are kept in ascending key order so that a miss ends early.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

// Key types; they index the table of per-type record functions.
enum ekt_type : int { ekt_STR = 0, ekt_NUM = 1 };

// A key of either face: a string or a number.
union hkey {
    const char* s;
    long n;
};
inline hkey hk_str(const char* s)
{
    hkey k;
    k.s = s;
    return k;
}
inline hkey hk_num(long n)
{
    hkey k;
    k.n = n;
    return k;
}

// A hash function: key and salt to a 64-bit hash.
using khash_t = unsigned long (*)(hkey key, unsigned long salt);

// Records: the common shape, and the two keyed forms.
struct hrec {
    hrec* next;
    void* data;
};
constexpr size_t HT_MAX_SKEY = 255; // inline key bytes; keys are cut to 254 characters
struct s_hrec : hrec {
    char s_key[HT_MAX_SKEY];
};
struct l_hrec : hrec {
    long l_key;
};

struct ht_tag {
    ekt_type ktype;
    hrec** r;            // buckets, each the head of a chain
    size_t rlen;         // number of buckets, a power of two
    unsigned long hseed; // salt handed to `icalc`
    size_t count;        // records
    khash_t icalc;       // null: the numeric key is its own hash
};
using skht_t = ht_tag*;
using nkht_t = ht_tag*;

constexpr size_t HT_MAX_CAPACITY = 5000000;

// Result codes.
enum : int {
    HT_OK = 0,
    HT_NOKEY = 3,
    HT_NOMEM = 12,
    HT_EXISTS = 16,
    HT_NOBUCKETS = 22,
    HT_TOOBIG = 75,
};

// h = salt, then h = h * 101 + c for each (signed) character.
unsigned long plHash(hkey key, unsigned long salt);
// The classic ELF symbol hash in 64-bit arithmetic; the salt is not used.
unsigned long elfHash(hkey key, unsigned long salt);
// A 64-bit shift-and-multiply integer mix of the numeric key; the salt is not used.
unsigned long tw_shift(hkey key, unsigned long salt);

// The largest power of two not above n (1 for n of 0 or 1).
size_t calc_rlen(size_t n);

using skht_iter_fn = void (*)(const char* key, void* data, void* farg);
using nkht_iter_fn = void (*)(long key, void* data, void* farg);
using ht_free_fn = void (*)(void* data);

// A new table in `*ph` (null on failure) with capacity * 3 / 2 rounded down to a power of two
// buckets. 0; 75 when `capacity` is above HT_MAX_CAPACITY; 12 when memory runs out; or the first
// error adding the `len` initial keys of `klst` (with null data). `hfunc` null means plHash.
[[nodiscard]] int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char* const* klst,
                              size_t len);
// As skht_create; `hfunc` null means the key is its own hash.
[[nodiscard]] int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc);

// Inserts the key with data *pdat (null data when `pdat` is null). 0; 16 when the key is present,
// with its data handed back through `pdat`; 12 out of memory; 22 when the table has no buckets.
// String keys longer than 254 characters are stored cut.
[[nodiscard]] int skht_add(skht_t h, const char* skey, void** pdat);
[[nodiscard]] int nkht_add(nkht_t h, long nkey, void** pdat);
// 0 with the data through `pdat` (when given); 3 when absent; 22 without buckets.
int skht_get(skht_t h, const char* skey, void** pdat);
int nkht_get(nkht_t h, long nkey, void** pdat);
// Unlinks and frees the record, data through `pdat`. 0; 3 when absent; 22 without buckets.
int skht_rm(skht_t h, const char* skey, void** pdat);
int nkht_rm(nkht_t h, long nkey, void** pdat);
// Calls f(key, data, farg) for each record, bucket by bucket, each chain from its head; the
// record being visited may be removed by f. Returns the number of records visited.
size_t skht_iter(skht_t h, skht_iter_fn f, void* farg);
size_t nkht_iter(nkht_t h, nkht_iter_fn f, void* farg);
size_t skht_count(skht_t h);
size_t nkht_count(nkht_t h);
// Frees every record (after free_data(data) when given), the buckets and the table. Null is
// ignored.
void skht_destroy(skht_t h, ht_free_fn free_data);
void nkht_destroy(nkht_t h, ht_free_fn free_data);
// Statistics: records, used buckets, longest chain; with `verbose` the chain of every used bucket.
void skht_print(skht_t h, FILE* out, bool verbose);
void nkht_print(nkht_t h, FILE* out, bool verbose);
