// Opening and closing of URL-named data streams (files, TCP, UDP/RTP groups, HTTP sources), the
// GET request sent to a source and the non-blocking reading of its response head.
#include "wopen.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <strings.h>

#include "fdio.h"
#include "log.h"
#include "netops.h"
#include "syswrap.h"
#include "uri.h"
#include "webops.h"

LOG_MODULE(0, -1);

usock_flags g_usock_flags = {false};
char g_apptag[APPTAG_SIZE] = "#ERR#";

namespace {

constexpr size_t HOST_SIZE = 1025;   // host part of a URL
constexpr size_t PORT_SIZE = 32;     // port part of a URL
constexpr size_t UPATH_SIZE = 2048;  // path part of a URL (host, port and the rest)
constexpr size_t USRC_SIZE = 256;    // source-specific multicast source
constexpr size_t UQUERY_SIZE = 1024; // query of a URL
constexpr size_t GET_RQ_SIZE = 384;  // path and query of a GET
constexpr size_t RQ_HOST_SIZE = 128; // text of the Host line
constexpr size_t RQ_BUF_SIZE = 2048; // the whole request
constexpr int BLOCKING_WAIT_MS = 3000;

bool is_blank_text(const char* s)
{
    if (!s)
        return true;
    for (; *s; ++s)
        if (*s != ' ' && *s != '\t')
            return false;
    return true;
}

char* dup_text(const char* caller, const char* s)
{
    const size_t n = std::strlen(s) + 1;
    char* const p = static_cast<char*>(W_calloc(caller, n, 1));
    if (p)
        std::memcpy(p, s, n);
    return p;
}

// The blocking reader behind usock_open for HTTP sources opened without `skip_http`: reads the
// head, requires a 2xx status and moves the body bytes that came with it to the buffer's start.
int get_http_response(int fd, usock_ctx* uc)
{
    if (!uc->buf || uc->bufcap < 2)
        return -1;
    http_resp_ctx resp{};
    int rc;
    while ((rc = recv_http_response(fd, uc->buf, uc->bufcap, &resp)) == 11) {
        // Only a non-blocking socket gets here; give the source a bounded time to answer.
        const int wait_ms = uc->timeout_ms > 0 ? uc->timeout_ms : BLOCKING_WAIT_MS;
        if (wait_to_read(fd, wait_ms) != 0) {
            zlogf(L_ERR, "%s: no response from fd=%d within %d ms\n", fd, wait_ms);
            return -1;
        }
    }
    if (rc != 0) {
        if (resp.malformed[0])
            zlogf(L_ERR, "%s: fd=%d malformed answer: %s\n", fd, resp.malformed);
        return -1;
    }
    if (resp.code < 200 || resp.code > 299) {
        zlogf(L_ERR, "%s: fd=%d expected HTTP 2xx, got HTTP %d\n", fd, resp.code);
        return -1;
    }
    const size_t body = static_cast<size_t>(resp.total - resp.tail);
    std::memmove(uc->buf, uc->buf + resp.tail, body);
    uc->buflen = body;
    return 0;
}

} // namespace

int usock_url_host(const char* url, char* host, size_t hostlen)
{
    char path[UPATH_SIZE];
    char src[USRC_SIZE];
    char query[UQUERY_SIZE];
    const int kind = uri_extract(url, path, sizeof path, src, sizeof src, query, sizeof query);
    if (kind == URI_BAD || kind <= URI_FILE || kind > URI_HTTP)
        return -1;
    char port[PORT_SIZE] = "";
    host[0] = '\0';
    if (!uri_path_addrport(path, std::strlen(path), host, hostlen, port, sizeof port))
        return -1;
    return host[0] ? 0 : -1;
}

void usock_set_apptag(const char* apptag)
{
    snprintf(g_apptag, sizeof g_apptag, "%s", apptag ? apptag : "");
}

int usock_open(const char* url, usock_ctx* uc)
{
    ZASSERT(uc != nullptr);
    char path[UPATH_SIZE];
    char src[USRC_SIZE];
    char query[UQUERY_SIZE];
    const int kind = uri_extract(url, path, sizeof path, src, sizeof src, query, sizeof query);
    uc->url_kind = kind;
    if (kind == URI_BAD)
        return -1;

    ZASSERT(uc->url_path == nullptr || uc->url_path[0] == '\0');
    std::free(uc->url_path);
    uc->url_path = dup_text(__func__, path);
    uc->non_pollable = false;
    if (!uc->url_path)
        return -1;

    int fd = -1;
    if (kind == URI_FILE) {
        fd = W_open(__func__, path, O_RDONLY | O_CLOEXEC, 0);
        if (fd < 0)
            goto fail;
        uc->non_pollable = true;
        zlogf(L_DEBUG, "%s: fd%d FILE [%s]\n", fd, path);
        return fd;
    }
    if (kind < URI_FILE || kind > URI_HTTP) {
        if (kind == URI_HLS)
            zlogf(L_ERR, "%s: unsupported URI type: %d\n", kind);
        else
            zlogf(L_ERR, "%s: unsupported type of URI [%s]", url);
        goto fail;
    }

    {
        char host[HOST_SIZE] = "";
        char port[PORT_SIZE] = "";
        if (!uri_path_addrport(path, std::strlen(path), host, sizeof host, port, sizeof port))
            goto fail;
        if (kind == URI_HTTP && port[0] == '\0') {
            std::memcpy(port, "80", 3);
            zlogf(L_DEBUG, "%s: assuming HTTP port %s for [%s]\n", port, url);
        }
        uc->sspec.writer = uc->inbound ? 0 : 1;
        uc->sspec.non_blocking = uc->non_blocking ? 1 : 0;

        const char* auth = nullptr;
        if (kind == URI_UDP || kind == URI_RTP) {
            uc->sspec.socktype = SOCK_DGRAM;
            if (uc->inbound && src[0]) {
                auth = src;
                zlogf(L_DEBUG, "%s: SSM source=[%s]\n", src);
            }
        } else {
            uc->sspec.socktype = SOCK_STREAM;
            if (!uc->buf) {
                uc->buf = static_cast<char*>(W_calloc(__func__, USOCK_BUF_SIZE, 1));
                if (!uc->buf)
                    goto fail;
                uc->bufcap = USOCK_BUF_SIZE;
                uc->buflen = 0;
            }
        }

        const char* node = uc->host_addr ? uc->host_addr : (host[0] ? host : nullptr);
        fd = open_socket(node, port, auth, &uc->sspec, uc->ifc_tag, &uc->mifc);
        if (fd < 0)
            goto fail;
    }

    if (!uc->non_blocking && uc->timeout_ms > 0) {
        const int rc = uc->inbound ? set_rcv_timeout(fd, uc->timeout_ms)
                                   : set_send_timeout(fd, uc->timeout_ms);
        if (rc != 0)
            goto fail;
    }
    if (kind == URI_HTTP && !uc->skip_http) {
        if (fwd_http_rq(fd, url, g_apptag, uc->http_flags) != 0 || get_http_response(fd, uc) != 0)
            goto fail;
    }
    return fd;

fail:
    {
        // open_socket may have left errno at EINPROGRESS; report the open's own failure cause.
        const int err = errno;
        usock_close(fd, uc);
        errno = err;
    }
    return -1;
}

void usock_close(int fd, usock_ctx* uc)
{
    ZASSERT(uc != nullptr);
    if (fd >= 0 && uc->sspec.multicast && !uc->sspec.writer)
        mcast_leave(fd, &uc->sspec, uc->mifc);
    std::free(uc->url_path);
    uc->url_path = nullptr;
    std::free(uc->mifc);
    uc->mifc = nullptr;
    std::free(uc->buf);
    uc->buf = nullptr;
    uc->bufcap = 0;
    uc->buflen = 0;
    if (fd >= 0)
        W_close(__func__, fd);
}

int usock_http_get(int sockfd, const char* uri, uint32_t flags)
{
    return fwd_http_rq(sockfd, uri, g_apptag, flags);
}

int fwd_http_rq(int sockfd, const char* uri, const char* server, uint32_t flags)
{
    char path[UPATH_SIZE];
    char query[UQUERY_SIZE];
    if (uri_extract(uri, path, sizeof path, nullptr, 0, query, sizeof query) == URI_BAD)
        return -1;
    char host[HOST_SIZE] = "";
    char port[PORT_SIZE] = "";
    const char* tail =
        uri_path_addrport(path, std::strlen(path), host, sizeof host, port, sizeof port);
    if (!tail)
        return -1;
    // For an IPv6 literal without a port the parser stops on the closing bracket.
    if (*tail == ']')
        ++tail;
    if (*tail == '\0') {
        zlogf(L_ERR, "%s: URI has no path tail: %s\n", uri);
        return -1;
    }

    uint32_t rq_flags = 0;
    if (g_usock_flags.use_http10_get) {
        zlogf(L_INFO, "%s: Using HTTP/1.0 request\n");
        rq_flags |= HTTP_RQ_V10;
    }
    // The caller's flags replace the process-wide setting: only the log line above remains of it.
    // Sources are always asked in the version the caller chose.
    rq_flags = flags;

    const char* request = tail;
    char rqtext[GET_RQ_SIZE];
    if (query[0]) {
        const int n = snprintf(rqtext, sizeof rqtext, "%s?%s", tail, query);
        if (n >= static_cast<int>(sizeof rqtext))
            zlogf(L_WARN, "%s: GET query is too long [%d bytes], max=%ld bytes.\n", n,
                  static_cast<long>(sizeof rqtext - 1));
        request = rqtext;
    }

    http_request rq{};
    rq.type = HTTP_GET;
    rq.flags = rq_flags;
    rq.request = request;
    rq.server = server;
    rq.host_addr = host;
    rq.host_port = port;
    return send_http_request(sockfd, &rq);
}

int send_http_request(int sockfd, const http_request* rq)
{
    ZASSERT(rq != nullptr);
    if (rq->type != HTTP_GET) {
        zlogf(L_ERR, "%s: only GET requests are currently supported.\n");
        return -1;
    }
    const char* const host = (rq->host_addr && rq->host_addr[0]) ? rq->host_addr : "localhost";
    char hosttext[RQ_HOST_SIZE];
    // An IPv6 literal goes back into brackets, or servers could not tell its port from its groups.
    const bool v6 = std::strchr(host, ':') != nullptr;
    const char* const lb = v6 ? "[" : "";
    const char* const rb = v6 ? "]" : "";
    const int hn = is_blank_text(rq->host_port)
                       ? snprintf(hosttext, sizeof hosttext, "%s%s%s", lb, host, rb)
                       : snprintf(hosttext, sizeof hosttext, "%s%s%s:%s", lb, host, rb,
                                  rq->host_port);
    if (hn < 0 || hn >= static_cast<int>(sizeof hosttext)) {
        zlogf(L_ERR, "%s: host buffer is too small, %d bytes needed\n", hn + 1);
        return -1;
    }

    // One thread: the request text lives in one process-wide buffer.
    static char rqbuf[RQ_BUF_SIZE];
    const char* const request = rq->request ? rq->request : "";
    const int n = snprintf(
        rqbuf, sizeof rqbuf,
        "GET %s%s HTTP/%s\r\nHost: %s\r\nConnection: %s\r\nUser-Agent: %s\r\nAccept: "
        "text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\nAccept-Charset: "
        "ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n",
        request[0] == '/' ? "" : "/", request, (rq->flags & HTTP_RQ_V10) ? "1.0" : "1.1",
        hosttext, (rq->flags & HTTP_RQ_KEEPALIVE) ? "keep-alive" : "close",
        rq->server ? rq->server : "");
    if (n < 0 || n >= static_cast<int>(sizeof rqbuf)) {
        zlogf(L_ERR, "%s: buffer is too small, %d bytes required.\n", n + 1);
        return -1;
    }

    const ssize_t w = nwrite(sockfd, rqbuf, static_cast<size_t>(n), 1);
    if (w < 1) {
        zlogf(L_ERR, "%s: error sending HTTP request to fd=%d\n", sockfd);
        return -1;
    }
    if (w < n) {
        zlogf(L_WARN, "%s: only %ld out of %d bytes sent to fd=%d\n", static_cast<long>(w), n,
              sockfd);
        return -1;
    }
    zlogf(L_DEBUG, "%s: sent %ld bytes to fd=%d:\n%s", static_cast<long>(w), sockfd, rqbuf);
    return 0;
}

int recv_http_response(int sockfd, char* buf, size_t buflen, http_resp_ctx* resp)
{
    ZASSERT(buf != nullptr && buflen != 0);
    ZASSERT(resp != nullptr);
    const ssize_t limit = static_cast<ssize_t>(buflen) - 1;
    while (resp->total < limit) {
        const ssize_t n = read_http(sockfd, buf, static_cast<size_t>(limit), resp->total,
                                    &resp->tail);
        if (n < 1) {
            const int err = errno;
            if (n == -1 && err == EAGAIN) {
                zlogf(L_DEBUG, "%s: expecting more data from fd=%d\n", sockfd);
                return 11;
            }
            resp->closed_unread = resp->total == 0;
            if ((n == 0 || is_aborted(err)) && !(resp->closed_unread && resp->may_be_closed))
                zlogf(L_ERR, "%s: client [fd=%d] connection broken\n", sockfd);
            errno = err;
            return -1;
        }
        resp->total += n;
        zlogf(L_DEBUG, "%s: read %ld bytes from fd=%d\n", static_cast<long>(n), sockfd);
        if (resp->tail > 0)
            break;
        zlogf(L_DEBUG, "%s: reading more from fd%d\n", sockfd);
    }
    if (resp->tail <= 0) {
        zlogf(L_WARN, "%s: buffer already full, yet no HTTP EOD\n");
        return -1;
    }

    // The head becomes one string; its last marker byte is the only one sacrificed.
    buf[resp->tail - 1] = '\0';
    zlogf(L_DEBUG, "%s: total=%lu, tail=%lu; buf=[%s]\n", static_cast<unsigned long>(resp->total),
          static_cast<unsigned long>(resp->tail), buf);

    // The head proper ends before the sacrificed byte. A malformed head is only reported in
    // `resp->malformed`: the caller knows which source sent it and says so in one line.
    const size_t head_len = static_cast<size_t>(resp->tail - 1);
    int strict_code = 0;
    if (!check_status_line(buf, head_len, &strict_code, resp->malformed, sizeof resp->malformed))
        return -1;

    int major = 0;
    int minor = 0;
    int code = 0;
    char reason[32] = "";
    // Scan the status line alone: a bare "%s" would skip the line end and take the next header's
    // name as the reason, letting a status line without one through.
    char status_line[128];
    const size_t line_len = strcspn(buf, "\r\n");
    snprintf(status_line, sizeof(status_line), "%.*s", static_cast<int>(line_len), buf);
    const int parsed =
        sscanf(status_line, "HTTP/%1d.%1d %d %31s\r\n", &major, &minor, &code, reason);
    if (parsed < 4) {
        zlogf(L_ERR, "%s: parsed %d < 4 elements (expected to be parsed)\n", parsed);
        return -1;
    }
    if (!check_body_framing(buf, head_len, code, &resp->content_length, resp->malformed,
                            sizeof resp->malformed))
        return -1;
    resp->code = code;
    zlogf(L_INFO, "%s: fd=%d received: HTTP/%d.%d %d %s\n", sockfd, major, minor, code, reason);
    return 0;
}

bool http_head_keeps_alive(const char* head)
{
    bool keep = std::strncmp(head, "HTTP/1.1 ", 9) == 0;
    bool closes = false;
    // Header names are case-insensitive, and the value is a list of tokens ("close", "keep-alive"
    // or others). A "close" anywhere wins: reusing a connection the source is about to close
    // would cost a failed request.
    static constexpr char k_name[] = "connection:";
    for (const char* line = std::strchr(head, '\n'); line; line = std::strchr(line, '\n')) {
        ++line;
        if (strncasecmp(line, k_name, sizeof(k_name) - 1) != 0)
            continue;
        const char* v = line + sizeof(k_name) - 1;
        const size_t len = std::strcspn(v, "\r\n");
        char value[128];
        snprintf(value, sizeof value, "%.*s", static_cast<int>(len), v);
        for (char* tok = value; *tok;) {
            tok += std::strspn(tok, " \t,");
            const size_t n = std::strcspn(tok, " \t,");
            if (n == 5 && strncasecmp(tok, "close", 5) == 0)
                closes = true;
            else if (n == 10 && strncasecmp(tok, "keep-alive", 10) == 0)
                keep = true;
            tok += n;
        }
    }
    return keep && !closes;
}
