// Kernel-side file work for the loop: a submission ring whose blocking file operations run in the
// kernel's own workers, on whatever core is free, while the loop goes on with its sockets. Its
// completions wake the loop through the ring's descriptor, like any other readable socket.
#pragma once
#include <cstdint>
#include <sys/types.h>

// Called on the loop for each finished operation: `token` as submitted, `res` 0 or a negative
// errno value.
using aio_done_fn = void (*)(uint64_t token, int res);

// Opens the ring for up to `depth` operations in flight and registers its completions with the
// loop (which must be up). 0, or the errno value of the step that failed (logged; nothing is left
// open): a kernel without the ring, or one that forbids it, says so here.
[[nodiscard]] int aio_init(unsigned depth, aio_done_fn done);
// Closes the ring; operations still in flight are finished by the kernel and their completions
// dropped. Nothing when it is not open.
void aio_destroy();
// True between a successful aio_init and aio_destroy.
bool aio_on();
// How many kernel workers may reserve at once: one fewer than the CPUs the agent may run on, at
// least two. 0 when the ring is not open or the kernel does not say.
unsigned aio_worker_bound();
// Operations in flight per worker the ring may run at once (rounded down): how far the workers are
// behind. 0 when the ring is not open.
unsigned aio_backlog();
// Reserves `len` bytes from offset 0 of `fd` (fallocate mode 0) in a kernel worker. The worker
// looks `fd` up only when it runs: until the completion the caller keeps it open, or hands it
// over with aio_adopt. 0 when submitted; EBUSY when the ring is full, or the submission's errno
// value: the caller then reserves in place.
int aio_fallocate(int fd, off_t len, uint64_t token);
// Hands the descriptor of the operation `token` over: it is closed with the completion (or at
// aio_destroy). With `rm_path`, that file is removed with the completion too, if it is still the
// file `rm_dev`/`rm_ino` (a removal now would wait for the operation, which holds the file, and
// on a disk that hangs would never return). False when no such operation is in flight; the
// descriptor is then still the caller's.
bool aio_adopt(uint64_t token, const char* rm_path = nullptr, dev_t rm_dev = 0, ino_t rm_ino = 0);
