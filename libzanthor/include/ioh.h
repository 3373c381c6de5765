// Event-loop handlers for library modules that own descriptors of their own (a Redis link, the
// resolver's sockets, timers): a tagged record with a function pointer, which the application's
// read, write and error handlers hand events to when they meet the "IOH" tag, and one-shot timers
// on timerfd descriptors, so that waits of such modules run on the loop like any other socket.
#pragma once
#include <cstdint>

#include "ztypes.h"

constexpr uint32_t IOH_TAG = mk_tag32("IOH");

struct ioh_rec;
// Called for an event of the record: `what` is RQS_READ or RQS_WRITE, or 0 for an error or hang-up
// without readiness; `errcode` RQS_SOCKERR | RQS_SOCKHUP. The result goes back to the loop: 0 goes
// on. The handler may change the record's interest, but must not free the record.
using ioh_fn = int (*)(ioh_rec* h, int what, int errcode);

struct ioh_rec {
    n32_tag tag;  // "IOH"
    int fd;       // the descriptor, -1 when none
    int interest; // RQS_READ | RQS_WRITE registered with the loop, 0 when not registered
    ioh_fn fn;
    void* arg;     // the owner's data
    bool is_timer; // a timerfd of ioh_timer_open
};

// Prepares `h` for descriptor `fd` (not registered yet).
void ioh_init(ioh_rec* h, int fd, ioh_fn fn, void* arg);
// Sets the interest of the record's descriptor: the first non-zero interest registers it, 0
// removes it from the loop (the descriptor stays open). 0, or -1 (logged) when the loop refuses.
int ioh_want(ioh_rec* h, int interest);
// Passes an event to the record's handler; for the application's handlers when they meet IOH_TAG.
int ioh_dispatch(void* udata, int what, int errcode);

// A one-shot timer: a monotonic timerfd registered for reading; its handler is called with
// RQS_READ when it fires (the expiry is consumed before the call). 0, or -1 (logged).
int ioh_timer_open(ioh_rec* h, ioh_fn fn, void* arg);
// Fires once after `ms` milliseconds (0: on the next pass of the loop); a negative value disarms.
int ioh_timer_arm(ioh_rec* h, long ms);
// Removes the timer from the loop and closes it; nothing when it is not open.
void ioh_timer_close(ioh_rec* h);
