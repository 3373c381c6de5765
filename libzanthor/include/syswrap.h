// Thin wrappers around the system calls that can fail. Each takes the calling function's name
// first, then the call's own arguments, makes the call, logs one fixed error line on failure and
// returns exactly what the call returned, with errno as the call left it.
#pragma once
#include <cstddef>
#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

// The `_f` wrappers take a trailing flag. With 0 the everyday conditions of non-blocking I/O
// (EAGAIN, EPIPE, EINTR, ECONNRESET) are returned without a log line; with non-zero every error
// is logged.
enum : int { W_NOFAULT = 0, W_LOGALL = 1 };

// True for the errors that a caller of a `_f` wrapper with flag 0 handles itself.
bool no_fault(int err);

// Non-zero result is a failure. A successful close is logged at debug level.
int W_close(const char* caller, int fd);
// Null on failure; the memory belongs to the caller (free()).
[[nodiscard]] void* W_calloc(const char* caller, size_t nmemb, size_t size);
// Null on failure, in which case `ptr` is still valid and still the caller's.
[[nodiscard]] void* W_realloc(const char* caller, void* ptr, size_t size);
off_t W_lseek(const char* caller, int fd, off_t offset, int whence);
int W_unlink(const char* caller, const char* path);
int W_ftruncate(const char* caller, int fd, off_t length);
// posix_fallocate: reserves the blocks of `len` bytes from `offset`, extending the file. 0 or the
// error number (ENOSPC, EDQUOT, EFBIG, ...); EOPNOTSUPP (the filesystem cannot reserve) is logged
// at debug level only, as callers fall back.
int W_fallocate(const char* caller, int fd, off_t offset, off_t len);
// Logs the failure `rc` of a reservation made elsewhere (a kernel worker) as W_fallocate does.
void W_fallocate_failed(const char* caller, int fd, off_t offset, off_t len, int rc);
// The new descriptor (the caller's to close) or -1.
[[nodiscard]] int W_open(const char* caller, const char* path, int flags, mode_t mode);
int W_connect(const char* caller, int fd, const struct sockaddr* addr, socklen_t addrlen);
ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, int flag);
[[nodiscard]] ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, int flag);
[[nodiscard]] ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset,
                                int flag);
// The new socket (the caller's to close) or -1.
[[nodiscard]] int W_socket(const char* caller, int domain, int type, int protocol);
int W_getsockopt(const char* caller, int fd, int level, int optname, void* optval,
                 socklen_t* optlen);
int W_setsockopt(const char* caller, int fd, int level, int optname, const void* optval,
                 socklen_t optlen);
int W_bind(const char* caller, int fd, const struct sockaddr* addr, socklen_t addrlen);
int W_listen(const char* caller, int fd, int backlog);
// The resolver's code (0 on success); on success `*res` is the caller's to freeaddrinfo().
int W_getaddrinfo(const char* caller, const char* node, const char* service,
                  const struct addrinfo* hints, struct addrinfo** res);
int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
             struct timeval* timeout);
// The accepted descriptor (the caller's to close) or -1. EAGAIN (the queue of a non-blocking
// listener is drained), EMFILE and ENFILE (out of descriptors: the caller limits how often that is
// reported) are returned without a log line.
[[nodiscard]] int W_accept(const char* caller, int fd, struct sockaddr* addr, socklen_t* addrlen);
// accept4 with SOCK_* `flags` set on the new socket in the same call; logs as W_accept does.
[[nodiscard]] int W_accept4(const char* caller, int fd, struct sockaddr* addr, socklen_t* addrlen,
                            int flags);
int W_poll(const char* caller, struct pollfd* fds, nfds_t nfds, int timeout);
ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, size_t count,
                     int flag);
int W_dup2(const char* caller, int oldfd, int newfd);
int W_pipe(const char* caller, int pipefd[2]);
[[nodiscard]] pid_t W_fork(const char* caller);
int W_kill(const char* caller, pid_t pid, int sig);
ssize_t W_sendto(const char* caller, int fd, const void* buf, size_t len, int flags,
                 const struct sockaddr* dest_addr, socklen_t addrlen);
ssize_t W_recvfrom(const char* caller, int fd, void* buf, size_t len, int flags,
                   struct sockaddr* src_addr, socklen_t* addrlen);
