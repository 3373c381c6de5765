// Requests on the admin listeners: one object per connection that reads a request head and
// answers GET /metrics (text exposition format) or GET /status (JSON), and 404 to anything else.
// An answer larger than the socket takes at once is finished on write events.
#pragma once
#include <cstddef>
#include <ctime>
#include <sys/types.h>

#include "data.h"

constexpr uint32_t ADM_TAG = mk_tag32("ADM"); // adm_rq, a request on an admin listener

// Size of the head buffer; a head must fit in ADM_HEAD_SIZE - 1 bytes.
enum : size_t { ADM_HEAD_SIZE = 2048, ADM_URL_LEN = 256 };

struct adm_rq {
    n32_tag tag; // "ADM"; first character "#" once retired
    adm_rq* prev;
    adm_rq* next;
    rui_socket_ctx* srv; // the listener that accepted it
    int sockfd;          // -1 after close
    n64_tag trk_tag;
    char head[ADM_HEAD_SIZE];
    size_t hpos;     // bytes of the head received; head[hpos] is NUL
    char* out;       // the whole answer once composed, else null
    size_t out_len;
    size_t out_pos;  // bytes of it sent
    timespec start_tm;
    bool is_quitting; // listed for removal: later events are ignored
};
static_assert(offsetof(adm_rq, tag) == offsetof(rui_rq_header, tag) &&
              offsetof(adm_rq, prev) == offsetof(rui_rq_header, prev) &&
              offsetof(adm_rq, next) == offsetof(rui_rq_header, next) &&
              offsetof(adm_rq, srv) == offsetof(rui_rq_header, srv) &&
              offsetof(adm_rq, sockfd) == offsetof(rui_rq_header, fd) &&
              offsetof(adm_rq, trk_tag) == offsetof(rui_rq_header, trk_tag));

// The callbacks of the admin request type, installed by init_vesk_ctx.
extern rui_socket_cb adm_cb;

// Listener-manager callbacks: create (null without memory), free (closes a socket the manager
// left open), and the time-out check (1 when the request was listed for removal).
void* adm_new(int sockfd, rui_socket_ctx* srv, void* arg);
void adm_rm(void* rq);
int adm_timeout(void* rq, u_int tmout_ms);

// Event handlers of an "ADM" object; both return 0. A request that is answered, fails or whose
// client left is listed for removal after the batch.
int adm_read(adm_rq* rq);
int adm_write(adm_rq* rq);
// Error event: lists the request for removal.
void adm_error(adm_rq* rq, bool is_hup);

// The answer for a complete request head: status and body chosen by method and path. Fills
// `rq->out`; 0, or -1 without memory (the request is then simply closed).
int adm_compose(adm_rq* rq);
