// URI splitting, piece copying, host/port extraction and in-place percent-decoding and -encoding.
// Everything here works on caller memory and never reads past the length it is given; only
// uri_encode allocates (one scratch copy, freed before it returns).
#include "uri.h"

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "syswrap.h"

LOG_MODULE(0, -1);

namespace {

const char* const g_uri_schemes[] = {"file", "tcp", "udp", "rtp", "http", "m3u", nullptr};
static_assert(sizeof(g_uri_schemes) / sizeof(g_uri_schemes[0]) == URI_HLS + 2);

constexpr char g_hexdigits[] = "0123456789ABCDEF";
constexpr char g_unsafe[] = ";/?:@&=+$,* ";

} // namespace

// The end of the text: `len` bytes on, or its first NUL before that.
static const char* text_end(const char* text, size_t len)
{
    return text + strnlen(text, len);
}

// The first character in [p, end) that is one of `set`, or `end`.
static const char* find_any(const char* p, const char* end, const char* set)
{
    while (p < end && !std::strchr(set, *p))
        ++p;
    return p;
}

// How much of a text goes into an error line: a record that does not fit the log's buffer would be
// dropped whole, so an absurdly long input is shown cut rather than not at all.
static int shown_len(const char* text, size_t len)
{
    constexpr size_t max_shown = 1024;
    return text ? static_cast<int>(strnlen(text, len < max_shown ? len : max_shown)) : 6;
}

// till_query over exactly `n` bytes.
static size_t till_query_n(const char* text, size_t n)
{
    if (n == 0 || text[n - 1] == '/')
        return n;
    const void* q = memrchr(text, '?', n);
    return q ? static_cast<size_t>(static_cast<const char*>(q) - text) : n;
}

size_t till_query(const char* text)
{
    return text ? till_query_n(text, std::strlen(text)) : 0;
}

// Rules of the split:
// - leading blanks and tabs are skipped;
// - a leading "/" means no scheme and no authority, and is not part of the path;
// - otherwise a run of two or more characters before the first ":" is the scheme when "//" follows
//   the ":"; after a scheme, the text before the first "@" of the rest is the authority (user
//   part), and the rest after "://" (or after the "@") must not be empty;
// - the path runs up to the last "?" of the rest, unless the rest ends with "/", and a non-empty
//   text after that "?" is the query.
int uri_parse_len(const char* text, size_t len, uri_layout* out)
{
    if (!text)
        return -1;
    uri_layout l{};
    const char* p = text;
    const char* const end = text_end(text, len);

    while (p < end && (*p == ' ' || *p == '\t'))
        ++p;
    if (p < end && *p == '/') {
        ++p;
    } else {
        const char* colon = static_cast<const char*>(std::memchr(p, ':', end - p));
        if (colon && colon - p > 1 && end - colon >= 3 && colon[1] == '/' && colon[2] == '/') {
            l.scheme = p;
            l.s_len = colon - p;
            p = colon + 3;
            if (p == end)
                return -1;
            const char* at = static_cast<const char*>(std::memchr(p, '@', end - p));
            if (at) {
                if (at > p) {
                    l.authority = p;
                    l.a_len = at - p;
                }
                p = at + 1;
                if (p == end)
                    return -1;
            }
        }
    }

    const size_t rest = end - p;
    const size_t plen = till_query_n(p, rest);
    if (plen) {
        l.path = p;
        l.p_len = plen;
    }
    if (plen + 1 < rest && p[plen] == '?') {
        l.query = p + plen + 1;
        l.q_len = rest - plen - 1;
    }
    if (out)
        *out = l;
    return 0;
}

int uri_parse(const char* text, uri_layout* out)
{
    return text ? uri_parse_len(text, std::strlen(text), out) : -1;
}

char* cpyseg(const char* seg, size_t len, char* buf, size_t buflen)
{
    if (!buf)
        return nullptr;
    if (!seg || len == 0) {
        if (buflen)
            buf[0] = '\0';
        return nullptr;
    }
    if (len >= buflen)
        return nullptr;
    std::memcpy(buf, seg, len);
    buf[len] = '\0';
    return buf;
}

char* uri_get_scheme(const uri_layout* l, char* buf, size_t buflen)
{
    return l ? cpyseg(l->scheme, l->s_len, buf, buflen) : cpyseg(nullptr, 0, buf, buflen);
}

char* uri_get_authority(const uri_layout* l, char* buf, size_t buflen)
{
    return l ? cpyseg(l->authority, l->a_len, buf, buflen) : cpyseg(nullptr, 0, buf, buflen);
}

char* uri_get_path(const uri_layout* l, char* buf, size_t buflen)
{
    return l ? cpyseg(l->path, l->p_len, buf, buflen) : cpyseg(nullptr, 0, buf, buflen);
}

char* uri_get_query(const uri_layout* l, char* buf, size_t buflen)
{
    return l ? cpyseg(l->query, l->q_len, buf, buflen) : cpyseg(nullptr, 0, buf, buflen);
}

// Rules of the head split, all within `len` bytes:
// - blanks, tabs and "/" are skipped; nothing left is a failure;
// - "[" opens an IPv6 literal that must be closed by "]" before any "?" or "/"; otherwise the host
//   runs to the first ":", "?" or "/";
// - a ":" right after the host (or its "]") opens the port, which runs to the first "?" or "/".
const char* path_parse(const char* path, size_t len, char* addr, size_t addrlen, char* port,
                       size_t portlen)
{
    if (!path)
        return nullptr;
    const char* const end = text_end(path, len);
    const char* p = path;
    while (p < end && (*p == ' ' || *p == '\t' || *p == '/'))
        ++p;
    if (p == end)
        return nullptr;

    const char* host = p;
    const char* host_end;
    const char* after;
    if (*p == '[') {
        host = p + 1;
        host_end = find_any(host, end, "]?/");
        if (host_end == end || *host_end != ']')
            return nullptr;
        after = host_end + 1;
    } else {
        host_end = find_any(host, end, ":?/");
        after = host_end;
    }

    const char* result = host_end;
    const char* pstart = nullptr;
    const char* pend = nullptr;
    if (after < end && *after == ':') {
        pstart = after + 1;
        pend = find_any(pstart, end, "?/");
        result = pend;
    }

    const size_t hlen = host_end - host;
    if (hlen && addr) {
        if (hlen + 1 > addrlen)
            return nullptr;
        std::memcpy(addr, host, hlen);
        addr[hlen] = '\0';
    }
    if (pstart && pend > pstart && port) {
        const size_t plen = pend - pstart;
        if (plen + 1 > portlen)
            return nullptr;
        std::memcpy(port, pstart, plen);
        port[plen] = '\0';
    }
    return result;
}

const char* uri_path_addrport(const char* path, size_t len, char* addr, size_t addrlen, char* port,
                              size_t portlen)
{
    const char* rc = path_parse(path, len, addr, addrlen, port, portlen);
    if (!rc) {
        zlogf(L_ERR, "%s: ERROR parsing path=[%.*s]\n", shown_len(path, len), path ? path : "");
    }
    return rc;
}

int uri_scheme_kind(const char* name)
{
    if (!name)
        return URI_BAD;
    for (int i = 0; g_uri_schemes[i]; ++i)
        if (std::strcmp(g_uri_schemes[i], name) == 0)
            return i;
    return URI_BAD;
}

bool uri_is_alias(const char* s)
{
    return s && (s[0] == '$' || s[0] == '~' || s[0] == '^');
}

int hex2dec(int c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if ((c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'))
        return c - 55;
    return -1;
}

// A "%" at the end of the text (its NUL within the next two bytes) lacks its two characters just as
// one at the end of the buffer does, so both fail: decoding on past a NUL would pull in bytes that
// are not part of the text.
char* uri_decode_opt(char* buf, size_t len, int opts)
{
    if (!buf)
        return nullptr;
    size_t r = 0;
    size_t w = 0;
    while (r < len && buf[r]) {
        const char c = buf[r];
        if (c == '+') {
            buf[w++] = ' ';
            ++r;
        } else if (c == '%') {
            if (r + 2 >= len || !buf[r + 1] || !buf[r + 2])
                return nullptr;
            const int hi = hex2dec(static_cast<unsigned char>(buf[r + 1]));
            const int lo = hex2dec(static_cast<unsigned char>(buf[r + 2]));
            r += 3;
            if (hi < 0 || lo < 0)
                continue;
            auto byte = static_cast<unsigned char>(16 * hi + lo);
            if ((opts & 1) && !std::isprint(byte))
                byte = '?';
            buf[w++] = static_cast<char>(byte);
        } else {
            buf[w++] = c;
            ++r;
        }
    }
    if (w < len)
        buf[w] = '\0';
    else if (len)
        buf[len - 1] = '\0';
    return buf;
}

char* uri_decode(char* buf, size_t len)
{
    return uri_decode_opt(buf, len, 1);
}

bool is_safe(int c)
{
    return c > 0 && c <= UCHAR_MAX && std::isprint(c) && !std::strchr(g_unsafe, c);
}

// Bytes at or above 0x80 are escaped by their unsigned value, so every escape is two valid digits.
char* uri_encode(char* buf, size_t len)
{
    if (!buf || len == 0)
        return nullptr;
    char* scratch = static_cast<char*>(W_calloc(__func__, len, 1));
    if (!scratch)
        return nullptr;
    std::memcpy(scratch, buf, strnlen(buf, len - 1));

    const size_t limit = len - 1; // the NUL goes at `limit` at the latest
    size_t w = 0;
    for (const char* s = scratch; *s; ++s) {
        const auto byte = static_cast<unsigned char>(*s);
        if (is_safe(byte)) {
            if (w + 1 > limit)
                break;
            buf[w++] = static_cast<char>(byte);
        } else {
            if (w + 3 > limit)
                break;
            buf[w++] = '%';
            buf[w++] = g_hexdigits[byte >> 4];
            buf[w++] = g_hexdigits[byte & 0x0F];
        }
    }
    buf[w] = '\0';
    std::free(scratch);
    return buf;
}

// Copies an optional piece: an absent piece gives an empty text; false when it does not fit.
static bool put_piece(const char* seg, size_t n, char* buf, size_t buflen)
{
    if (!buf)
        return true;
    if (n == 0) {
        if (buflen)
            buf[0] = '\0';
        return true;
    }
    return cpyseg(seg, n, buf, buflen) != nullptr;
}

// Rules of the classification:
// - the URL is split by uri_parse and must have a scheme from the table (exact, lower case);
// - the path part (host, port and what follows) is required;
// - the authority, when present, is handed out as the source (the sender of a source-specific
//   multicast group; other kinds ignore it);
// - every piece must fit its buffer whole: nothing is cut.
int uri_extract(const char* url, char* path, size_t pathlen, char* src, size_t srclen, char* query,
                size_t qlen)
{
    put_piece(nullptr, 0, path, pathlen);
    put_piece(nullptr, 0, src, srclen);
    put_piece(nullptr, 0, query, qlen);

    uri_layout l{};
    char scheme[URI_SCHEME_MAX];
    int kind = URI_BAD;
    if (url && uri_parse(url, &l) == 0 && uri_get_scheme(&l, scheme, sizeof scheme))
        kind = uri_scheme_kind(scheme);
    if (kind != URI_BAD && (l.p_len == 0 || !put_piece(l.path, l.p_len, path, pathlen) ||
                            !put_piece(l.authority, l.a_len, src, srclen) ||
                            !put_piece(l.query, l.q_len, query, qlen)))
        kind = URI_BAD;
    if (kind == URI_BAD) {
        // Leave no half-filled pieces behind.
        put_piece(nullptr, 0, path, pathlen);
        put_piece(nullptr, 0, src, srclen);
        put_piece(nullptr, 0, query, qlen);
        zlogf(L_ERR, "%s: error parsing URI: [%.*s]\n", shown_len(url, SIZE_MAX),
              url ? url : "(null)");
    }
    return kind;
}

// True when the segment [seg, seg + n) is exactly `word`.
static bool seg_is(const char* seg, size_t n, const char* word)
{
    return n == std::strlen(word) && std::memcmp(seg, word, n) == 0;
}

// Rules of the split, segment by segment ("/" separates segments):
// - segments before the first "src" are skipped;
// - the source is the text after "src/" up to, not including, the "/" before the "dst" segment
//   that balances it: every "src" segment inside the source opens a level that its own "dst"
//   closes, so an embedded request path survives whole;
// - the destination is the text after that "dst/" to the end, and may be empty;
// - both are copied as they stand: the "//" of an embedded "http://" and a trailing "/" are kept.
int uri_extract_endpts_ext(const char* path, size_t len, char* src, size_t srclen, char* dst,
                           size_t dstlen)
{
    if (!path || !src || !dst || !srclen || !dstlen)
        return -1;
    src[0] = '\0';
    dst[0] = '\0';

    const char* const end = text_end(path, len);
    const char* src_begin = nullptr;
    const char* src_end = nullptr;
    const char* dst_begin = nullptr;
    int depth = 0;
    for (const char* seg = path;;) {
        const char* sep = static_cast<const char*>(std::memchr(seg, '/', end - seg));
        if (!sep)
            sep = end;
        const size_t n = sep - seg;
        if (seg_is(seg, n, "src")) {
            if (depth++ == 0)
                src_begin = sep < end ? sep + 1 : end;
        } else if (depth > 0 && seg_is(seg, n, "dst") && --depth == 0) {
            src_end = seg > src_begin ? seg - 1 : src_begin;
            dst_begin = sep < end ? sep + 1 : end;
            break;
        }
        if (sep == end)
            break;
        seg = sep + 1;
    }
    if (!dst_begin || src_end == src_begin)
        return 22;

    const size_t slen = src_end - src_begin;
    const size_t dlen = end - dst_begin;
    if (slen + 1 > srclen || dlen + 1 > dstlen)
        return 34;
    std::memcpy(src, src_begin, slen);
    src[slen] = '\0';
    std::memcpy(dst, dst_begin, dlen);
    dst[dlen] = '\0';
    return 0;
}
