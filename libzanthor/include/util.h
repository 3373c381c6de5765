// Process-level runtime of a daemon (detaching, pid file, user, working directory, CPU pinning,
// core dumps, signal flags) and small file-system helpers shared by the servers of the family.
#pragma once
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

// Set to 1 by the quit-signal handler; the event loop and the accept handler stop on it.
extern volatile sig_atomic_t g_quit;
// Set to 1 when the quit came from SIGTERM or SIGINT (a deliberate stop rather than SIGQUIT).
extern volatile sig_atomic_t g_goodbye;
// Set to 1 by the SIGUSR2 handler; the idle pass consumes and clears it.
extern volatile sig_atomic_t g_tdbg;

// 0 when `dir` is an accessible directory (and writable when asked); otherwise logs why and
// returns -1.
[[nodiscard]] int dir_check(const char* dir, bool must_be_writable);
// Creates the missing directories of a file path (everything before the last '/'), mode 0755.
// 0, or -1 with a log line.
[[nodiscard]] int mk_fpath_dirs(const char* path);
// Reads a whole small file into `buf` and NUL-terminates it. Returns its length, or -1 with a
// log line when it cannot be read or does not fit into `buflen` - 1 bytes.
[[nodiscard]] ssize_t read_file_buf(const char* path, char* buf, size_t buflen);

// Detaches from the terminal by the double fork. Returns 0 in the grandchild (the parents exit
// with status 0 without running exit handlers) or -1 / the failing call's result. Descriptors 0
// and 1 are pointed at /dev/null (so that nothing later takes their numbers by accident); a logger
// writing to 0, 1 or 2 is moved to standard error first, and the caller releases 2 the same way
// once its log file is open.
[[nodiscard]] int daemonize();

// Flags of create_pidfile_extra.
enum : uint32_t { PIDF_QUIET = 1 };

// Writes `pid` ("%ld", no line end) into the file at `path` under an advisory write lock, which
// is released again when the file is closed before returning: the lock only guards against two
// instances writing at once. `out`, when given, receives the file's fstat information. 0, or -1
// after logging (quietly with PIDF_QUIET). A null path or a pid below 1 is a programming error.
[[nodiscard]] int create_pidfile_extra(const char* path, pid_t pid, struct stat* out,
                                       uint32_t flags);
// fcntl(F_SETLK) write lock over the whole file; its result, errno set on refusal.
int write_lock(int fd);

// setgid then setuid to the account `name`; supplementary groups are left alone. 0 or -1.
[[nodiscard]] int run_as_user(const char* name);
[[nodiscard]] int run_as_user_id(uid_t uid, gid_t gid);
// chdir to `path`; when that is refused for lack of permission (or `path` is null), to `alt`, or
// with no `alt` to the effective user's home directory. 0 or -1.
[[nodiscard]] int goto_runtime_home(const char* path, const char* alt);
// Binds the process to one CPU; a number outside 0..1023 always fails. 0 or -1.
[[nodiscard]] int pin2cpu(int cpu);
// Makes the process dumpable and lifts the core size limit; `out`, when given, receives the limits
// found. 0, -1 or the errno of a refused setrlimit.
int set_unlimited_core(struct rlimit* out);

using sig_handler_fn = void (*)(int);
// Installs `handler` for SIGTERM, SIGQUIT and SIGINT with an empty mask and no SA_RESTART.
[[nodiscard]] int handle_quit_signals(sig_handler_fn handler);
[[nodiscard]] int handle_sig(int signo, sig_handler_fn handler);
[[nodiscard]] int ignore_sigpipe();
// Ignores SIGXFSZ, so that growing a file beyond the process's file size limit fails with EFBIG
// instead of ending the process. 0 or -1.
[[nodiscard]] int ignore_sigxfsz();
// Quit handler: sets g_quit (and g_goodbye for SIGTERM/SIGINT), logs, and ignores SIGCHLD, SIGHUP
// and SIGUSR1 from then on.
void on_sigquit(int signo);
// SIGUSR2 handler: sets g_tdbg and logs.
void on_tdbg(int signo);

// Rewinds getopt/getopt_long completely, so that the command line can be parsed a second time.
void reset_getopt_state();
// The first of `count` candidate paths that exists and is not a directory, or null.
const char* pick_first_file(const char* const* list, size_t count);
