// The low-level transfer calls used throughout the agent: one read or one write on a descriptor
// (retried only when a signal interrupted it), and a short wait for input on a socket.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// One read of at most `count` bytes through W_read_f with `flags` (0: the everyday errors of
// non-blocking I/O are not logged). An interrupted read is retried unless the process is quitting.
// Returns the count read (never looping to fill `count`), 0 at end of stream or for a `count` of
// 0, or -1 with errno kept.
ssize_t nread(int fd, char* buf, size_t count, uint32_t flags);
// One write through W_write_f, with the same retry rule. Returns the count written, possibly less
// than `count`, or -1 with errno kept.
ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags);

// Polls `sockfd` for input for at most `tmout` milliseconds. Returns 0 when input is ready, 1 when
// it is not (time-out, or only another event such as a hang-up without data), -1 when the poll
// fails or reports an error condition. The sense is inverted on purpose: callers compare with 1.
short wait_to_read(int sockfd, int tmout);

// True for the errors of a connection that the peer or the network broke off (ECONNABORTED,
// ECONNRESET, EPIPE).
bool is_aborted(int err);
