// The UDP channel: an optional (multicast) socket on which other components announce segments to
// fetch, one text datagram per order, and the request locks (files in a shared directory, or keys
// in the registry's Redis) that keep two agents (or two announcements) from fetching the same
// order at once.
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
// A lock in Redis lives as long as a lock file holds; a running download renews it every third of
// that, so it never lapses under a live task even when one renewal goes astray.
enum : long { UDL_LOCK_LIFE_MS = LID_LOCK_MAX_AGE * 1000, UDL_LOCK_RENEW_MS = UDL_LOCK_LIFE_MS / 3 };
enum : size_t {
    UDL_LOCK_KEY_LEN = 128, // buffer of a lock's Redis key
    UDL_AGENT_ID_LEN = 96,  // buffer of the agent id, "<host name>:<pid>"
};

// Opens the channel of `cfg` into `udl` (tagged "UDL", ready). 0 and nothing done when no channel
// URL is configured; -1 when the URL cannot be opened. Calling it on a ready context is fatal.
[[nodiscard]] int udl_ctx_init(const udp_lstn_cfg* cfg, udl_ctx* udl);
// Registers the ready channel's socket with the event loop as a reader (user data: `udl`). With
// locks in Redis it also fixes and logs the agent id and starts the renewal timer; call it after
// the registry link is on the loop. 0, or the loop's error code. Calling it on a context that is
// not ready is fatal.
[[nodiscard]] int udl_ctx_start(udl_ctx* udl);
// Closes the channel of a ready context and stops the renewal timer; does nothing otherwise. Lock
// answers that arrive later only free their orders.
void udl_ctx_destroy(udl_ctx* udl);

// Read-event handler of the "UDL" object: receives and handles exactly one datagram. Always 0;
// every failure is logged and the datagram dropped. A lock taken for an accepted order stays held
// (its task releases it, or it goes stale). With locks in Redis the order waits for the lock's
// answer on the loop; the datagram's handling does not. Redis unreachable (no link, no answer in
// time, an error reply) takes the order anyway: a duplicate download is better than a missing
// segment.
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
// 16 when somebody holds it, -1 on error. Locks in Redis are taken by udl_accept on the loop.
int lid_lock(const char* lid);
// Releases the lock of `lid` (nothing when locking is off): removes its file, or sends the script
// that deletes its Redis key only while this agent holds it. Never waits for Redis.
void lid_unlock(const char* lid);

// Formats the Redis key of `lid` (`prefix` and the lock id) into `key` of `size` bytes. A "/" is
// refused as with lock files, so that both kinds accept the same ids. 0; -1 (logged under
// `caller`) for a refused id or a key that does not fit.
int udl_lock_key(const char* caller, const char* prefix, const char* lid, char* key, size_t size);
// Formats the agent id "<host>:<pid>" into `buf` of `size` bytes; 0, or -1 when it does not fit.
int udl_agent_id(const char* host, long pid, char* buf, size_t size);
// The agent id the Redis locks carry; empty before udl_ctx_start.
const char* udl_lock_owner();
// Orders taken without a lock because Redis could not be asked or did not answer (the fail-open
// rule), since start.
unsigned long udl_lock_fail_open_count();
// The Lua bodies of the owner-checked release and renewal: KEYS[1] the lock key, ARGV[1] the
// agent id (ARGV[2] the new life in ms). Release answers 1 when it deleted the key, else 0;
// renewal answers 1 when renewed, 0 when the key is gone, or the other owner's id.
extern const char UDL_RELEASE_LUA[];
extern const char UDL_RENEW_LUA[];
// The stale-file rule: 0 when `path` does not exist or was older than `max_age` seconds (it is then
// removed); 16 when it exists and is at most `max_age` seconds old; -1 on error.
int check_and_expire(const char* path, long max_age);
