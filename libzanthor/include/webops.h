// Just enough HTTP/1.x for one request per connection: parsing of a request head and its header
// fields, the search for the end of a head, the split of a download request path into source and
// destination, and canned responses composed from static records and sent in one write.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "uri.h"

// Sizes of the header fields kept from a request head (each includes the terminating NUL).
enum : size_t {
    MAX_HOST_LEN = 64,
    MAX_UAG_LEN = 128,
    MAX_AENC_LEN = 32,
};

// Request methods understood.
enum : int { HTTP_GET = 0, HTTP_HEAD = 1 };

// Results of web_parse_urq besides 0 and the parser's codes.
enum : int {
    WEB_NO_PATH = -3,    // the request is for "/" alone
    WEB_BAD_QUERY = -7,  // the query is longer than 255 bytes
    WEB_FAVICON = 1028,  // "favicon.ico"
    WEB_PING = 1029,     // "ping" or "ping/"
    WEB_QUERY_SPACE = 7, // the query does not fit behind the source
};

// A parsed request head. The `uri` pointers point into the request buffer that was parsed.
struct http_header {
    int type; // HTTP_GET or HTTP_HEAD
    uri_layout uri;
    char host[MAX_HOST_LEN];      // at most 62 characters; empty when absent or too long
    char user_agent[MAX_UAG_LEN]; // at most 126 characters before URI-encoding
    char accept_enc[MAX_AENC_LEN]; // at most 30 characters
    bool is_keep_alive;
    bool is_close; // only examined when not keep-alive
    bool is_http10;
};

// A response description. The canned records below are static and never freed; `code`, `reason`
// and `server` are required. Optional text fields are null (or empty) when absent.
struct http_response {
    int code;
    const char* content_type;
    const char* content_encoding;
    long content_length; // negative: no Content-Length line
    const char* reason;
    const char* server; // the sender fills in the application tag
    const char* connection;
    const char* ok_suffix; // extra header text, only for code 200
    const char* location;
    const char* fpath; // a file whose contents become the body
};

// Room for the text that says why a source's answer head was refused as malformed.
enum : size_t { HTTP_WHY_SIZE = 128 };

// The state of reading a source's response head: the status code, the bytes in the buffer and the
// offset of the first body byte (0 until the end of the head was seen). Start from a zeroed record
// and keep it, with its buffer, to resume a partial read.
struct http_resp_ctx {
    int code;
    ssize_t total;
    ssize_t tail;
    long content_length;           // of an accepted head: its Content-Length, -1 when absent
    char malformed[HTTP_WHY_SIZE]; // not empty when the head was refused as malformed: why
    bool may_be_closed;            // set by the caller: an end or reset before the first byte is
                                   // expected (a reused connection) and not logged as an error
    bool closed_unread;            // the stream ended or failed before the first byte
};

// The canned responses; their `server` starts empty.
extern http_response g_resp_ok;      // 200 OK
extern http_response g_resp_ok204;   // 204 No Content
extern http_response g_resp_tmoved;  // 302 Moved Temporarily
extern http_response g_resp_bad;     // 400 Bad request
extern http_response g_resp_denied;  // 403 Forbidden
extern http_response g_resp_nfound;  // 404 Not Found
extern http_response g_resp_unacc;   // 406 Not Acceptable
extern http_response g_resp_timeout; // 408 Request Timeout
extern http_response g_resp_err;     // 500 Service error
extern http_response g_resp_bgw;     // 502 Bad Gateway
extern http_response g_resp_svcun;   // 503 Service Unavailable
extern http_response g_resp_gwtmo;   // 504 Gateway Timeout

// Parses the request head in `http_rq`, which ends at `rqlen` bytes or its first NUL. `hdr` is
// zeroed first; the request target is copied into `urlbuf` when given and it fits `urlen`.
// Returns 0, 22 for a method other than GET or HEAD, -1 for a malformed request line, or the code
// of the URI parser. A request line without header lines is accepted.
int parse_http_header(const char* http_rq, size_t rqlen, http_header* hdr, char* urlbuf,
                      size_t urlen);

// The value of the header `title` in the NUL-terminated `buf`: the first occurrence of `title`
// anywhere in the text, ignoring case, followed by an optional ":", at least one blank, and a value
// ending at a CR or LF. Returns the value (not terminated) with its length in `*hdr_len`, or null
// (and 0) when absent or malformed.
const char* find_http_header(const char* title, const char* buf, size_t* hdr_len);
// find_http_header with a bound: the search and the value stay within `len` bytes of `buf`.
const char* find_http_header_n(const char* title, const char* buf, size_t len, size_t* hdr_len);
// The decimal value of the header `title` in the NUL-terminated `buf` (`len` is not a bound), or
// -1 when absent or empty. Only the first 31 characters of a longer value are read.
long extract_num_hdr(const char* title, const char* buf, size_t len);

// The strict reading of a source's answer head `head` of `len` bytes (not necessarily terminated),
// so that a file is only ever stored from an answer whose framing is beyond doubt. Both return true
// when the head passes; otherwise false with a printable reason in `why` (`whylen` bytes).
//
// The status line must be "HTTP/1.0" or "HTTP/1.1", one space, three digits, then a space or the
// line end; the code is stored in `*code`. A code below 100 is refused, and so is an interim 1xx
// answer: no Expect is ever sent, so a 1xx is no final answer. A NUL byte anywhere in the head is
// refused too, since the rest of the agent reads the head as a string.
[[nodiscard]] bool check_status_line(const char* head, size_t len, int* code, char* why,
                                     size_t whylen);
// The body framing of an answer with status `code`, judged only for 2xx (a body stored as a file):
// Content-Length must be digits with optional blanks around them, must fit a long, and every
// repetition must carry the same value; any Transfer-Encoding is refused (only length-delimited
// bodies are supported); a 206 must have one Content-Range "bytes 0-<N-1>/<N>" with N equal to its
// Content-Length, i.e. the whole resource. A framing header folded onto a following line, or with
// blanks before its colon, is refused. `*content_length` receives the value, -1 when absent (that
// refusal is left to the caller).
[[nodiscard]] bool check_body_framing(const char* head, size_t len, int code,
                                      long* content_length, char* why, size_t whylen);

// The offset just behind the end of a head ("\n\n" or "\r\n\r\n") within `buflen` bytes, or 0 when
// it has not been seen yet.
size_t head_eod(const char* buf, size_t buflen);
// One read of at most `buflen` - `offset` bytes into `buf` at `offset`; when the end of the head
// lies in the bytes so far, `*tail` receives its offset. Returns the count read, 0 at end of
// stream, -1 on error (errno kept).
ssize_t read_http(int sockfd, char* buf, size_t buflen, ssize_t offset, ssize_t* tail);

// True for "ping" (any case, one optional trailing "/"), with or without one leading "/".
bool is_ping_request(const char* path);
// True when `haystack` equals `needle` ignoring case, or does so followed by one "/".
bool slash_match(const char* haystack, const char* needle);

// Parses a download request head and splits its path into the source URL and the destination
// path ("[...]/src/<source>/dst/<destination>"), both URI-decoded into `ulen`-byte buffers; a
// query is appended to the source. The head is copied to `user_hdr` when given. Returns 0, a code
// of parse_http_header, WEB_NO_PATH, WEB_BAD_QUERY, WEB_FAVICON, WEB_PING, WEB_QUERY_SPACE, or -1
// when the split or the decoding fails.
int web_parse_urq(char* http, size_t hlen, char* uri_src, char* uri_dst, size_t ulen,
                  http_header* user_hdr);
// The same split for the path of the URL of a channel message (query ignored). Returns 0, 34 for
// an empty path or one of 128 characters or more, -1 for a failed split or decoding, or the code
// of the URI parser.
int web_parse_url(const char* url, char* uri_src, char* uri_dst, size_t ulen);

// Composes the response text for HTTP/1.0 (`version` 10) or HTTP/1.1 (11) into `buf` and
// NUL-terminates it. Returns its length, -1 when it does not fit or the body file cannot be read,
// 22 for another version. A header line longer than 127 characters that would fit is left out.
int mk_http_xt_resp(const http_response* r, int version, char* buf, size_t buflen);
// Composes `r` as HTTP/1.1 in a static buffer and writes it once (a partial write is logged, not
// retried). 0, or -1 when it cannot be composed or nothing was written.
int send_http_response(int sockfd, const http_response* r);
// The canned response for `http_code`; for an unknown code (logged) the 200 record below 300,
// else the 500 record.
http_response* http_code_resp(int http_code);
