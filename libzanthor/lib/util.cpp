// Process runtime of the daemon (detaching, pid file, user, directory, CPU, core dumps, signal
// flags) and the small file-system helpers that configuration and requests rely on.
#include "util.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "log.h"
#include "syswrap.h"

LOG_MODULE(LOG_MOD_APP, -1);

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_goodbye = 0;
volatile sig_atomic_t g_tdbg = 0;

// Longest pid text, as "%ld" of any 64-bit value plus its NUL.
static constexpr size_t PID_TEXT_MAX = 21;
// The affinity mask handed to the kernel: 1024 CPUs.
static constexpr int MAX_CPUS = 1024;
static_assert(sizeof(cpu_set_t) * CHAR_BIT == MAX_CPUS);

int dir_check(const char* dir, bool must_be_writable)
{
    if (dir == nullptr || *dir == '\0') {
        zlogf(L_ERR, "%s: no directory given\n");
        return -1;
    }
    struct stat st {};
    if (stat(dir, &st) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: stat(%s) ERROR(%d): %s\n", dir, err, strerror(err));
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        zlogf(L_ERR, "%s: [%s] is not a directory\n", dir);
        return -1;
    }
    if (access(dir, R_OK | X_OK) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: [%s] is not accessible, ERROR(%d): %s\n", dir, err, strerror(err));
        return -1;
    }
    if (must_be_writable && access(dir, W_OK) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: [%s] is not writable, ERROR(%d): %s\n", dir, err, strerror(err));
        return -1;
    }
    return 0;
}

int mk_fpath_dirs(const char* path)
{
    if (path == nullptr || *path == '\0') {
        zlogf(L_ERR, "%s: no path given\n");
        return -1;
    }
    const char* last = strrchr(path, '/');
    if (last == nullptr || last == path)
        return 0; // a file in the working directory or in the root
    const size_t dlen = static_cast<size_t>(last - path);
    char dir[PATH_MAX];
    if (dlen >= sizeof(dir)) {
        zlogf(L_ERR, "%s: path too long (%zu bytes) [%s]\n", dlen, path);
        return -1;
    }
    memcpy(dir, path, dlen);
    dir[dlen] = '\0';

    // Most destinations share directories made by earlier downloads: one stat settles them.
    struct stat st {};
    if (stat(dir, &st) == 0 && S_ISDIR(st.st_mode))
        return 0;

    for (char* p = dir + 1;; ++p) {
        if (*p != '/' && *p != '\0')
            continue;
        const char saved = *p;
        *p = '\0';
        if (mkdir(dir, 0755) != 0) {
            const int err = errno;
            // Another process may create the same directory at the same time: EEXIST is normal,
            // but only a directory will do.
            if (err != EEXIST) {
                zlogf(L_ERR, "%s: mkdir(%s) ERROR(%d): %s\n", dir, err, strerror(err));
                return -1;
            }
            if (stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
                zlogf(L_ERR, "%s: [%s] exists and is not a directory\n", dir);
                return -1;
            }
        }
        *p = saved;
        if (saved == '\0')
            break;
    }
    return 0;
}

ssize_t read_file_buf(const char* path, char* buf, size_t buflen)
{
    if (buf == nullptr || buflen == 0) {
        zlogf(L_ERR, "%s: no buffer for [%s]\n", path);
        return -1;
    }
    buf[0] = '\0';
    const int fd = W_open(__func__, path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // The size is not taken from fstat: files under /proc report 0 and a file may still grow.
    size_t total = 0;
    ssize_t rc = 0;
    while (total < buflen - 1) {
        const ssize_t n = W_read_f(__func__, fd, buf + total, buflen - 1 - total, W_LOGALL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            rc = n;
            break;
        }
        total += static_cast<size_t>(n);
    }
    if (rc == 0 && total == buflen - 1) {
        char probe = 0;
        const ssize_t n = W_read_f(__func__, fd, &probe, 1, W_LOGALL);
        if (n > 0)
            zlogf(L_ERR, "%s: file [%s] does not fit into %zu bytes\n", path, buflen);
        if (n != 0)
            rc = -1;
    }
    buf[total] = '\0';
    W_close(__func__, fd);
    return rc < 0 ? -1 : static_cast<ssize_t>(total);
}

int daemonize()
{
    // Buffered output must not be written once by each process after the fork.
    fflush(nullptr);
    pid_t pid = W_fork(__func__);
    if (pid < 0)
        return -1;
    if (pid > 0)
        _exit(0);

    if (setsid() < 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: failed at %s, ERROR(%d): %s\n", "setsid", err, strerror(err));
        return -1;
    }
    const int rc = chdir("/");
    if (rc != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: failed at %s, ERROR(%d): %s\n", "chdir", err, strerror(err));
        return rc;
    }
    umask(0);
    FILE* fp = log_fp(g_log);
    if (fp != nullptr) {
        const int lfd = fileno(fp);
        if (lfd >= 0 && lfd <= 2)
            log_default(g_log, stderr);
    }
    // The terminal is let go, but 0 and 1 are taken by the null device rather than left closed:
    // a free standard descriptor would be handed to the next log file, socket or destination file,
    // and a stray write to standard output or error would then land in it.
    const int null_fd = W_open(__func__, "/dev/null", O_RDWR, 0);
    if (null_fd < 0) {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
    } else {
        W_dup2(__func__, null_fd, STDIN_FILENO);
        W_dup2(__func__, null_fd, STDOUT_FILENO);
        if (null_fd > STDERR_FILENO)
            W_close(__func__, null_fd);
    }

    pid = W_fork(__func__);
    if (pid < 0)
        return -1;
    if (pid > 0)
        _exit(0);
    return 0;
}

int write_lock(int fd)
{
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;
    return fcntl(fd, F_SETLK, &fl);
}

// Lock, truncate, write the pid and describe the file; the caller opens and closes it.
static int fill_pidfile(const char* fn, int fd, const char* path, pid_t pid, struct stat* out,
                        bool quiet)
{
    if (write_lock(fd) != 0) {
        const int err = errno;
        if (err == EACCES || err == EAGAIN) {
            if (quiet)
                zlog(L_ERR, "Another instance is already running\n");
            else
                zlog(L_ERR, "%s: file [%s] is locked (another instance of daemon must be running)\n",
                     fn, path);
        } else {
            zlog(L_ERR, "fcntl write-lock ERROR(%d): %s\n", err, strerror(err));
        }
        return -1;
    }
    if (W_ftruncate(fn, fd, 0) != 0)
        return -1;
    char text[PID_TEXT_MAX];
    const int n = snprintf(text, sizeof(text), "%ld", static_cast<long>(pid));
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(text)) {
        zlog(L_ERR, "%s: ERROR(%d) or not enough space for pid\n", fn, n);
        return -1;
    }
    if (W_write_f(fn, fd, text, static_cast<size_t>(n), W_LOGALL) != n)
        return -1;
    if (out != nullptr && fstat(fd, out) != 0) {
        const int err = errno;
        zlog(L_ERR, "%s: fstat(fd%d,..) ERROR(%d): %s\n", fn, fd, err, strerror(err));
        return -1;
    }
    return 0;
}

int create_pidfile_extra(const char* path, pid_t pid, struct stat* out, uint32_t flags)
{
    ZASSERT(path != nullptr);
    ZASSERT(pid > 0);
    if (*path == '\0') {
        zlogf(L_ERR, "%s: no path specified\n");
        return -1;
    }
    const bool quiet = (flags & PIDF_QUIET) != 0;
    int rc = -1;
    const int fd = W_open(__func__, path, O_WRONLY | O_CREAT | O_NOCTTY, 0644);
    if (fd >= 0) {
        rc = fill_pidfile(__func__, fd, path, pid, out, quiet);
        // Closing drops the lock: it guards only the writing, as it always has.
        W_close(__func__, fd);
    }
    if (!quiet) {
        if (rc != 0)
            zlogf(L_ERR, "%s: failed to create pidfile [%s] with pid=%ld.\n", path,
                  static_cast<long>(pid));
        else
            zlog(L_INFO, "Created pidfile [%s] with pid=%ld.\n", path, static_cast<long>(pid));
    }
    return rc;
}

int run_as_user(const char* name)
{
    ZASSERT(name != nullptr);
    errno = 0;
    const struct passwd* pw = getpwnam(name);
    if (pw == nullptr) {
        const int err = errno;
        if (err == 0)
            zlogf(L_ERR, "%s: getpwnam: user %s not found\n", name);
        else
            zlogf(L_ERR, "%s: getpwnam(%s): %s\n", name, strerror(err));
        return -1;
    }
    // The group first: after setuid the process may no longer change it.
    if (setgid(pw->pw_gid) != 0 || setuid(pw->pw_uid) != 0)
        return -1;
    return 0;
}

int run_as_user_id(uid_t uid, gid_t gid)
{
    if (setgid(gid) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: setgid(%ld) ERROR(%d): %s\n", static_cast<long>(gid), err,
              strerror(err));
        return -1;
    }
    if (setuid(uid) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: setuid(%ld) ERROR(%d): %s\n", static_cast<long>(uid), err,
              strerror(err));
        return -1;
    }
    return 0;
}

int goto_runtime_home(const char* path, const char* alt)
{
    if (path != nullptr) {
        if (chdir(path) == 0)
            return 0;
        const int err = errno;
        // A user without permission for the start directory goes to the alternative instead.
        if (err != EACCES) {
            zlog(L_ERR, "chdir(%s) (param) ERROR(%d): %s\n", path, err, strerror(err));
            return -1;
        }
    }
    if (alt == nullptr) {
        const uid_t euid = geteuid();
        errno = 0;
        const struct passwd* pw = getpwuid(euid);
        if (pw == nullptr) {
            const int err = errno;
            zlog(L_ERR, "getpwuid(%ld) ERROR(%d): %s\n", static_cast<long>(euid), err,
                 strerror(err));
            return -1;
        }
        zlogf(L_DEBUG, "%s: EUID(%ld) home: %s\n", static_cast<long>(euid), pw->pw_dir);
        alt = pw->pw_dir;
    }
    if (chdir(alt) != 0) {
        const int err = errno;
        zlog(L_ERR, "chdir(%s) (alt) ERROR(%d): %s\n", alt, err, strerror(err));
        return -1;
    }
    return 0;
}

int pin2cpu(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    // A CPU outside the mask leaves it empty, which the kernel refuses with EINVAL.
    if (cpu >= 0 && cpu < MAX_CPUS)
        CPU_SET(static_cast<size_t>(cpu), &set);
    if (sched_setaffinity(getpid(), sizeof(set), &set) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: sched_setaffinity(CPU%d) ERROR(%d): %s\n", cpu, err, strerror(err));
        return -1;
    }
    return 0;
}

int set_unlimited_core(struct rlimit* out)
{
    // A process that changed its user is not dumpable until it says so again.
    if (prctl(PR_GET_DUMPABLE, 0, 0, 0, 0) == 0) {
        zlogf(L_INFO, "%s: process is currently NOT core-dumpable; will enforce\n");
        if (prctl(PR_SET_DUMPABLE, 1, 0, 0, 0) != 0) {
            const int err = errno;
            zlogf(L_ERR, "%s: prctl(PR_SET_DUMPABLE, 1) ERROR(%d): %s\n", err, strerror(err));
            return -1;
        }
    }
    struct rlimit local {};
    struct rlimit* rl = out != nullptr ? out : &local;
    if (getrlimit(RLIMIT_CORE, rl) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: getrlimit ERROR(%d): %s\n", err, strerror(err));
        return -1;
    }
    if (rl->rlim_cur == RLIM_INFINITY) {
        zlogf(L_DEBUG, "%s: already set\n");
        return 0;
    }
    zlogf(L_DEBUG, "%s: current=%ld/%ld\n", static_cast<long>(rl->rlim_cur),
          static_cast<long>(rl->rlim_max));
    const struct rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &unlimited) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: setrlimit ERROR(%d): %s\n", err, strerror(err));
        return err;
    }
    zlogf(L_DEBUG, "%s: OK\n");
    return 0;
}

// No SA_RESTART: a blocking call interrupted by a quit signal returns, so the loop sees g_quit.
static int install_handler(int signo, sig_handler_fn handler)
{
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    return sigaction(signo, &sa, nullptr);
}

int handle_quit_signals(sig_handler_fn handler)
{
    static constexpr std::array<int, 3> quit_signals = {SIGTERM, SIGQUIT, SIGINT};
    for (const int signo : quit_signals) {
        if (install_handler(signo, handler) != 0) {
            const int err = errno;
            zlogf(L_ERR, "%s: sigaction (quit) ERROR(%d): %s\n", err, strerror(err));
            return -1;
        }
    }
    return 0;
}

int handle_sig(int signo, sig_handler_fn handler)
{
    if (install_handler(signo, handler) != 0) {
        const int err = errno;
        zlogf(L_ERR, "%s: sigaction (signo=%d) ERROR(%d): %s\n", signo, err, strerror(err));
        return -1;
    }
    return 0;
}

// Messages go out under the name of `who`.
static int ignore_signal(const char* who, int signo, const char* name)
{
    if (install_handler(signo, SIG_IGN) != 0) {
        const int err = errno;
        zlog(L_ERR, "%s: sigaction (%s) ERROR(%d): %s\n", who, name, err, strerror(err));
        return -1;
    }
    return 0;
}

int ignore_sigpipe()
{
    return ignore_signal(__func__, SIGPIPE, "SIGPIPE");
}

int ignore_sigxfsz()
{
    return ignore_signal(__func__, SIGXFSZ, "SIGXFSZ");
}

// The handlers only set flags, change dispositions and write one record. They mark the signal
// context, in which the logger builds the record in a buffer of its own and writes it with
// write(2), leaving the shared record buffer, stdio, syslog and rotation to the interrupted code;
// that code also keeps its errno.
void on_sigquit(int signo)
{
    const int saved_errno = errno;
    const sig_atomic_t outer = g_sigctx;
    g_sigctx = 1;
    g_quit = 1;
    if (signo == SIGTERM || signo == SIGINT)
        g_goodbye = 1;
    zlog(L_NORM, "QUIT-SIG(%d)\n", signo);
    // While shutting down, children ending and reload or user requests must not interrupt.
    install_handler(SIGCHLD, SIG_IGN);
    install_handler(SIGHUP, SIG_IGN);
    install_handler(SIGUSR1, SIG_IGN);
    g_sigctx = outer;
    errno = saved_errno;
}

void on_tdbg(int signo)
{
    const int saved_errno = errno;
    const sig_atomic_t outer = g_sigctx;
    g_sigctx = 1;
    g_tdbg = 1;
    zlog(L_NORM, "T-DBG SIG(%d)\n", signo);
    g_sigctx = outer;
    errno = saved_errno;
}

void reset_getopt_state()
{
    // glibc re-initialises its whole scanner, including a half-read option cluster, on 0.
    optind = 0;
}

const char* pick_first_file(const char* const* list, size_t count)
{
    if (list == nullptr)
        return nullptr;
    for (size_t i = 0; i < count; ++i) {
        struct stat st {};
        if (list[i] != nullptr && stat(list[i], &st) == 0 && !S_ISDIR(st.st_mode))
            return list[i];
    }
    return nullptr;
}
