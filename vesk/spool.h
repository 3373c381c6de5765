// The pool of idle keep-alive connections to sources, per host and port: a finished download
// parks its source socket here and a later download from the same host and port sends its GET on
// it instead of connecting anew. Off (nothing pooled) unless vesk.src_pool_max is set.
#pragma once
#include <cstddef>
#include <ctime>

#include "ztypes.h"

enum : size_t { SPL_KEY_LEN = 256 };

// One slot. While a connection idles here the loop watches it for reading with the slot as its
// data word, so that a close by the source (or anything it sends unasked) is noticed at once.
struct spl_entry {
    n32_tag tag;    // "SPL" while idle; "#" once given away or closed, until the pass is over
    int fd;         // the idle socket, -1 when the slot is free
    timespec since; // when it was parked
    char key[SPL_KEY_LEN]; // host[:port] of the source
};

// Allocates `max` slots (0: the pool is off and every call below is a no-op) with `idle_ms` as
// the longest idle time. 0, or -1 without memory.
int spl_init(size_t max, long idle_ms);
// Closes every pooled connection and frees the slots.
void spl_destroy();
// True when connections are pooled (and the GET asks the source to keep them).
bool spl_on();
// An idle connection to the host and port of `url` that the source has not closed, now the
// caller's, still registered with the loop (give it the caller's data word with rqs_mod); or -1.
int spl_take(const char* url);
// Parks `fd`, connected to the source of `url`, registered with the loop and with its answer read
// to the last byte. True when the pool took it; false when the pool is off or full, and the
// caller closes it.
bool spl_put(const char* url, int fd);
// A read, hang-up or error event on an idle connection: the source closed it or spoke out of
// turn. Closes it; the slot is reused after the pass.
void spl_on_event(spl_entry* e);
// Closes the connections idle for longer than the idle time (from the loop's idle step).
void spl_expire();
// Frees the slots given away or closed during the pass (after the pass's events).
void spl_post_process();
// Idle connections in the pool.
size_t spl_count();
