// Chained hash tables for string and numeric keys: one engine driven by a small table of per-key-
// type functions, with ascending chains, the three hash functions and a statistics dump.
#include "gkh.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "log.h"

LOG_MODULE(0, -1);

// --- hash functions ------------------------------------------------------------------------------

unsigned long plHash(hkey key, unsigned long salt)
{
    unsigned long h = salt;
    // Characters are signed: bytes above 127 subtract.
    for (const char* p = key.s; *p; ++p)
        h = h * 101 + static_cast<unsigned long>(static_cast<long>(static_cast<signed char>(*p)));
    return h;
}

unsigned long elfHash(hkey key, unsigned long /*salt*/)
{
    uint64_t h = 0;
    for (const char* p = key.s; *p; ++p) {
        h = (h << 4) + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*p)));
        const uint64_t g = h & 0xF0000000ULL;
        if (g) {
            h ^= g >> 24;
            h &= ~g;
        }
    }
    return h;
}

unsigned long tw_shift(hkey key, unsigned long /*salt*/)
{
    uint64_t k = static_cast<uint64_t>(key.n);
    k = (k << 21) - k - 1;
    k ^= k >> 24;
    k *= 265;
    k ^= k >> 14;
    k *= 21;
    k ^= k >> 28;
    k += k << 31;
    return k;
}

size_t calc_rlen(size_t n)
{
    size_t r = 1;
    while (r <= n / 2)
        r <<= 1;
    return r;
}

// --- per-key-type record functions ---------------------------------------------------------------

namespace {
struct ht_funcs {
    int (*kcmp)(const hrec* r, hkey key);
    hrec* (*mkhrec)(hkey key);
    hkey (*getkey)(const hrec* r);
};
} // namespace

static int s_cmp(const hrec* r, hkey key)
{
    return std::strcmp(static_cast<const s_hrec*>(r)->s_key, key.s);
}

static hrec* s_mkhrec(hkey key)
{
    auto* r = static_cast<s_hrec*>(std::calloc(1, sizeof(s_hrec)));
    if (!r)
        return nullptr;
    // Over-long keys are cut, not refused: the stored copy then compares unlike the full key.
    std::strncpy(r->s_key, key.s, HT_MAX_SKEY - 1);
    r->s_key[HT_MAX_SKEY - 1] = '\0';
    return r;
}

static hkey get_skey(const hrec* r)
{
    return hk_str(static_cast<const s_hrec*>(r)->s_key);
}

// Only the low 32 bits take part, as a wrapping difference: keys 2^32 apart are one key.
static int l_cmp(const hrec* r, hkey key)
{
    const auto a = static_cast<uint32_t>(static_cast<const l_hrec*>(r)->l_key);
    const auto b = static_cast<uint32_t>(key.n);
    return static_cast<int32_t>(a - b);
}

static hrec* l_mkhrec(hkey key)
{
    auto* r = static_cast<l_hrec*>(std::calloc(1, sizeof(l_hrec)));
    if (!r)
        return nullptr;
    r->l_key = key.n;
    return r;
}

static hkey get_lkey(const hrec* r)
{
    return hk_num(static_cast<const l_hrec*>(r)->l_key);
}

static void free_hrec(ekt_type kt, hrec* r)
{
    if (kt == ekt_STR)
        std::free(static_cast<s_hrec*>(r));
    else
        std::free(static_cast<l_hrec*>(r));
}

static const ht_funcs g_htf[] = {
    {s_cmp, s_mkhrec, get_skey},
    {l_cmp, l_mkhrec, get_lkey},
};

// --- engine --------------------------------------------------------------------------------------

static unsigned long calc_hseed()
{
    return static_cast<unsigned long>(time(nullptr));
}

static void ht_destroy(ht_tag* h, ht_free_fn free_data)
{
    if (!h)
        return;
    if (h->r && h->rlen <= HT_MAX_CAPACITY) {
        for (size_t b = 0; b < h->rlen; ++b) {
            for (hrec *r = h->r[b], *n = nullptr; r; r = n) {
                n = r->next;
                if (free_data)
                    free_data(r->data);
                free_hrec(h->ktype, r);
            }
        }
        std::free(h->r);
    }
    std::free(h);
}

static int ht_create(ht_tag** ph, ekt_type kt, size_t capacity, khash_t hfunc)
{
    *ph = nullptr;
    if (capacity > HT_MAX_CAPACITY) {
        zlog(L_ERR, "%s: capacity %zu is above %zu\n", __func__, capacity, HT_MAX_CAPACITY);
        return HT_TOOBIG;
    }
    auto* h = static_cast<ht_tag*>(std::calloc(1, sizeof(ht_tag)));
    if (!h) {
        zlogf(L_ERR, "%s: out of memory\n");
        return HT_NOMEM;
    }
    h->ktype = kt;
    h->count = 0;
    h->hseed = calc_hseed();
    h->icalc = hfunc;
    h->rlen = calc_rlen(capacity * 3 / 2);
    h->r = static_cast<hrec**>(std::calloc(h->rlen, sizeof(hrec*)));
    if (!h->r) {
        zlogf(L_ERR, "%s: cannot allocate %zu buckets\n", h->rlen);
        std::free(h);
        return HT_NOMEM;
    }
    *ph = h;
    return 0;
}

namespace {
// Where a lookup stopped: the bucket, the record before the stop, the record it stopped on (the
// first whose key is not below the one sought) and whether that record holds the key.
struct rpos {
    size_t b;
    hrec* prev;
    hrec* cur;
    bool found;
};
} // namespace

static rpos rfind(const ht_tag* h, hkey key)
{
    const ht_funcs& fn = g_htf[h->ktype];
    const unsigned long hash = h->icalc ? h->icalc(key, h->hseed) : static_cast<unsigned long>(key.n);
    rpos p{hash & (h->rlen - 1), nullptr, h->r[hash & (h->rlen - 1)], false};
    for (; p.cur; p.prev = p.cur, p.cur = p.cur->next) {
        const int c = fn.kcmp(p.cur, key);
        if (c >= 0) {
            p.found = c == 0;
            break;
        }
    }
    return p;
}

static int ht_add(ht_tag* h, hkey key, void** pdat)
{
    if (!h->rlen)
        return HT_NOBUCKETS;
    const rpos p = rfind(h, key);
    if (p.found) {
        if (pdat)
            *pdat = p.cur->data;
        return HT_EXISTS;
    }
    hrec* r = g_htf[h->ktype].mkhrec(key);
    if (!r) {
        zlog(L_ERR, "%s: out of memory\n", __func__);
        return HT_NOMEM;
    }
    r->data = pdat ? *pdat : nullptr;
    r->next = p.cur;
    if (p.prev) {
        ZASSERT(p.prev->next == p.cur);
        p.prev->next = r;
    } else {
        ZASSERT(h->r[p.b] == p.cur);
        h->r[p.b] = r;
    }
    ++h->count;
    return 0;
}

static int ht_get(const ht_tag* h, hkey key, void** pdat)
{
    if (!h->rlen)
        return HT_NOBUCKETS;
    const rpos p = rfind(h, key);
    if (!p.found)
        return HT_NOKEY;
    if (pdat)
        *pdat = p.cur->data;
    return 0;
}

static int ht_rm(ht_tag* h, hkey key, void** pdat)
{
    if (!h->rlen)
        return HT_NOBUCKETS;
    const rpos p = rfind(h, key);
    if (!p.found)
        return HT_NOKEY;
    if (p.prev) {
        p.prev->next = p.cur->next;
    } else {
        ZASSERT(h->r[p.b] == p.cur);
        h->r[p.b] = p.cur->next;
    }
    if (pdat)
        *pdat = p.cur->data;
    free_hrec(h->ktype, p.cur);
    ZASSERT(h->count);
    --h->count;
    return 0;
}

// Visits every record; the next link is read before the call so that `f` may remove the record.
template <class Visit> static size_t ht_iter(const ht_tag* h, Visit visit)
{
    size_t n = 0;
    for (size_t b = 0; b < h->rlen; ++b) {
        for (hrec *r = h->r[b], *next = nullptr; r; r = next) {
            next = r->next;
            visit(r);
            ++n;
        }
    }
    return n;
}

static void ht_print(const ht_tag* h, FILE* out, bool verbose, const char* func)
{
    struct chain {
        size_t len;
        const hrec* last;
    };
    auto* ch = new (std::nothrow) chain[h->rlen ? h->rlen : 1]();
    if (!ch) {
        fprintf(out, "%s: out of memory\n", func);
        return;
    }
    size_t used = 0;
    size_t longest = 0;
    for (size_t b = 0; b < h->rlen; ++b) {
        for (const hrec* r = h->r[b]; r; r = r->next) {
            ++ch[b].len;
            ch[b].last = r;
        }
        if (ch[b].len)
            ++used;
        if (ch[b].len > longest)
            longest = ch[b].len;
    }
    fprintf(out, "Hash [%p;seed=%ld] contains: \n\t%ld records; slots: %ld/%ld\n",
            static_cast<const void*>(h), static_cast<long>(h->hseed), static_cast<long>(h->count),
            static_cast<long>(used), static_cast<long>(h->rlen));
    fprintf(out, "Max chain length: %ld\n", static_cast<long>(longest));
    if (verbose) {
        fprintf(out, "\nHash slots (total=%ld):\n", static_cast<long>(used));
        for (size_t b = 0; b < h->rlen; ++b) {
            if (!ch[b].len)
                continue;
            const hkey k = g_htf[h->ktype].getkey(ch[b].last);
            if (h->ktype == ekt_STR)
                fprintf(out, "%ld:(%ld:%s);", static_cast<long>(b), static_cast<long>(ch[b].len),
                        k.s);
            else
                fprintf(out, "%ld:(%ld:%ld);", static_cast<long>(b), static_cast<long>(ch[b].len),
                        k.n);
        }
        fputc('\n', out);
    }
    delete[] ch;
}

// --- the two faces -------------------------------------------------------------------------------

// Each face checks its arguments with the texts its callers know from the logs.
#define CHECK_TBL(h, kt)                                                                           \
    do {                                                                                           \
        if (!(h))                                                                                  \
            log_assert_fail("tbl", __FILE__, __LINE__, __func__);                                  \
        ZASSERT((h)->ktype == (kt));                                                               \
    } while (0)
#define CHECK_TBL_KEY(h, key, kt)                                                                  \
    do {                                                                                           \
        if (!((h) && (key)))                                                                       \
            log_assert_fail("tbl && key", __FILE__, __LINE__, __func__);                           \
        ZASSERT((h)->ktype == (kt));                                                               \
    } while (0)

int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char* const* klst, size_t len)
{
    ZASSERT(ph && capacity);
    ZASSERT(!klst || len);
    int rc = ht_create(ph, ekt_STR, capacity, hfunc ? hfunc : plHash);
    if (rc || !klst)
        return rc;
    for (size_t i = 0; i < len; ++i) {
        rc = skht_add(*ph, klst[i], nullptr);
        if (rc) {
            zlogf(L_ERR, "%s: cannot add initial key [%s], rc=%d\n", klst[i], rc);
            ht_destroy(*ph, nullptr);
            *ph = nullptr;
            return rc;
        }
    }
    return 0;
}

int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc)
{
    ZASSERT(ph);
    return ht_create(ph, ekt_NUM, capacity, hfunc);
}

int skht_add(skht_t h, const char* skey, void** pdat)
{
    CHECK_TBL_KEY(h, skey, ekt_STR);
    return ht_add(h, hk_str(skey), pdat);
}

int nkht_add(nkht_t h, long nkey, void** pdat)
{
    CHECK_TBL(h, ekt_NUM);
    return ht_add(h, hk_num(nkey), pdat);
}

int skht_get(skht_t h, const char* skey, void** pdat)
{
    CHECK_TBL_KEY(h, skey, ekt_STR);
    return ht_get(h, hk_str(skey), pdat);
}

int nkht_get(nkht_t h, long nkey, void** pdat)
{
    CHECK_TBL(h, ekt_NUM);
    return ht_get(h, hk_num(nkey), pdat);
}

int skht_rm(skht_t h, const char* skey, void** pdat)
{
    CHECK_TBL_KEY(h, skey, ekt_STR);
    return ht_rm(h, hk_str(skey), pdat);
}

int nkht_rm(nkht_t h, long nkey, void** pdat)
{
    CHECK_TBL(h, ekt_NUM);
    return ht_rm(h, hk_num(nkey), pdat);
}

size_t skht_iter(skht_t h, skht_iter_fn f, void* farg)
{
    CHECK_TBL(h, ekt_STR);
    ZASSERT(f);
    return ht_iter(h, [&](hrec* r) { f(static_cast<s_hrec*>(r)->s_key, r->data, farg); });
}

size_t nkht_iter(nkht_t h, nkht_iter_fn f, void* farg)
{
    CHECK_TBL(h, ekt_NUM);
    ZASSERT(f);
    return ht_iter(h, [&](hrec* r) { f(static_cast<l_hrec*>(r)->l_key, r->data, farg); });
}

size_t skht_count(skht_t h)
{
    CHECK_TBL(h, ekt_STR);
    return h->count;
}

size_t nkht_count(nkht_t h)
{
    CHECK_TBL(h, ekt_NUM);
    return h->count;
}

void skht_destroy(skht_t h, ht_free_fn free_data)
{
    if (h)
        ZASSERT(h->ktype == ekt_STR);
    ht_destroy(h, free_data);
}

void nkht_destroy(nkht_t h, ht_free_fn free_data)
{
    if (h)
        ZASSERT(h->ktype == ekt_NUM);
    ht_destroy(h, free_data);
}

void skht_print(skht_t h, FILE* out, bool verbose)
{
    CHECK_TBL(h, ekt_STR);
    ZASSERT(out);
    ht_print(h, out, verbose, __func__);
}

void nkht_print(nkht_t h, FILE* out, bool verbose)
{
    CHECK_TBL(h, ekt_NUM);
    ZASSERT(out);
    ht_print(h, out, verbose, __func__);
}
