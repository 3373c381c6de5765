// URI and URL splitting without allocation: pieces are found by pointer and length, copied into
// caller buffers on request, and percent-decoded or -encoded in place. Used by the HTTP request
// parser, the source client and the download-request path split.
#pragma once
#include <cstddef>

// Default sizes for the buffers that receive the pieces (each includes the terminating NUL).
enum : size_t {
    URI_SCHEME_MAX = 8,
    URI_AUTH_MAX = 64,
    URI_PATH_MAX = 128,
    URI_QUERY_MAX = 256,
};

// Scheme kinds: the index of the scheme's name in the table of known schemes.
enum : int {
    URI_BAD = -1,
    URI_FILE = 0, // "file"
    URI_TCP = 1,  // "tcp"
    URI_UDP = 2,  // "udp"
    URI_RTP = 3,  // "rtp"
    URI_HTTP = 4, // "http"
    URI_HLS = 5,  // "m3u"
};

// A view into a parsed text; nothing is copied. A missing piece has a null pointer (and length 0).
// The pieces are not NUL-terminated: always use the lengths.
struct uri_layout {
    const char* scheme;
    const char* authority; // the user part before "@"
    const char* path;
    const char* query; // after "?"
    size_t s_len;
    size_t a_len;
    size_t p_len;
    size_t q_len;
};

// Splits the NUL-terminated `text`. Returns 0, or -1 when a scheme or an authority is followed by
// nothing. `out` may be null: then only the check is made.
int uri_parse(const char* text, uri_layout* out);
// The same for a text that ends at `len` bytes or at its first NUL, whichever comes first; for
// request targets that sit inside a larger buffer.
int uri_parse_len(const char* text, size_t len, uri_layout* out);

// Copy one piece of `l` into `buf` through `cpyseg` (same results).
char* uri_get_scheme(const uri_layout* l, char* buf, size_t buflen);
char* uri_get_authority(const uri_layout* l, char* buf, size_t buflen);
char* uri_get_path(const uri_layout* l, char* buf, size_t buflen);
char* uri_get_query(const uri_layout* l, char* buf, size_t buflen);

// Copies `len` bytes of `seg` and a NUL into `buf`. A missing or empty segment stores an empty text
// (when there is room for it) and returns null; a segment that does not fit returns null and leaves
// `buf` untouched; otherwise returns `buf`.
char* cpyseg(const char* seg, size_t len, char* buf, size_t buflen);

// Length of the path part of the NUL-terminated `text`: the offset of its last "?", or the whole
// length when there is no "?" or the text ends with "/".
size_t till_query(const char* text);

// Splits the head of a path, "host[:port]..." or "[v6-literal][:port]...", within `len` bytes.
// The host goes to `addr` and the port to `port` when they are non-empty and the buffers are given;
// an empty host or port leaves its buffer untouched, so a caller may pre-fill a default.
// Returns the position after the port when there is one, else the position where the host ended
// (for a bracketed literal, its "]"); null when the path is empty, a literal is not closed, or a
// piece does not fit its buffer.
const char* path_parse(const char* path, size_t len, char* addr, size_t addrlen, char* port,
                       size_t portlen);
// path_parse that also logs the failure at error level.
const char* uri_path_addrport(const char* path, size_t len, char* addr, size_t addrlen, char* port,
                              size_t portlen);

// The kind of the NUL-terminated scheme name (exact, lower-case match), or URI_BAD.
int uri_scheme_kind(const char* name);
// True when `s` starts with one of the alias marks "$", "~" or "^".
bool uri_is_alias(const char* s);

// Value of a hexadecimal digit, -1 for anything else. Letters give their code minus 55, so "A".."F"
// give 10..15 while "a".."f" give 42..47: lower-case escapes decode to other bytes, on purpose.
int hex2dec(int c);
// Percent-decodes `buf` in place within `len` bytes and up to its first NUL; "+" becomes a blank.
// Option bit 1 writes a decoded byte that is not printable as "?". An escape with an invalid digit
// is dropped. Returns `buf`, or null when a "%" lacks its two characters.
char* uri_decode_opt(char* buf, size_t len, int opts);
// uri_decode_opt with option 1.
char* uri_decode(char* buf, size_t len);
// True for a printable character outside ";/?:@&=+$,* ".
bool is_safe(int c);
// Percent-encodes the NUL-terminated text in `buf` in place, within `len` bytes including the NUL;
// an escape that would not fit ends the text before it. Returns `buf`, or null when `len` is 0 or
// the scratch copy cannot be allocated.
char* uri_encode(char* buf, size_t len);

// Classifies a URL "scheme://[source@]path[?query]" and copies its pieces: the path part (host,
// port and the rest) into `path`, the part before "@" (a source-specific multicast source, or
// empty) into `src`, the query (or empty) into `query`. Output buffers may be null. Returns the
// scheme kind, or URI_BAD (logged) for an unparsable URL, a missing or unknown scheme, an empty
// path or a piece that does not fit its buffer.
int uri_extract(const char* url, char* path, size_t pathlen, char* src, size_t srclen, char* query,
                size_t qlen);

// Splits a request path "[lead/...]src/<source>/dst[/<destination>]" within `len` bytes into the
// source endpoint and the destination endpoint, both copied verbatim (not decoded). Returns 0;
// 22 when there is no "src" segment, no "dst" segment balancing it, or the source is empty;
// 34 when an endpoint does not fit its buffer; -1 for missing arguments.
int uri_extract_endpts_ext(const char* path, size_t len, char* src, size_t srclen, char* dst,
                           size_t dstlen);
