// The system-call wrappers: one uniform error line per failing call, written where errno is seen,
// so that callers only test results and add their own context.
#include "syswrap.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "log.h"

LOG_MODULE(LOG_MOD_SYSWRAP, -1);

namespace {
// Logging may touch errno (stdio, syslog); the caller must see the call's own error.
struct errno_keeper {
    int saved = errno;
    errno_keeper() = default;
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;
    ~errno_keeper() { errno = saved; }
};
} // namespace

// Whether a failure of an `_f` wrapper goes to the log.
static bool wants_log(int flag, int err)
{
    return flag != 0 || !no_fault(err);
}

bool no_fault(int err)
{
    return err == EAGAIN || err == EPIPE || err == EINTR || err == ECONNRESET;
}

int W_close(const char* caller, int fd)
{
    const int rc = close(fd);
    const errno_keeper ek;
    if (rc != 0)
        zlog(L_ERR, "%s: close(fd%d) ERROR(%d): %s\n", caller, fd, ek.saved, strerror(ek.saved));
    else
        zlog(L_DEBUG, "%s: CLOSED(fd%d)\n", caller, fd);
    return rc;
}

void* W_calloc(const char* caller, size_t nmemb, size_t size)
{
    void* p = calloc(nmemb, size);
    if (p == nullptr) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: calloc(%ld, %ld) ERROR(%d): %s\n", caller, static_cast<long>(nmemb),
             static_cast<long>(size), ek.saved, strerror(ek.saved));
    }
    return p;
}

void* W_realloc(const char* caller, void* ptr, size_t size)
{
    void* p = realloc(ptr, size);
    if (p == nullptr) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: realloc(%p, %ld) ERROR(%d): %s\n", caller, ptr, static_cast<long>(size),
             ek.saved, strerror(ek.saved));
    }
    return p;
}

off_t W_lseek(const char* caller, int fd, off_t offset, int whence)
{
    const off_t rc = lseek(fd, offset, whence);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: lseek(%d, %ld, %d) ERROR(%d): %s\n", caller, fd,
             static_cast<long>(offset), whence, ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_unlink(const char* caller, const char* path)
{
    const int rc = unlink(path);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: unlink(%s) ERROR(%d): %s\n", caller, path, ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_ftruncate(const char* caller, int fd, off_t length)
{
    const int rc = ftruncate(fd, length);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: ftruncate(%d, %ld) ERROR(%d): %s\n", caller, fd,
             static_cast<long>(length), ek.saved, strerror(ek.saved));
    }
    return rc;
}

void W_fallocate_failed(const char* caller, int fd, off_t offset, off_t len, int rc)
{
    zlog(rc == EOPNOTSUPP ? L_DEBUG : L_ERR, "%s: posix_fallocate(%d, %ld, %ld) ERROR(%d): %s\n",
         caller, fd, static_cast<long>(offset), static_cast<long>(len), rc, strerror(rc));
}

int W_fallocate(const char* caller, int fd, off_t offset, off_t len)
{
    const int rc = posix_fallocate(fd, offset, len);
    if (rc != 0)
        W_fallocate_failed(caller, fd, offset, len, rc);
    return rc;
}

int W_open(const char* caller, const char* path, int flags, mode_t mode)
{
    const int rc = open(path, flags, mode);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: open('%s', %d, 0x%lx) ERROR(%d): %s\n", caller, path, flags,
             static_cast<unsigned long>(mode), ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_connect(const char* caller, int fd, const struct sockaddr* addr, socklen_t addrlen)
{
    const int rc = connect(fd, addr, addrlen);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: connect(%d, %p, %ld) ERROR(%d): %s\n", caller, fd,
             static_cast<const void*>(addr), static_cast<long>(addrlen), ek.saved,
             strerror(ek.saved));
    }
    return rc;
}

ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, int flag)
{
    const ssize_t rc = write(fd, buf, count);
    if (rc == -1) {
        const errno_keeper ek;
        if (wants_log(flag, ek.saved))
            zlog(L_ERR, "%s: write(%d, %p, %ld) ERROR(%d): %s\n", caller, fd, buf,
                 static_cast<long>(count), ek.saved, strerror(ek.saved));
    }
    return rc;
}

ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, int flag)
{
    const ssize_t rc = read(fd, buf, count);
    if (rc == -1) {
        const errno_keeper ek;
        if (wants_log(flag, ek.saved))
            zlog(L_ERR, "%s: read(%d, %p, %ld) ERROR(%d): %s\n", caller, fd, buf,
                 static_cast<long>(count), ek.saved, strerror(ek.saved));
    }
    return rc;
}

ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset, int flag)
{
    const ssize_t rc = pread(fd, buf, count, offset);
    if (rc == -1) {
        const errno_keeper ek;
        if (wants_log(flag, ek.saved))
            zlog(L_ERR, "%s: pread(%d, %p, %ld, %ld) ERROR(%d): %s\n", caller, fd, buf,
                 static_cast<long>(count), static_cast<long>(offset), ek.saved,
                 strerror(ek.saved));
    }
    return rc;
}

int W_socket(const char* caller, int domain, int type, int protocol)
{
    const int rc = socket(domain, type, protocol);
    if (rc == -1) {
        const errno_keeper ek;
        // The type as the caller named it: the creation flags are not part of it.
        zlog(L_ERR, "%s: socket(%d, %d, %d) ERROR(%d): %s\n", caller, domain,
             type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC), protocol, ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_getsockopt(const char* caller, int fd, int level, int optname, void* optval,
                 socklen_t* optlen)
{
    const int rc = getsockopt(fd, level, optname, optval, optlen);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: getsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", caller, fd, level,
             optname, optval, optlen != nullptr ? static_cast<long>(*optlen) : -1L, ek.saved,
             strerror(ek.saved));
    }
    return rc;
}

int W_setsockopt(const char* caller, int fd, int level, int optname, const void* optval,
                 socklen_t optlen)
{
    const int rc = setsockopt(fd, level, optname, optval, optlen);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: setsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", caller, fd, level,
             optname, optval, static_cast<long>(optlen), ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_bind(const char* caller, int fd, const struct sockaddr* addr, socklen_t addrlen)
{
    const int rc = bind(fd, addr, addrlen);
    if (rc == -1) {
        const errno_keeper ek;
        // The colon before ERROR is the established text of this line; log readers match it.
        zlog(L_ERR, "%s: bind(%d, %p, %ld): ERROR(%d): %s\n", caller, fd,
             static_cast<const void*>(addr), static_cast<long>(addrlen), ek.saved,
             strerror(ek.saved));
    }
    return rc;
}

int W_listen(const char* caller, int fd, int backlog)
{
    const int rc = listen(fd, backlog);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: listen(%d, %d) ERROR(%d): %s\n", caller, fd, backlog, ek.saved,
             strerror(ek.saved));
    }
    return rc;
}

int W_getaddrinfo(const char* caller, const char* node, const char* service,
                  const struct addrinfo* hints, struct addrinfo** res)
{
    const int rc = getaddrinfo(node, service, hints, res);
    if (rc != 0) {
        // The resolver reports through its own code; errno only means something for EAI_SYSTEM
        // but is printed beside it in every case.
        const errno_keeper ek;
        zlog(L_ERR, "%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", caller,
             node != nullptr ? node : "(null)", service != nullptr ? service : "(null)",
             static_cast<const void*>(hints), static_cast<void*>(res), rc, ek.saved,
             gai_strerror(rc));
    }
    return rc;
}

int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
             struct timeval* timeout)
{
    const int rc = select(nfds, readfds, writefds, exceptfds, timeout);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: select(%d, %p, %p, %p, %p) ERROR(%d): %s\n", caller, nfds,
             static_cast<void*>(readfds), static_cast<void*>(writefds),
             static_cast<void*>(exceptfds), static_cast<void*>(timeout), ek.saved,
             strerror(ek.saved));
    }
    return rc;
}

// The result of accept or accept4 (the same text for both: the flags change no outcome).
// `offered` is the address length as the caller offered it, before the kernel rewrote it.
static int accepted(const char* caller, int rc, int fd, struct sockaddr* addr, long offered)
{
    // A drained queue ends every accept cycle on a non-blocking listener; it is not an error.
    // Running out of descriptors repeats on every readiness event until some are free: the
    // caller reports it at a rate it limits.
    if (rc == -1 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EMFILE &&
        errno != ENFILE) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: accept(%d, %p, %ld) ERROR(%d): %s\n", caller, fd,
             static_cast<void*>(addr), offered, ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_accept(const char* caller, int fd, struct sockaddr* addr, socklen_t* addrlen)
{
    const long offered = addrlen != nullptr ? static_cast<long>(*addrlen) : 0L;
    return accepted(caller, accept(fd, addr, addrlen), fd, addr, offered);
}

int W_accept4(const char* caller, int fd, struct sockaddr* addr, socklen_t* addrlen, int flags)
{
    const long offered = addrlen != nullptr ? static_cast<long>(*addrlen) : 0L;
    return accepted(caller, accept4(fd, addr, addrlen, flags), fd, addr, offered);
}

int W_poll(const char* caller, struct pollfd* fds, nfds_t nfds, int timeout)
{
    const int rc = poll(fds, nfds, timeout);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: poll(%p, %ld, %d) ERROR(%d): %s\n", caller, static_cast<void*>(fds),
             static_cast<long>(nfds), timeout, ek.saved, strerror(ek.saved));
    }
    return rc;
}

ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, size_t count,
                     int flag)
{
    const long at = offset != nullptr ? static_cast<long>(*offset) : -1L;
    const ssize_t rc = sendfile(out_fd, in_fd, offset, count);
    if (rc == -1) {
        const errno_keeper ek;
        // No line end: this line has always been written without one.
        if (wants_log(flag, ek.saved))
            zlog(L_ERR, "%s: LNX sendfile(%d<-%d, %ld, %ld) ERROR(%d): %s", caller, out_fd, in_fd,
                 at, static_cast<long>(count), ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_dup2(const char* caller, int oldfd, int newfd)
{
    const int rc = dup2(oldfd, newfd);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: dup2(%d, %d) ERROR(%d): %s\n", caller, oldfd, newfd, ek.saved,
             strerror(ek.saved));
    }
    return rc;
}

int W_pipe(const char* caller, int pipefd[2])
{
    const int rc = pipe(pipefd);
    if (rc == -1) {
        const errno_keeper ek;
        const int fd0 = pipefd != nullptr ? pipefd[0] : -1;
        const int fd1 = pipefd != nullptr ? pipefd[1] : -1;
        zlog(L_ERR, "%s: pipe([%d,%d]) ERROR(%d): %s\n", caller, fd0, fd1, ek.saved,
             strerror(ek.saved));
    }
    return rc;
}

pid_t W_fork(const char* caller)
{
    const pid_t rc = fork();
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: fork() ERROR(%d): %s\n", caller, ek.saved, strerror(ek.saved));
    }
    return rc;
}

int W_kill(const char* caller, pid_t pid, int sig)
{
    const int rc = kill(pid, sig);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: kill(%ld, %d) ERROR(%d): %s\n", caller, static_cast<long>(pid), sig,
             ek.saved, strerror(ek.saved));
    }
    return rc;
}

ssize_t W_sendto(const char* caller, int fd, const void* buf, size_t len, int flags,
                 const struct sockaddr* dest_addr, socklen_t addrlen)
{
    const ssize_t rc = sendto(fd, buf, len, flags, dest_addr, addrlen);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: sendto(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", caller, fd, buf,
             static_cast<unsigned long>(len), flags, ek.saved, strerror(ek.saved));
    }
    return rc;
}

ssize_t W_recvfrom(const char* caller, int fd, void* buf, size_t len, int flags,
                   struct sockaddr* src_addr, socklen_t* addrlen)
{
    const ssize_t rc = recvfrom(fd, buf, len, flags, src_addr, addrlen);
    if (rc == -1) {
        const errno_keeper ek;
        zlog(L_ERR, "%s: recvfrom(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", caller, fd, buf,
             static_cast<unsigned long>(len), flags, ek.saved, strerror(ek.saved));
    }
    return rc;
}
