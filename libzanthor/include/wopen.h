// The URL-opened socket ("usock"): one facility that turns a URL naming a file, a TCP or HTTP
// endpoint, or a UDP/RTP (multicast) group into a descriptor plus a context that knows how to
// close it; for HTTP sources also the GET request and the reading of the response head.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "netops.h"
#include "webops.h"

enum : size_t {
    USOCK_BUF_SIZE = 2048, // response buffer of TCP and HTTP kinds
    APPTAG_SIZE = 128,
};

// Flag bits of an HTTP request (http_request.flags, usock_ctx.http_flags).
enum : uint32_t {
    HTTP_RQ_V10 = 1,       // HTTP/1.0 instead of HTTP/1.1
    HTTP_RQ_KEEPALIVE = 2, // Connection "keep-alive" instead of "close"
};

// One opened URL. The user owns it (usually by value) and must zero it before usock_open, setting
// only the wanted options; usock_close releases what usock_open allocated.
struct usock_ctx {
    bool inbound;      // the socket receives (listener side); a source connection writes first
    bool non_blocking; // open non-blocking (a connect then completes asynchronously)
    bool skip_http;    // HTTP: neither send the GET nor read the response in usock_open
    bool non_pollable; // set for plain files: cannot be registered with epoll
    uint32_t http_flags;  // HTTP_RQ_* for the GET sent by usock_open
    ssize_t nopoll_idx;   // slot among the event loop's non-pollable descriptors
    const char* ifc_tag;  // network interface for multicast membership, or null
    int timeout_ms;       // send (or, inbound, receive) time-out of a blocking socket; 0: none
    int url_kind;         // URI_* kind of the URL
    socket_spec sspec;    // handed to open_socket; `family` may be preset by the user
    const char* host_addr; // numeric address to use instead of the URL's host (already looked
                           // up), or null; read by usock_open only
    char* url_path;       // owned copy of the URL's path part
    ifc_info* mifc;       // owned multicast interface record
    char* buf;            // owned response buffer (TCP, HTTP): `bufcap` bytes, `buflen` used
    size_t bufcap;
    size_t buflen;
};

struct usock_flags {
    // Logged by fwd_http_rq but without effect: the caller's flags alone pick the version.
    bool use_http10_get;
};
extern usock_flags g_usock_flags;

// The application tag sent as User-Agent; "#ERR#" until usock_set_apptag.
extern char g_apptag[APPTAG_SIZE];

// A request to send. Only type 0 (GET) is supported.
struct http_request {
    uint32_t type : 4;
    uint32_t flags;         // HTTP_RQ_*
    const char* request;    // path and query; a "/" is put in front when it lacks one
    const char* server;     // User-Agent text
    const char* host_addr;  // Host; "localhost" when null or empty
    const char* host_port;  // appended to Host as ":port" unless null or blank
};

// Opens `url` ("file://", "tcp://", "udp://", "rtp://" or "http://") as `uc` asks. Returns the
// descriptor, or -1 after closing and freeing whatever was opened. For HTTP without `skip_http`
// the GET is sent and the response head read at once (blocking); the body bytes received with it
// are left at the start of `uc->buf` (`uc->buflen` of them).
int usock_open(const char* url, usock_ctx* uc);
// The host part of a network URL into `host` (`hostlen` bytes): 0, or -1 when the URL is not a
// network URL or has no host that fits.
int usock_url_host(const char* url, char* host, size_t hostlen);
// Leaves a joined multicast group, frees the context's allocations and closes `fd` when it is not
// negative. The context can then be opened again.
void usock_close(int fd, usock_ctx* uc);
// Sets the User-Agent text of the requests (cut to 127 characters).
void usock_set_apptag(const char* apptag);

// fwd_http_rq(sockfd, uri, g_apptag, flags).
int usock_http_get(int sockfd, const char* uri, uint32_t flags);
// Sends "GET <path>[?<query>]" of the http:// URL `uri` with Host taken from it. 0 or -1.
int fwd_http_rq(int sockfd, const char* uri, const char* server, uint32_t flags);
// Composes the request in a static buffer and writes it once: 0 when all of it went out, -1 when
// it cannot be composed or was not fully written (no retry).
int send_http_request(int sockfd, const http_request* rq);

// Reads the response head of a source into `buf` (of `buflen` bytes; at most `buflen` - 1 are
// filled), resuming at `resp->total`: start with a zeroed `resp` and pass the same buffer and
// context again after 11. On 0 the head is a NUL-terminated string in `buf` (its last marker byte
// overwritten), `resp->code` is the status and the body starts at `resp->tail`. Returns 0, 11 when
// more data are needed (EAGAIN), or -1 (end of stream, error, no end of head in a full buffer, a
// status line without code and reason, or a malformed head). A malformed head (see
// check_status_line and check_body_framing) is not logged as an error here: `resp->malformed`
// says what was wrong, for the caller to report with the source's name. On 0, `resp->content_length`
// holds the checked Content-Length of a 2xx answer (-1 when absent). An end of stream, a reset or
// another failure before the first byte sets `resp->closed_unread`; with `resp->may_be_closed`
// it is not logged.

int recv_http_response(int sockfd, char* buf, size_t buflen, http_resp_ctx* resp);
// True when the response head `head` (NUL-terminated, status line first) lets the connection
// carry another request: HTTP/1.1 without "Connection: close", or HTTP/1.0 with
// "Connection: keep-alive".
bool http_head_keeps_alive(const char* head);
