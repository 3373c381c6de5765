// The agent's shared records: the download order and task, the HTTP download request,
// the UDP channel context and the one agent context, with the object tags that the event handlers
// dispatch on and the limits of the channel messages.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>
#include <sys/types.h>

#include "gkh.h"
#include "mtr.h"
#include "rsv.h"
#include "rui.h"
#include "webops.h"
#include "wopen.h"
#include "xvdat.h"
#include "ztypes.h"

// Object tags: every object registered with the event loop begins with one of these. RSC_TAG
// ("Rsc", a listening socket) comes with rui.h.
constexpr uint32_t DW_URQ = mk_tag32("URQ");  // dw_urq, an HTTP download request
constexpr uint32_t DOW_TAG = mk_tag32("DOW"); // dw_task, a download task
constexpr uint32_t UDL_TAG = mk_tag32("UDL"); // udl_ctx, the UDP channel
constexpr uint32_t SPL_TAG = mk_tag32("SPL"); // spl_entry, an idle pooled source connection
static_assert(RSC_TAG == mk_tag32("Rsc"));

// Suffix of a destination file while it is being written (the NUL included in the size).
inline constexpr char VESK_SEGXT[] = "-Vesk";
static_assert(sizeof(VESK_SEGXT) == 6);

// Ids in the time-out registry, and the default request time-out.
enum : int { IDLE_TASK_TMOUT = 0, URQ_TMOUT = 1, SRC_POOL_TMOUT = 2, MAX_TMOUT = 3 };
enum : long { URQ_TMOUT_MS = 5000 };

// Limits of a UDP channel message.
enum : int {
    MIN_UMSG_LEN = 32,   // smallest datagram, bytes
    MAX_UMSG_LEN = 1400, // largest datagram, bytes
    MIN_URL_LEN = 16,    // smallest URL field, characters
    MIN_LID_LEN = 4,     // smallest lock id
    MAX_LID_LEN = 31,    // largest lock id (dw_spec::lid holds it with its NUL)
};

// Sizes of the fixed character fields.
enum : size_t {
    DW_URL_LEN = 128,
    DW_FPATH_LEN = 128,
    DW_LID_LEN = 32,
    DW_DST_LEN = 256,
    URQ_ENDPT_LEN = 256,
};
static_assert(DW_LID_LEN == MAX_LID_LEN + 1);

// What to download and where to; built from a request, copied by value into the task.
struct dw_spec {
    char url[DW_URL_LEN];     // source URL, at most 127 characters
    char fpath[DW_FPATH_LEN]; // destination file: "-Vesk" while unfinished, the final name after
    int64_t content_length;   // 0 at creation
    char lid[DW_LID_LEN];     // channel lock id, empty for HTTP requests; unlocked on free
    time_t expiry_tm;         // handed on to the segment registry, 0 = none
    char dst_path[DW_DST_LEN]; // path relative to the data directory (the segment id)
};

// Where a client connection goes after a 200 or 204 when its listener and the client keep it open.
struct dw_keep {
    rui_socket_ctx* srv; // the listener that takes it back; null: closed after the answer
    bool http10;         // the client speaks HTTP/1.0: its answer says "Connection: keep-alive"
};

// One download. Lives by value in a fixed slot of vesk_ctx::tasks, so its address is stable.
struct dw_task {
    n32_tag tag; // "DOW"; first character "#" once freed
    dw_spec spec;
    n64_tag trk_tag;      // tracking tag, the log group of its lines
    ssize_t idx;          // slot in vesk_ctx::tasks, -1 when not in the table
    int sfd;              // source socket, -1 when none
    usock_ctx sctx;       // source socket context
    int dfd;              // destination file, -1 when none
    int cfd;              // the client socket, -1 without client or once answered
    dw_keep ckeep;        // where cfd goes after a 200 answer
    size_t content_length; // announced by the source
    size_t nleft;          // bytes still to receive
    off_t f_pos;           // bytes written so far
    size_t buflen;         // length of buf
    uint8_t* buf;          // the mapped destination while is_mmapped, else null
    timespec last_io_tm;   // last I/O on the source socket
    timespec start_tm;     // when the order was taken; the age in the status and the duration
    mtr_end end_reason;    // why it ends, counted when it is freed; the first reason set wins
    n32_tag state;         // empty, "res" (host name being looked up), "ini", "rsp", "rsv"
                           // (file being reserved, source parked) or "dnl"
    rsv_wait* res_wait;    // the look-up of the source host while in "res", else null
    http_response* hresp;  // canned answer chosen for the client
    bool is_hashed;        // present in vesk_ctx::task_ht
    bool is_mmapped;
    bool is_quitting; // listed for deferred removal, events are ignored
    bool has_dfile;   // this task created the file at fpath: only such a file is ever unlinked
    dev_t dfile_dev;  // identity of that file, to tell it from a file put under the same name
    ino_t dfile_ino;  // later (an unfinished file that went stale is expired and made anew)
    bool src_reused;  // sfd came from the idle pool and has not yet given a byte of the answer
    bool src_keep;    // the source agreed to keep the connection: it may go back to the pool
    uint64_t aio_token; // the reservation of the file running in the kernel's worker ("rsv")
    char* held_body;    // body bytes of the head, kept until that reservation is done
    size_t held_len;
    // Further addresses of the source host, in order: one refusing the connection passes the
    // task on to the next (alt_addrs[next_alt]) instead of failing it.
    char alt_addrs[RSV_MAX_ADDRS - 1][INET6_ADDRSTRLEN];
    uint8_t nalt;
    uint8_t next_alt;
};

// The request buffer of an HTTP download request.
struct http_rq {
    char* hbuf;  // head buffer (1024 bytes, zeroed), allocated on the first read
    size_t hlen; // capacity of hbuf
    size_t hpos; // bytes received; hbuf[hpos] is always NUL
    http_header header;
    bool is_keep_alive; // not used: whether a connection is kept is the request's dw_keep
    bool pipelined;     // bytes behind the head were dropped: an answer alone would strand them
};

// One HTTP download request connection. The leading fields mirror rui_rq_header so that the
// listener manager can queue it.
struct dw_urq {
    n32_tag tag; // "URQ"; cleared when freed
    dw_urq* prev;
    dw_urq* next;
    rui_socket_ctx* srv; // the listener that accepted it
    int sockfd;          // client socket, -1 after close
    n64_tag trk_tag;
    char uri_src[URQ_ENDPT_LEN];
    char uri_dst[URQ_ENDPT_LEN];
    http_rq hrq;
    http_response* hresp; // canned answer chosen
    timespec wait_start_tm;
    n32_tag state; // "INI", "RD" or "QUI"
    ssize_t pprm_idx;
    bool kept;     // the connection carried an answered request before this one
};
static_assert(offsetof(dw_urq, tag) == offsetof(rui_rq_header, tag) &&
              offsetof(dw_urq, prev) == offsetof(rui_rq_header, prev) &&
              offsetof(dw_urq, next) == offsetof(rui_rq_header, next) &&
              offsetof(dw_urq, srv) == offsetof(rui_rq_header, srv) &&
              offsetof(dw_urq, sockfd) == offsetof(rui_rq_header, fd) &&
              offsetof(dw_urq, trk_tag) == offsetof(rui_rq_header, trk_tag));

// The UDP channel listener.
struct udl_ctx {
    n32_tag tag;    // "UDL" once the socket is open
    bool is_ready;  // between a successful udl_ctx_init and udl_ctx_destroy
    int sockfd;     // -1 when closed
    usock_ctx usock; // the context the socket was opened with
};

// The one agent context.
struct vesk_ctx {
    bool is_ready;
    rui_ctx rui;          // listeners
    udl_ctx udl;          // UDP channel
    xvlst tasks;          // dw_task records by value, reserved to max_tasks slots
    skht_t task_ht;       // scheme-less source URL -> dw_task*
    xvlst pprm_tasks;     // dw_task* listed for removal after the current batch
    size_t last_task_id;  // counter of the tasks' tracking tags
    timespec last_tmout_check;
    timespec last_rq_check; // set at start, not otherwise used
    timespec last_task_check; // last walk of the tasks for stalled ones
    bool rsv_on;              // source host names are looked up on the loop
};

extern vesk_ctx g_ctx;
