// The download engine: the agent context with its task table, the creation, state machine and
// deferred removal of download tasks driven by the event loop, and what a download does on disk
// (temporary file, memory map or plain writes, completion by rename, registration of the segment).
#pragma once
#include <cstddef>
#include <sys/types.h>

#include "data.h"

enum : size_t {
    DW_MB_SHIFT = 20,
    DW_SBUF_SIZE = 1048576, // the shared plain-write buffer
    DW_RESP_BUFSZ = 2048,   // scratch buffer of a source's response head
    DW_SRC_TMOUT_MS = 3000,
    // Task limit used when the configuration says 0 ("unlimited"): the table must still be
    // allocated once, so that task addresses never move.
    DW_UNLIMITED_TASKS = 65536,
    // Descriptors a task may hold (source, client, file) plus one spare, and those the
    // process needs besides its tasks (log, listeners, loop, database).
    DW_FDS_PER_TASK = 4,
    DW_FDS_RESERVE = 64,
    // Low bits of a reservation's token that number it; the bits above are the task's slot.
    DW_AIO_SEQ_BITS = 40,
    // Reservations in the kernel's worker at once; beyond them a file is reserved on the loop.
    DW_AIO_DEPTH = 256,
};

// ---- Agent context ----

// Builds g_ctx: request callbacks, listeners, UDP channel, task table, task hash and, when the
// registry port is above 0, the registry connection. 0, or the failing step's code (a failure
// after the listeners and the channel tears everything down again).
[[nodiscard]] int init_vesk_ctx();
// Frees every task (unlinking unfinished files), closes the channel and the listeners, releases
// the tables and the registry connection. Safe on a context that was never or only partly built.
void destroy_vesk_ctx();

// The effective task limit: max_tasks, or DW_UNLIMITED_TASKS when it is 0.
size_t task_limit();
// Raises the soft limit of open files toward DW_FDS_PER_TASK * max_tasks + DW_FDS_RESERVE (0
// tasks counts as DW_UNLIMITED_TASKS), capped at the hard limit. 0 when the limit covers the need,
// 1 when it stays below it (logged as a warning), -1 when the limit cannot be read or set.
int raise_nofile_limit(size_t max_tasks);

// ---- Tasks ----

// Starts the download the order describes. `cfd` is the requesting client's socket or negative
// when no client waits. On 0 the socket is the task's, which answers and closes it (or, as
// `keep` says, gives it back to its listener after a 200): the caller
// must give it up at once (rui_detach_fd) and not touch it again. On failure it stays the
// caller's. 0 when started; -1 over the task limit or when the source cannot be opened or
// registered; 13 when the source's address is refused by src_addr_allowed; 17 when the same URL
// (scheme ignored) is being downloaded. On failure nothing of the task is left. A source host
// given by name is looked up on the loop first (state "res"): a name that does not resolve then
// fails the started task, which answers its client 500 as a failed open would have, and an
// address refused by src_addr_allowed answers it 403.
[[nodiscard]] int mk_dw_task(int cfd, const dw_spec* spec, dw_keep keep = {});
// Takes a slot, fills it from the order and hashes its key. The task, or null (logged).
dw_task* add_dw(const dw_spec* spec, n64_tag trk_tag);
// The task downloading the scheme-less URL `key`, or null.
dw_task* get_dw_task(const char* key);
// The part of `url` behind its first "://", or all of it: the key of the task hash.
const char* url2key(const char* url);
// Removes the task from the hash (nothing when it is not hashed); 0 or the hash's code.
int unhash_task(dw_task* dw);
// Frees the task at once: answers a client that a started task has not answered yet (500),
// closes its descriptors, unmaps, removes the file it created while the name still ends with
// VESK_SEGXT and still holds that file, releases its lock id and its slot. Never call it from the
// task's own event handler; use pprm_task there.
void free_dw(dw_task* dw);
// xvlst_purge_all callback over vesk_ctx::tasks: frees the task record at index `i`.
void free_dw_elem(void* data, size_t i);
// Frees every task of the table.
void rm_all_tasks();
void set_dw_state(dw_task* dw, n32_tag state);
// Notes why the task ends unless a reason is noted already (a failure often cascades).
void dw_set_end(dw_task* dw, mtr_end why);
// A state tag from its text ("ini", "rsp", "dnl").
n32_tag dw_state(const char (&s)[4]);

// Opens a non-blocking connection to the http:// `url`, at the numeric address `addr` when given
// (its host already looked up) and otherwise at the URL's own host; the socket, or -1 (errno
// EACCES when src_addr_allowed refused the address).
int connect_to_src(const char* url, const char* addr, usock_ctx* sctx);
// Sends the GET and switches the socket to reading. Always 0: a failure answers the client 400
// and lists the task for removal.
int request_data_stream(dw_task* dw);
// For a failure of the source connection before the first byte of the answer: when that
// connection was taken from the pool, the task starts over once on a new one (a client that
// cannot be served then gets the answer of a failed open) and true is returned; false otherwise.
bool retry_reused_source(dw_task* dw);
// Reads and judges the source's response head, creates the destination file and answers the
// client. 0 (state "dnl"), 11 when the head is incomplete or the file's reservation went to the
// kernel's worker (state "rsv": the source is parked, and the completion answers the client and
// goes on), otherwise an error code for which the caller removes the task.
int read_src_response(dw_task* dw);
// With reserve_in_worker: opens the ring that reserves plain-written files in a kernel worker
// (after rqs_init); a kernel that refuses it leaves the reservations on the loop (warned).
void start_reserve_worker();
// Closes that ring; after the tasks are freed.
void stop_reserve_worker();
// A hang-up or error of the source of a task whose socket is parked while its file is reserved:
// the task ends as a source that went away.
void on_parked_source_error(dw_task* dw);
// Event handlers of a "DOW" object; both return 0. Errors list the task for removal.
int dw_write(dw_task* dw);
int dw_read(dw_task* dw);

// Lists the task for removal after the current batch and unhashes it, so its URL is free again
// at once. 0 (also when listed already), -1 when the list cannot grow.
int pprm_task(dw_task* dw);
// Frees the listed tasks; run after each batch of events and at shutdown.
void pprm_task_cleanup();
// Frees the listed request objects of the listeners.
void pprm_requests();

// True once task_tmout_ms has passed since the last check; the check time is then renewed.
bool is_iocheck_time();
// xvlst_each callback: lists the task at `i` for removal when its source has been silent for
// task_tmout_ms. Always 0.
int dw_tmout_check(void* data, size_t i);
// Periodic walks; both return 0. time_out_tasks ends stalled tasks; the idle pass calls it only
// with end_stalled_tasks, and then it walks the tasks every quarter of task_tmout_ms.
int time_out_tasks();
int time_out_requests();

// ---- Destination files ----

// True when `dst_path` names a file inside the data directory: not empty, not absolute, no ".."
// segment, and not ending with VESK_SEGXT (a finished file must never look unfinished). Request
// parsing refuses any other destination before a directory or file exists.
bool dest_path_is_safe(const char* dst_path);
// 0, or -16 when the final file of the unfinished path `path` already exists.
int check_dest_path(const char* path);
// True when the announced length is at most max_mmap_mb MiB.
bool can_mmap_dw(const dw_task* dw);
// Creates and sizes the destination for the accepted response head in `buf` (its length is
// `resp->content_length`, as recv_http_response checked it) and stores the body bytes already
// received. 0; 22 without a positive Content-Length; -1 when mapping or writing fails;
// the errno of a failed open or truncate; EINPROGRESS when the reservation went to the kernel's
// worker, which then has the body bytes kept with the task until it completes.
int mk_dest_file(dw_task* dw, const char* buf, const http_resp_ctx* resp);
// Copies what one read of the source yields into the file. 0, -1, or an errno value.
int read_fragment(dw_task* dw);
// Flushes, renames the file to its final name, registers it and lists the task for removal.
// 0; -1 when the flush or the rename fails or the unfinished name no longer holds this task's
// file; 12 without memory.
int complete_download(dw_task* dw);
// Registers the local URL of the segment of the order: 0, -1, or the registry's code.
int add_lbdb_url(const dw_spec* spec);
// True when `url` lies under the configured segment URL prefix.
bool is_local_url(const char* url);
