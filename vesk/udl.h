// The UDP channel: an optional (multicast) socket on which other components announce segments to
// fetch, one text datagram per order, and the request-lock files that keep two agents (or two
// announcements) from fetching the same order at once.
#pragma once
#include <cstddef>
#include <ctime>

#include "cfg.h"
#include "data.h"

// Receive buffer of one datagram; at most UDL_RCVBUF_SIZE - 1 bytes are read, so the text is
// always terminated.
enum : size_t { UDL_RCVBUF_SIZE = 1416 };
// Age in seconds up to which a lock file holds; an older one is stale and reclaimed.
enum : long { LID_LOCK_MAX_AGE = 30 };

// Opens the channel of `cfg` into `udl` (tagged "UDL", ready). 0 and nothing done when no channel
// URL is configured; -1 when the URL cannot be opened. Calling it on a ready context is fatal.
[[nodiscard]] int udl_ctx_init(const udp_lstn_cfg* cfg, udl_ctx* udl);
// Registers the ready channel's socket with the event loop as a reader (user data: `udl`). 0, or
// the loop's error code. Calling it on a context that is not ready is fatal.
[[nodiscard]] int udl_ctx_start(udl_ctx* udl);
// Closes the channel of a ready context; does nothing otherwise.
void udl_ctx_destroy(udl_ctx* udl);

// Read-event handler of the "UDL" object: receives and handles exactly one datagram. Always 0;
// every failure is logged and the datagram dropped. A lock taken for an accepted order stays held
// (its task releases it, or it goes stale).
int udl_accept(udl_ctx* udl);

// Parses, in place, the message text that follows the "#!" prefix: lock id, one blank, URL, blanks,
// expiry. 0 with the non-null outputs set (`purl` and `plkid` point into `text`), or -1 for a
// rejected message. An unreadable expiry is taken as 0; a message without any expiry aborts the
// process on purpose.
int parse_msg(char* text, char** purl, char** plkid, time_t* expiry);
// Builds the order from a channel URL of the download-request form; the lock id, when given, goes
// into spec->lid (cut to 31 characters). 0, or the first failing code of the split and of
// setup_dw_spec.
int parse_url(const char* url, const char* lkid, dw_spec* spec);

// Takes the lock file of `lid` in the configured lock directory. 0 when taken (or locking is off),
// 16 when somebody holds it, -1 on error.
int lid_lock(const char* lid);
// Removes the lock file of `lid` (nothing when locking is off).
void lid_unlock(const char* lid);
// The stale-file rule: 0 when `path` does not exist or was older than `max_age` seconds (it is then
// removed); 16 when it exists and is at most `max_age` seconds old; -1 on error.
int check_and_expire(const char* path, long max_age);
