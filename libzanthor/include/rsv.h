// Host names resolved on the event loop: lookups run through an asynchronous resolver whose
// sockets and time-outs are the loop's, so a slow or silent name server never stalls other work.
// Concurrent lookups of one name share one query, and every lookup ends within a bounded time.
#pragma once
#include <cstddef>

struct rsv_wait; // one caller waiting for a lookup; opaque

// Addresses of one name handed to a waiter at most: a source with more is reached through one of
// these.
constexpr size_t RSV_MAX_ADDRS = 4;

// The end of a lookup: `status` 0 with `naddrs` (1..RSV_MAX_ADDRS) distinct addresses as numeric
// text in `addrs`, in the resolver's order of preference; or ENOENT (the name does not exist or
// has no address), ETIMEDOUT (no answer within the time-out) or EIO (any other failure) with no
// address; the reason is logged once per lookup. Called from the loop, never from inside
// rsv_lookup(); the waiter's handle and the texts are void once it returns.
using rsv_done_fn = void (*)(void* arg, int status, const char* const* addrs, size_t naddrs);

// Starts the resolver on the event loop (after rqs_init): name servers and search rules come from
// the system's configuration, /etc/hosts is read before any server is asked. `tmout_ms` bounds
// each lookup. 0, or -1 (logged).
[[nodiscard]] int rsv_init(long tmout_ms);
// True when `host` is a numeric IPv4 or IPv6 address, which needs no lookup.
bool rsv_is_numeric(const char* host);
// Looks `host` up for `fn`; a lookup of the same name already under way is joined. The waiter's
// handle, or null (logged) when the resolver is not running or the name is too long.
[[nodiscard]] rsv_wait* rsv_lookup(const char* host, rsv_done_fn fn, void* arg);
// Withdraws a waiter before its end: `fn` is not called. The query itself runs on for the others.
void rsv_cancel(rsv_wait* w);
// Names being looked up right now.
size_t rsv_lookups_active();
// Stops the resolver; waiters still listed are dropped without a call.
void rsv_destroy();
