// HTTP download requests: the request object of one client connection from accept to removal,
// reading and parsing its head into a download order, the immediate answer, and the
// naming rules of destination files that the UDP channel shares.
#pragma once
#include <cstddef>
#include <sys/types.h>

#include "data.h"

// Size of a request head buffer; a head must fit in HRQ_BUF_SIZE - 1 bytes.
enum : size_t { HRQ_BUF_SIZE = 1024 };
// Age in seconds below which an unfinished destination file blocks a new request for it.
enum : long { DW_UNFINISHED_MAX_AGE = 30 };

// The callbacks of the user request type, installed by init_vesk_ctx. Their signatures are the
// listener manager's; the object handed around is a dw_urq.
extern rui_socket_cb urq_cb;

// Creates the request for the accepted client socket `sockfd` (tag "URQ", state "INI") and takes a
// URQ_TMOUT lock in the time-out registry. Returns the dw_urq, or null without memory. `arg` is
// null for a new connection; urq_keep_client passes its own marker for a kept one.
void* urq_new(int sockfd, rui_socket_ctx* srv, void* arg);
// Frees a dw_urq: closes its socket unless the listener manager already did, frees the head
// buffer, clears the tag and releases the time-out lock.
void urq_rm(void* rq);
// Lists the dw_urq for removal when `tmout_ms` have passed since it was created (or, for a kept
// connection still waiting for its next head, its listener's keep_alive_idle_ms when set). 1 when
// it timed out, else 0. A timed-out request gets no answer.
int urq_timeout(void* rq, u_int tmout_ms);

// Read-event handler of a "URQ" object; always 0. Handles the request once its head is complete,
// answers it (or starts a task that will) and lists it for removal; a client that closed is
// removed at once, so the caller must not touch `urq` afterwards.
int urq_read(dw_urq* urq);
// Whether a client answered with `r` keeps its connection: a 200 or 204 without a body file, to a
// client that `keep` lets stay (see dw_keep).
bool keeps_client(const http_response* r, const dw_keep& keep);
// Sends `r` to the client on `fd` (send_http_response's result). When the connection is kept, the
// answer shows its end without a close: a Content-Length of 0 unless it is a 204, and
// "Connection: keep-alive" for an HTTP/1.0 client.
int send_answer(int fd, const http_response* r, const dw_keep& keep);
// Queues an answered, kept connection on its listener as a new request, which waits for the
// client's next head under the request time-out. True when queued; false when the listener is
// gone or holds its limit or the agent is quitting, and the caller closes `fd`.
bool urq_keep_client(int fd, const dw_keep& keep);

// Lists up to `most` of the listener's kept connections that wait for their next request, oldest
// first, for removal after the current batch: room for new clients of a full listener. Returns
// how many.
size_t urq_evict_idle(rui_socket_ctx* srv, size_t most);

// Error-event handler: logs the socket's pending error and lists the request for removal.
void urq_error(dw_urq* urq, bool is_hup);

// Reads what the socket offers into the head buffer. 0 with a complete head (anything behind it
// is dropped), 11 when more data are needed, 104 when the client closed, -12 without memory, -1
// on any other failure.
int read_http_rq(dw_urq* urq);
// Parses the complete head into the order: source, destination and the "expiry=" query value. 0, or
// the parser's or setup_dw_spec's code (-3: the bare "/" ping); a failure of the parser also
// chooses urq->hresp.
int parse_dw_get(dw_urq* urq, dw_spec* spec);
// setup_dw_spec with the request's source and destination; a refused source (13) chooses
// the 403 answer.
int validate_request(dw_urq* urq, dw_spec* spec);

// Fills the order for downloading the http:// URL `src` to the data-directory path `dst`. An empty
// `dst` is taken from the source's path, so `dst` must have room for `dst_len` + 1 bytes. 0; 22
// for a source that is not http://, a destination that cannot be derived or that would leave the
// data directory; 13 for a source refused by vesk.allow_sources or vesk.deny_sources; 34 for a
// path or source too long; 17 when a fresh unfinished file of that name
// exists; or a code of init_spec / check_and_expire.
int setup_dw_spec(const char* src, char* dst, size_t dst_len, dw_spec* spec);
// Builds the unfinished path root/dst-Vesk in spec->fpath, creates its missing directories and
// copies the source and the destination into the order. 0, 34 (path or source too long) or the code
// of mk_fpath_dirs.
int init_spec(const char* root, const char* src, const char* dst, dw_spec* spec);

// Cuts the unfinished-segment suffix off `path` in place: 0; 22 for an empty path; 3 when the path
// does not end with the suffix. Paths are expected to be longer than the suffix.
int cutoff_segext(char* path);
// True when `path` ends with the unfinished-segment suffix (false for an empty path).
bool is_unfinished_seg(const char* path);

// Moves the request to state `state`, which must differ from the current one (asserted).
void urq_set_state(dw_urq* urq, n32_tag state);
// Lists the request in its listener's deferred-removal list (once; a repeat is only logged). A
// list that cannot grow is fatal.
void pprm_urq(dw_urq* urq);
