// One read, one write and a short input wait on a descriptor, for the agent's sockets and files.
#include "fdio.h"

#include <cerrno>
#include <poll.h>

#include "log.h"
#include "syswrap.h"
#include "util.h"

LOG_MODULE(0, -1);

ssize_t nread(int fd, char* buf, size_t count, uint32_t flags)
{
    if (count == 0)
        return 0;
    for (;;) {
        const ssize_t n = W_read_f(__func__, fd, buf, count, static_cast<int>(flags));
        // A signal that is not a quit request must not look like a failed transfer; a quit must
        // get the caller back to the loop, which then stops.
        if (n < 0 && errno == EINTR && !g_quit)
            continue;
        return n;
    }
}

ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags)
{
    for (;;) {
        const ssize_t n = W_write_f(__func__, fd, buf, count, static_cast<int>(flags));
        if (n < 0 && errno == EINTR && !g_quit)
            continue;
        return n;
    }
}

short wait_to_read(int sockfd, int tmout)
{
    pollfd p{};
    p.fd = sockfd;
    p.events = POLLIN;
    const int rc = W_poll(__func__, &p, 1, tmout);
    if (rc < 0)
        return -1;
    if (rc == 0)
        return 1;
    if (p.revents & (POLLERR | POLLNVAL))
        return -1;
    return (p.revents & POLLIN) ? 0 : 1;
}

bool is_aborted(int err)
{
    return err == ECONNABORTED || err == ECONNRESET || err == EPIPE;
}
