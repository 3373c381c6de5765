// Request-head parsing, download-path splitting and canned responses of the agent's web side.
// Every parser works within the length it is given (or the first NUL before it), so a truncated or
// hostile head can only be refused, never read past.
#include "webops.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <utility>

#include "fdio.h"
#include "log.h"
#include "uri.h"
#include "util.h"

LOG_MODULE(0, -1);

// Designated initialisers keep the canned table readable; every optional field is absent.
#define CANNED_RESP(c, len, why, conn)                                                             \
    {.code = (c),                                                                                  \
     .content_type = nullptr,                                                                      \
     .content_encoding = nullptr,                                                                  \
     .content_length = (len),                                                                      \
     .reason = (why),                                                                              \
     .server = "",                                                                                 \
     .connection = (conn),                                                                         \
     .ok_suffix = nullptr,                                                                         \
     .location = nullptr,                                                                          \
     .fpath = nullptr}

http_response g_resp_ok = CANNED_RESP(200, -1, "OK", nullptr);
http_response g_resp_ok204 = CANNED_RESP(204, -1, "No Content", nullptr);
http_response g_resp_tmoved = CANNED_RESP(302, 0, "Moved Temporarily", "close");
http_response g_resp_bad = CANNED_RESP(400, 0, "Bad request", nullptr);
http_response g_resp_denied = CANNED_RESP(403, 0, "Forbidden", "close");
http_response g_resp_nfound = CANNED_RESP(404, 0, "Not Found", "close");
http_response g_resp_unacc = CANNED_RESP(406, 0, "Not Acceptable", "close");
http_response g_resp_timeout = CANNED_RESP(408, 0, "Request Timeout", "close");
http_response g_resp_err = CANNED_RESP(500, 0, "Service error", "close");
http_response g_resp_bgw = CANNED_RESP(502, 0, "Bad Gateway", "close");
http_response g_resp_svcun = CANNED_RESP(503, 0, "Service Unavailable", "close");
http_response g_resp_gwtmo = CANNED_RESP(504, 0, "Gateway Timeout", "close");

#undef CANNED_RESP

namespace {

constexpr size_t METHOD_MIN = 3;
constexpr size_t METHOD_MAX = 7;
constexpr size_t CONN_MAX = 30;     // characters of Connection examined
constexpr size_t QUERY_LIMIT = 256; // a request query must be shorter
constexpr size_t XT_LINE_MAX = 128; // scratch line of an optional response header
constexpr size_t NUMHDR_MAX = 32;   // a numeric header value is read from 31 characters
constexpr size_t RESP_BUF_SIZE = 4096;

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Copies at most N - 1 bytes of [s, s + n) and a NUL into `out`: a printable excerpt of a text
// that is not terminated, for log lines.
template <size_t N> const char* excerpt(const char* s, size_t n, char (&out)[N])
{
    const size_t k = n < N - 1 ? n : N - 1;
    if (k)
        std::memcpy(out, s, k);
    out[k] = '\0';
    return out;
}

// Copies at most `maxn` bytes of the value and a NUL into `out` (of at least `maxn` + 1 bytes).
void copy_cut(char* out, const char* v, size_t n, size_t maxn)
{
    const size_t k = n < maxn ? n : maxn;
    if (k)
        std::memcpy(out, v, k);
    out[k] = '\0';
}

// First occurrence of `needle` in [hay, hay + hlen), ignoring case.
const char* find_nocase(const char* hay, size_t hlen, const char* needle, size_t nlen)
{
    if (nlen > hlen)
        return nullptr;
    for (size_t i = 0; i + nlen <= hlen; ++i)
        if (strncasecmp(hay + i, needle, nlen) == 0)
            return hay + i;
    return nullptr;
}

// Appends one optional header line made in a scratch line of XT_LINE_MAX bytes; `n` is the full
// length the formatter wanted. A line that does not fit the rest of `buf` fails the whole text;
// an over-long line that would fit is only left out (both rules are relied upon).
int put_xt_line(char* buf, size_t buflen, size_t* pos, const char* line, int n)
{
    if (n < 0 || *pos + static_cast<size_t>(n) >= buflen)
        return -1;
    if (static_cast<size_t>(n) >= XT_LINE_MAX)
        return 0;
    std::memcpy(buf + *pos, line, static_cast<size_t>(n));
    *pos += static_cast<size_t>(n);
    buf[*pos] = '\0';
    return 0;
}

bool has_text(const char* s)
{
    return s != nullptr && *s != '\0';
}

// put_xt_line of "<name>: <value>" when the value is set and not empty; 0 when it is not.
int put_text_line(char* buf, size_t buflen, size_t* pos, const char* name, const char* value)
{
    if (!has_text(value))
        return 0;
    char line[XT_LINE_MAX];
    const int n = snprintf(line, sizeof line, "%s: %s\r\n", name, value);
    return put_xt_line(buf, buflen, pos, line, n);
}

} // namespace

const char* find_http_header_n(const char* title, const char* buf, size_t len, size_t* hdr_len)
{
    if (hdr_len)
        *hdr_len = 0;
    if (!title || !buf)
        return nullptr;
    const size_t tlen = std::strlen(title);
    const char* const p = find_nocase(buf, len, title, tlen);
    if (!p)
        return nullptr;
    const char* const end = buf + len;
    const char* q = p + tlen;
    if ((tlen == 0 || title[tlen - 1] != ':') && q < end && *q == ':')
        ++q;
    // Only the first occurrence counts: a malformed one hides any later one.
    if (q >= end || !is_blank(*q))
        return nullptr;
    while (q < end && is_blank(*q))
        ++q;
    const char* const v = q;
    while (q < end && !std::iscntrl(static_cast<unsigned char>(*q)))
        ++q;
    if (q >= end || (*q != '\n' && *q != '\r'))
        return nullptr;
    if (hdr_len)
        *hdr_len = static_cast<size_t>(q - v);
    return v;
}

const char* find_http_header(const char* title, const char* buf, size_t* hdr_len)
{
    return find_http_header_n(title, buf, buf ? std::strlen(buf) : 0, hdr_len);
}

long extract_num_hdr(const char* title, const char* buf, [[maybe_unused]] size_t len)
{
    size_t n = 0;
    const char* const v = find_http_header(title, buf, &n);
    if (!v || n == 0)
        return -1;
    if (n >= NUMHDR_MAX)
        zlogf(L_WARN, "%s: header [%s] value length is too big: %lu bytes\n", title,
              static_cast<unsigned long>(n));
    char num[NUMHDR_MAX];
    copy_cut(num, v, n, NUMHDR_MAX - 1);
    return std::strtol(num, nullptr, 10);
}

namespace {

constexpr size_t WHY_EXCERPT = 48; // characters of a refused value quoted in the reason

// Formats the reason of a refused head into `why`; always false, for one-line refusals.
[[gnu::format(printf, 3, 4)]] bool refuse(char* why, size_t whylen, const char* fmt, ...)
{
    if (why && whylen) {
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(why, whylen, fmt, ap);
        va_end(ap);
    }
    return false;
}

// A printable copy of at most WHY_EXCERPT bytes of [s, s + n) for a reason text: a hostile source
// must not be able to write control characters into the log.
struct quoted {
    char text[WHY_EXCERPT + 1];
    quoted(const char* s, size_t n)
    {
        const size_t k = n < WHY_EXCERPT ? n : WHY_EXCERPT;
        for (size_t i = 0; i < k; ++i) {
            const auto c = static_cast<unsigned char>(s[i]);
            text[i] = (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
        }
        text[k] = '\0';
    }
};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// The decimal value of [s, s + n) when it is all digits and fits a long, else -1.
long parse_digits(const char* s, size_t n)
{
    if (n == 0)
        return -1;
    long v = 0;
    for (size_t i = 0; i < n; ++i) {
        if (!is_digit(s[i]))
            return -1;
        const int d = s[i] - '0';
        if (v > (LONG_MAX - d) / 10)
            return -1;
        v = v * 10 + d;
    }
    return v;
}

// The header fields that frame a body; anything else in a source's head is not looked at here.
enum framing_field { FF_OTHER, FF_LENGTH, FF_ENCODING, FF_RANGE };

framing_field framing_field_of(const char* name, size_t n)
{
    static constexpr std::pair<const char*, framing_field> fields[] = {
        {"Content-Length", FF_LENGTH},
        {"Transfer-Encoding", FF_ENCODING},
        {"Content-Range", FF_RANGE},
    };
    for (const auto& [title, ff] : fields)
        if (std::strlen(title) == n && strncasecmp(name, title, n) == 0)
            return ff;
    return FF_OTHER;
}

// True when the Content-Range value [v, v + n) is "bytes 0-<length - 1>/<length>".
bool covers_whole_body(const char* v, size_t n, long length)
{
    constexpr char unit[] = "bytes 0-";
    constexpr size_t ulen = sizeof unit - 1;
    if (length <= 0 || n <= ulen || strncasecmp(v, unit, ulen) != 0)
        return false;
    const char* const slash = static_cast<const char*>(std::memchr(v + ulen, '/', n - ulen));
    if (!slash)
        return false;
    const long last = parse_digits(v + ulen, static_cast<size_t>(slash - v) - ulen);
    const long total = parse_digits(slash + 1, static_cast<size_t>(v + n - slash - 1));
    return last >= 0 && total == length && last == length - 1;
}

} // namespace

bool check_status_line(const char* head, size_t len, int* code, char* why, size_t whylen)
{
    *code = 0;
    if (std::memchr(head, '\0', len))
        return refuse(why, whylen, "NUL byte in the head");
    size_t eol = 0;
    while (eol < len && head[eol] != '\r' && head[eol] != '\n')
        ++eol;
    const quoted line(head, eol);
    // "HTTP/1.x" SP three digits, then SP or the line end: 12 characters at least.
    if (eol < 12 || std::strncmp(head, "HTTP/1.", 7) != 0 || (head[7] != '0' && head[7] != '1') ||
        head[8] != ' ' || !is_digit(head[9]) || !is_digit(head[10]) || !is_digit(head[11]) ||
        (eol > 12 && head[12] != ' '))
        return refuse(why, whylen,
                      "status line [%s] is not HTTP/1.0 or HTTP/1.1, a space and three digits",
                      line.text);
    const int c = (head[9] - '0') * 100 + (head[10] - '0') * 10 + (head[11] - '0');
    if (c < 100)
        return refuse(why, whylen, "status code %03d out of range", c);
    if (c < 200)
        return refuse(why, whylen, "interim answer %d where a final one was due", c);
    *code = c;
    return true;
}

bool check_body_framing(const char* head, size_t len, int code, long* content_length, char* why,
                        size_t whylen)
{
    *content_length = -1;
    if (code < 200 || code > 299)
        return true;
    const char* const end = head + len;
    const char* p = static_cast<const char*>(std::memchr(head, '\n', len));
    framing_field last = FF_OTHER;
    const char* range = nullptr;
    size_t range_len = 0;
    while (p && ++p < end) {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
        const char* const next = nl ? nl : end;
        const char* le = next;
        if (le > p && le[-1] == '\r')
            --le;
        if (le == p)
            break; // the blank line that ends the head
        const char* const line = p;
        p = nl;
        if (is_blank(*line)) {
            // A folded line continues the field above; a framing value in two pieces is read
            // differently by different parsers, so it is refused rather than guessed.
            if (last != FF_OTHER)
                return refuse(why, whylen, "framing header folded over two lines");
            continue;
        }
        const char* const colon =
            static_cast<const char*>(std::memchr(line, ':', static_cast<size_t>(le - line)));
        if (!colon) {
            last = FF_OTHER;
            continue;
        }
        const char* name_end = colon;
        while (name_end > line && is_blank(name_end[-1]))
            --name_end;
        last = framing_field_of(line, static_cast<size_t>(name_end - line));
        if (last == FF_OTHER)
            continue;
        if (name_end != colon)
            return refuse(why, whylen, "blank before the colon of [%s]",
                          quoted(line, static_cast<size_t>(name_end - line)).text);
        const char* v = colon + 1;
        const char* ve = le;
        while (v < ve && is_blank(*v))
            ++v;
        while (ve > v && is_blank(ve[-1]))
            --ve;
        const size_t vn = static_cast<size_t>(ve - v);
        if (last == FF_ENCODING)
            return refuse(why, whylen,
                          "Transfer-Encoding [%s] in a %d answer: only length-delimited bodies "
                          "are supported",
                          quoted(v, vn).text, code);
        if (last == FF_RANGE) {
            if (range)
                return refuse(why, whylen, "Content-Range repeated");
            range = v;
            range_len = vn;
            continue;
        }
        const long n = parse_digits(v, vn);
        if (n < 0)
            return refuse(why, whylen, "Content-Length [%s] is not a decimal number of bytes",
                          quoted(v, vn).text);
        if (*content_length >= 0 && n != *content_length)
            return refuse(why, whylen, "Content-Length values %ld and %ld differ",
                          *content_length, n);
        *content_length = n;
    }
    if (code == 206 && *content_length >= 0) {
        if (!range)
            return refuse(why, whylen, "206 answer without Content-Range");
        if (!covers_whole_body(range, range_len, *content_length))
            return refuse(why, whylen, "206 Content-Range [%s] is not the whole %ld-byte body",
                          quoted(range, range_len).text, *content_length);
    }
    return true;
}

int parse_http_header(const char* http_rq, size_t rqlen, http_header* hdr, char* urlbuf,
                      size_t urlen)
{
    ZASSERT(hdr != nullptr);
    std::memset(hdr, 0, sizeof *hdr);
    if (urlbuf && urlen)
        urlbuf[0] = '\0';
    const size_t len = http_rq ? strnlen(http_rq, rqlen) : 0;
    const char* const end = http_rq + len;
    const char* p = http_rq;

    // 1. The method.
    while (p < end && !is_blank(*p))
        ++p;
    const size_t mlen = static_cast<size_t>(p - http_rq);
    char method[METHOD_MAX + 1];
    if (mlen < METHOD_MIN || mlen > METHOD_MAX) {
        zlogf(L_ERR, "%s: failed to get HTTP method from %7s\n",
              excerpt(http_rq, len, method));
        return -1;
    }
    excerpt(http_rq, mlen, method);
    if (strcasecmp(method, "GET") == 0) {
        hdr->type = HTTP_GET;
    } else if (strcasecmp(method, "HEAD") == 0) {
        hdr->type = HTTP_HEAD;
        zlogf(L_DEBUG, "%s: identified as HEAD\n");
    } else {
        zlog(L_ERR, "HTTP [%s] is NOT supported\n", method);
        return 22;
    }

    // 2. The request target.
    while (p < end && is_blank(*p))
        ++p;
    const char* const target = p;
    while (p < end && !is_space(*p))
        ++p;
    const size_t tlen = static_cast<size_t>(p - target);
    if (urlbuf && tlen < urlen) {
        copy_cut(urlbuf, target, tlen, tlen);
        zlogf(L_DEBUG, "%s: full URL=[%s]\n", urlbuf);
    }

    // 3. Its pieces point into the request buffer.
    const int rc = uri_parse_len(target, tlen, &hdr->uri);
    char shown[256];
    zlogf(L_DEBUG, "%s: url=[%s], p_len=%u, q_len=%u, rc=%d\n", excerpt(target, tlen, shown),
          static_cast<unsigned>(hdr->uri.p_len), static_cast<unsigned>(hdr->uri.q_len), rc);
    if (rc != 0) {
        zlogf(L_ERR, "%s: failed to parse URL\n");
        return rc;
    }

    // 4. The protocol, when there is one on the request line.
    while (p < end && is_blank(*p))
        ++p;
    if (p < end && *p != '\r' && *p != '\n') {
        static constexpr char proto[] = "HTTP/1.";
        constexpr size_t plen = sizeof proto - 1;
        if (static_cast<size_t>(end - p) < plen || std::memcmp(p, proto, plen) != 0) {
            const char* eol = p;
            while (eol < end && *eol != '\r' && *eol != '\n')
                ++eol;
            char got[64];
            zlogf(L_ERR, "%s: expected [%s] to follow the URI path, got [%s]\n", proto,
                  excerpt(p, static_cast<size_t>(eol - p), got));
            return -1;
        }
        if (static_cast<size_t>(end - p) > plen && p[plen] == '0') {
            hdr->is_http10 = true;
            zlogf(L_DEBUG, "%s: HTTP/1.0 detected\n");
        }
    }

    // 5. The header lines.
    const char* const nl =
        static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
    if (!nl || nl + 1 >= end) {
        zlogf(L_WARN, "%s: no header sections found\n");
        return 0;
    }
    const char* const h = nl + 1;
    const size_t hlen = static_cast<size_t>(end - h);
    size_t vlen = 0;

    // 6. Host: a value of 63 characters still fits the copy's 63 bytes cut by one.
    const char* v = find_http_header_n("Host:", h, hlen, &vlen);
    if (v) {
        if (vlen < MAX_HOST_LEN)
            copy_cut(hdr->host, v, vlen, MAX_HOST_LEN - 2);
        else
            zlogf(L_WARN, "%s: Host length is too long: %lu\n", static_cast<unsigned long>(vlen));
    }

    // 7. User-Agent, encoded so that it can be logged and forwarded safely.
    v = find_http_header_n("User-Agent:", h, hlen, &vlen);
    if (v) {
        if (vlen > MAX_UAG_LEN - 1)
            zlogf(L_WARN, "%s: User-Agent length is too long: %lu\n",
                  static_cast<unsigned long>(vlen));
        copy_cut(hdr->user_agent, v, vlen, MAX_UAG_LEN - 2);
        if (!uri_encode(hdr->user_agent, MAX_UAG_LEN - 1))
            hdr->user_agent[0] = '\0';
    }

    // 8. Connection.
    v = find_http_header_n("Connection:", h, hlen, &vlen);
    if (v) {
        char conn[CONN_MAX + 1];
        copy_cut(conn, v, vlen, CONN_MAX);
        if (strcasecmp(conn, "keep-alive") == 0)
            hdr->is_keep_alive = true;
        else if (strcasecmp(conn, "close") == 0)
            hdr->is_close = true;
    }

    // 9. Accept-Encoding.
    v = find_http_header_n("Accept-Encoding:", h, hlen, &vlen);
    if (v) {
        copy_cut(hdr->accept_enc, v, vlen, MAX_AENC_LEN - 2);
        if (vlen >= MAX_AENC_LEN)
            zlogf(L_WARN, "%s: [%s] text has been trimmed from %zu to %zu chars\n",
                  hdr->accept_enc, vlen, MAX_AENC_LEN - 1);
    }
    return 0;
}

size_t head_eod(const char* buf, size_t buflen)
{
    if (!buf)
        return 0;
    for (size_t i = 0; i < buflen; ++i) {
        if (buf[i] == '\n') {
            if (i + 1 >= buflen)
                return 0;
            if (buf[i + 1] == '\n')
                return i + 2;
        } else if (buf[i] == '\r') {
            // A CR LF CR LF may still be arriving.
            if (i + 3 >= buflen)
                return 0;
            if (buf[i + 1] == '\n' && buf[i + 2] == '\r' && buf[i + 3] == '\n')
                return i + 4;
        }
    }
    return 0;
}

ssize_t read_http(int sockfd, char* buf, size_t buflen, ssize_t offset, ssize_t* tail)
{
    const size_t off = offset > 0 ? static_cast<size_t>(offset) : 0;
    const size_t room = off < buflen ? buflen - off : 0;
    const ssize_t n = nread(sockfd, buf + off, room, 0);
    if (n > 0) {
        const size_t eod = head_eod(buf, off + static_cast<size_t>(n));
        if (eod) {
            if (tail)
                *tail = static_cast<ssize_t>(eod);
            zlogf(L_DEBUG, "%s: HTTP EOD marker found at pos=%ld\n", static_cast<long>(eod));
        } else {
            zlogf(L_DEBUG, "%s: fd=%d, no HTTP EOD marker found, %ld bytes read.\n", sockfd,
                  static_cast<long>(n));
        }
    } else {
        const int err = errno;
        zlogf(L_DEBUG, "%s: EOD(%zd) for fd%d\n", n, sockfd);
        errno = err;
    }
    return n;
}

bool slash_match(const char* haystack, const char* needle)
{
    if (!haystack || !needle)
        return false;
    const size_t n = std::strlen(needle);
    if (strncasecmp(haystack, needle, n) != 0)
        return false;
    return haystack[n] == '\0' || (haystack[n] == '/' && haystack[n + 1] == '\0');
}

bool is_ping_request(const char* path)
{
    if (!path)
        return false;
    if (*path == '/')
        ++path;
    return slash_match(path, "ping");
}

// Splits a request path into its source and destination endpoints and URI-decodes both; 0, or -1
// with the caller's log line ("parsing <what> [<shown>]" names the text the caller was given).
static int split_endpoints(const char* caller, const char* path, size_t plen, char* uri_src,
                           char* uri_dst, size_t ulen, const char* what, const char* shown)
{
    const int rc = uri_extract_endpts_ext(path, plen, uri_src, ulen, uri_dst, ulen);
    if (rc != 0) {
        zlog(L_ERR, "%s: error(%d) parsing %s [%s]\n", caller, rc, what, shown);
        uri_src[0] = '\0';
        uri_dst[0] = '\0';
        return -1;
    }
    if (!uri_decode(uri_src, ulen) || !uri_decode(uri_dst, ulen)) {
        zlog(L_ERR, "%s: error URI-decoding\n", caller);
        return -1;
    }
    return 0;
}

int web_parse_urq(char* http, size_t hlen, char* uri_src, char* uri_dst, size_t ulen,
                  http_header* user_hdr)
{
    ZASSERT(uri_src != nullptr && uri_dst != nullptr && ulen > 0);
    uri_src[0] = '\0';
    uri_dst[0] = '\0';
    http_header hdr;
    char url[1024];
    int rc = parse_http_header(http, hlen, &hdr, url, sizeof url);
    if (rc != 0)
        return rc;
    if (user_hdr)
        *user_hdr = hdr;

    const uri_layout& u = hdr.uri;
    if (!u.path || u.p_len == 0) {
        zlogf(L_WARN, "%s: no path in URL [%s]\n", url);
        return WEB_NO_PATH;
    }
    if (u.q_len >= QUERY_LIMIT) {
        zlogf(L_ERR, "%s: URI query length (%lu bytes) is beyond the limit: %lu\n",
              static_cast<unsigned long>(u.q_len), static_cast<unsigned long>(QUERY_LIMIT));
        return WEB_BAD_QUERY;
    }
    static constexpr char favicon[] = "favicon.ico";
    if (u.p_len == sizeof favicon - 1 && strncasecmp(u.path, favicon, u.p_len) == 0) {
        zlogf(L_INFO, "%s: favicon request received.\n");
        return WEB_FAVICON;
    }
    char word[8];
    if (u.p_len < sizeof word && is_ping_request(excerpt(u.path, u.p_len, word))) {
        zlog(L_INFO, "Handling user-side PING request\n");
        return WEB_PING;
    }

    if (split_endpoints(__func__, u.path, u.p_len, uri_src, uri_dst, ulen, "request data", url))
        return -1;

    if (u.query && u.q_len) {
        const size_t slen = std::strlen(uri_src);
        if (slen + 1 + u.q_len + 1 > ulen) {
            zlogf(L_ERR,
                  "%s: URI query is too long (%lu bytes), max allowed=%ld bytes, discarding "
                  "request\n",
                  static_cast<unsigned long>(u.q_len),
                  static_cast<long>(ulen) - static_cast<long>(slen) - 2);
            return WEB_QUERY_SPACE;
        }
        uri_src[slen] = '?';
        std::memcpy(uri_src + slen + 1, u.query, u.q_len);
        uri_src[slen + 1 + u.q_len] = '\0';
        zlogf(L_DEBUG, "%s: query [%s] appended to source\n", uri_src + slen + 1);
    }
    zlogf(L_DEBUG, "%s: URI=[%s] - src=[%s], dst=[%s]\n", url, uri_src, uri_dst);
    return 0;
}

int web_parse_url(const char* url, char* uri_src, char* uri_dst, size_t ulen)
{
    ZASSERT(uri_src != nullptr && uri_dst != nullptr && ulen > 0);
    uri_src[0] = '\0';
    uri_dst[0] = '\0';
    uri_layout u{};
    const int rc = uri_parse(url ? url : "", &u);
    if (rc != 0)
        return rc;
    if (u.p_len < 1 || u.p_len > URI_PATH_MAX - 1) {
        zlogf(L_ERR, "%s: invalid path size: %zu\n", u.p_len);
        return 34;
    }
    char path[URI_PATH_MAX];
    excerpt(u.path, u.p_len, path);
    return split_endpoints(__func__, u.path, u.p_len, uri_src, uri_dst, ulen, "path", path);
}

int mk_http_xt_resp(const http_response* r, int version, char* buf, size_t buflen)
{
    ZASSERT(r != nullptr && r->code != 0 && r->reason != nullptr && r->server != nullptr);
    if (version != 10 && version != 11) {
        zlogf(L_ERR, "%s: HTTP/%d.%d not supported\n", version / 10, version % 10);
        return 22;
    }
    if (!buf || buflen == 0)
        return -1;
    const int n = snprintf(buf, buflen, "HTTP/%d.%d %d %s\r\nServer: %s\r\n", version / 10,
                           version % 10, r->code, r->reason, r->server);
    if (n < 0 || static_cast<size_t>(n) >= buflen)
        return -1;
    size_t pos = static_cast<size_t>(n);

    char clen[24] = "";
    if (r->content_length >= 0)
        snprintf(clen, sizeof clen, "%lu", static_cast<unsigned long>(r->content_length));
    if (put_text_line(buf, buflen, &pos, "Content-Type", r->content_type) != 0 ||
        put_text_line(buf, buflen, &pos, "Content-Encoding", r->content_encoding) != 0 ||
        put_text_line(buf, buflen, &pos, "Content-Length", clen) != 0 ||
        put_text_line(buf, buflen, &pos, "Connection", r->connection) != 0 ||
        put_text_line(buf, buflen, &pos, "Location", r->location) != 0)
        return -1;
    if (r->code == 200 && has_text(r->ok_suffix)) {
        const size_t slen = std::strlen(r->ok_suffix);
        if (pos + slen + 2 >= buflen)
            return -1;
        std::memcpy(buf + pos, r->ok_suffix, slen);
        std::memcpy(buf + pos + slen, "\r\n", 2);
        pos += slen + 2;
    }
    if (pos + 3 >= buflen)
        return -1;
    std::memcpy(buf + pos, "\r\n", 2);
    pos += 2;
    const size_t hdr_len = pos;

    if (has_text(r->fpath)) {
        const ssize_t fn = read_file_buf(r->fpath, buf + pos, buflen - pos);
        if (fn <= 0)
            return -1;
        zlogf(L_DEBUG, "%s: file [%s] of %zd bytes included in HTTP response\n", r->fpath, fn);
        pos += static_cast<size_t>(fn);
    }
    buf[pos] = '\0';
    zlogf(L_DEBUG, "%s: header:%d/total:%d bytes\n%.*s\n", static_cast<int>(hdr_len),
          static_cast<int>(pos), static_cast<int>(hdr_len), buf);
    return static_cast<int>(pos);
}

int send_http_response(int sockfd, const http_response* r)
{
    // One thread: the buffer is shared by all senders and never outlives the call's write.
    static char buf[RESP_BUF_SIZE];
    const int len = mk_http_xt_resp(r, 11, buf, sizeof buf);
    int rc = -1;
    if (len > 0) {
        const ssize_t n = nwrite(sockfd, buf, static_cast<size_t>(len), 1);
        if (n < 1) {
            zlogf(L_ERR, "%s: error sending HTTP response to fd=%d\n", sockfd);
        } else {
            if (n < len)
                zlogf(L_WARN, "%s: only %ld out of %ld bytes sent to fd=%d\n",
                      static_cast<long>(n), static_cast<long>(len), sockfd);
            zlogf(L_DEBUG, "%s: sent HTTP response (%ld bytes) to fd=%d:\n%s\n",
                  static_cast<long>(n), sockfd, buf);
            rc = 0;
        }
    }
    if (rc != 0)
        zlogf(L_ERR, "%s: error compiling HTTP response for fd=%d\n", sockfd);
    return rc;
}

http_response* http_code_resp(int http_code)
{
    switch (http_code) {
    case 200:
        return &g_resp_ok;
    case 204:
        return &g_resp_ok204;
    case 302:
        return &g_resp_tmoved;
    case 400:
        return &g_resp_bad;
    case 403:
        return &g_resp_denied;
    case 404:
        return &g_resp_nfound;
    case 406:
        return &g_resp_unacc;
    case 408:
        return &g_resp_timeout;
    case 500:
        return &g_resp_err;
    case 502:
        return &g_resp_bgw;
    case 503:
        return &g_resp_svcun;
    case 504:
        return &g_resp_gwtmo;
    default:
        break;
    }
    zlogf(L_WARN, "%s: no response for HTTP%d defined, please update the lib!\n", http_code);
    return http_code < 300 ? &g_resp_ok : &g_resp_err;
}
