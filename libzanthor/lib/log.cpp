// The application log: record formatting into one static buffer, level filtering, the outputs
// (file, pipe, standard error, mirror stream, syslog, shared-memory mirror) and rotation of the
// log file by size and at the end of the day.
#include "log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "timeop.h"

LOG_MODULE(LOG_MOD_APP, -1);

static log_ctx s_glog = {};
log_ctx* const g_log = &s_glog;
int g_mod_ll[LOG_MAX_MODULES];
int g_sec_ll[LOG_MAX_SECTIONS];
log_module g_logmod = {};
volatile sig_atomic_t g_sigctx = 0;

static int s_saved_mod_ll[LOG_MAX_MODULES];
static bool s_mlevels_pushed = false;

// The record buffer: 2047 usable bytes and a terminating NUL.
static char g_outbuf[LOG_OUTBUF_SIZE];
static size_t g_outlen = 0;

constexpr size_t LOG_OUTBUF_USABLE = LOG_OUTBUF_SIZE - 1;
constexpr size_t LOG_BATCH_SIZE = 65536;
constexpr size_t ROTATED_NAME_MAX = 160;     // rotated names must stay below this
constexpr size_t MOVED_ASIDE_NAME_MAX = 127; // the start-up move keeps names shorter
constexpr int BTRACE_DEPTH = 16;
constexpr size_t BTRACE_AREA = 511;

// Records of the batching log, not yet written. A handler never touches them: it writes its own
// record straight to the descriptor, and the quit signals are let in only while the loop waits,
// after it has written what was held here.
static char s_batch[LOG_BATCH_SIZE];
static size_t s_batch_len = 0;
static const log_ctx* s_batch_log = nullptr;

static void default_syslog_sink(int priority, const char* text)
{
    syslog(priority, "%s", text);
}

static log_syslog_fn s_syslog_sink = default_syslog_sink;

void log_set_syslog_sink(log_syslog_fn fn)
{
    s_syslog_sink = fn ? fn : default_syslog_sink;
}

namespace {
struct level_row {
    int level;
    const char* name;
    const char* tag;
    int priority;
};
// "ctitical" is the historical spelling; configuration dumps and log readers expect it.
constexpr level_row k_levels[] = {
    {L_PANIC, "panic", "(PNC)", LOG_ALERT},  {L_ERR, "error", "(ERR)", LOG_ERR},
    {L_CRIT, "ctitical", "(CRI)", LOG_CRIT}, {L_WARN, "warning", "(WRN)", LOG_WARNING},
    {L_NORM, "normal", "(NRM)", LOG_NOTICE}, {L_INFO, "info", "(INF)", LOG_INFO},
    {L_DEBUG, "debug", "(DBG)", LOG_DEBUG},  {L_SECT, "section", "(SCT)", LOG_DEBUG},
};

const level_row* find_level(int level)
{
    for (const auto& r : k_levels)
        if (r.level == level)
            return &r;
    return nullptr;
}
} // namespace

const char* log_level_str(int level)
{
    const level_row* r = find_level(level);
    return r ? r->name : "??";
}

const char* get_level_tag(int level)
{
    const level_row* r = find_level(level);
    return r ? r->tag : "( ? )";
}

int log_syslog_priority(int level)
{
    const level_row* r = find_level(level);
    return r ? r->priority : LOG_DEBUG;
}

int match_log_level(const char* text, int* level)
{
    static constexpr struct {
        const char* name;
        int level;
    } names[] = {
        {"err", L_ERR},    {"error", L_ERR},   {"crit", L_CRIT},   {"critical", L_CRIT},
        {"warn", L_WARN},  {"warning", L_WARN}, {"norm", L_NORM},   {"normal", L_NORM},
        {"info", L_INFO},  {"debug", L_DEBUG}, {"dbg", L_DEBUG},   {"section", L_SECT},
        {"sect", L_SECT},
    };
    if (!text)
        return -1;
    for (const auto& n : names) {
        if (strcasecmp(text, n.name) == 0) {
            *level = n.level;
            return 0;
        }
    }
    return -1;
}

void glog_init(const char* app_tag)
{
    ZASSERT(app_tag);
    snprintf(g_logmod.app_tag, sizeof(g_logmod.app_tag), "%s", app_tag);
    g_logmod.is_ready = true;
}

static bool is_std_stream(const FILE* fp)
{
    return fp == stdout || fp == stderr;
}

static FILE* out_stream(const log_ctx* log)
{
    return log->fp ? log->fp : stderr;
}

void log_sync(const log_ctx* log)
{
    if (s_batch_len == 0 || log != s_batch_log || g_sigctx)
        return;
    const int saved_errno = errno;
    fwrite(s_batch, 1, s_batch_len, out_stream(log));
    s_batch_len = 0;
    errno = saved_errno;
}

static void sync_at_exit()
{
    if (s_batch_log)
        log_sync(s_batch_log);
}

void log_set_batching(log_ctx* log, bool on)
{
    if (!on) {
        log_sync(log);
        log->batch = 0;
        if (s_batch_log == log)
            s_batch_log = nullptr;
        return;
    }
    if (s_batch_log && s_batch_log != log)
        log_set_batching(const_cast<log_ctx*>(s_batch_log), false);
    // A process that ends through exit() still writes what it holds.
    static bool exit_hook = false;
    if (!exit_hook)
        exit_hook = atexit(sync_at_exit) == 0;
    log->batch = 1;
    s_batch_log = log;
}

void log_default(log_ctx* log, FILE* stream)
{
    log_sync(log);
    log->fp = stream;
    log->is_pipe = 0;
    log->name[0] = '\0';
    log->total_out = 0;
    if (log == g_log && !(log->llst & LLST_SECTIONS)) {
        for (int& l : g_sec_ll)
            l = L_SECT;
    }
}

// fopen(path, "a+"), except that a new file gets mode 0644 whatever the umask: a daemon runs with
// umask 0, and its log must not be writable by everyone. Not inherited by commands it starts.
static FILE* open_log_file(const char* path)
{
    const int fd = open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return nullptr;
    FILE* fp = fdopen(fd, "a+");
    if (!fp) {
        const int err = errno;
        close(fd);
        errno = err;
    }
    return fp;
}

// Opens a file ("a+", unbuffered so that a crash loses nothing) or a pipe ("w", line-buffered).
// On success the previous output, if it was a file or pipe of ours, is closed.
static int do_open(log_ctx* log, const char* path, bool is_pipe)
{
    if (!g_logmod.is_ready)
        log_assert_fail("g_logmod.is_ready", __FILE__, __LINE__, __func__);
    if (!path) {
        log_default(log, stderr);
        return 0;
    }
    if (strlen(path) >= LOG_MAX_NAME) {
        fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n",
                static_cast<long>(LOG_MAX_NAME));
        return -1;
    }
    FILE* fp = is_pipe ? popen(path, "w") : open_log_file(path);
    if (!fp) {
        const int err = errno;
        fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", __func__,
                static_cast<long>(geteuid()), static_cast<long>(getegid()),
                is_pipe ? "popen" : "fopen", path, err, strerror(err));
        errno = err;
        return -1;
    }
    if (is_pipe)
        setvbuf(fp, nullptr, _IOLBF, 0);
    else
        setvbuf(fp, nullptr, _IONBF, 0);

    // The new stream is in place before the old one is closed: a signal handler that logs must
    // never find a closed stream in the context. What the old one was given goes to it first.
    log_sync(log);
    FILE* old = log->fp;
    const bool old_pipe = log->is_pipe;
    log->fp = fp;
    log->is_pipe = is_pipe ? 1 : 0;
    if (old && !is_std_stream(old)) {
        if (old_pipe)
            pclose(old);
        else
            fclose(old);
    }
    snprintf(log->name, sizeof(log->name), "%s", path);
    log->total_out = 0;
    if (!is_pipe) {
        struct stat st;
        if (fstat(fileno(fp), &st) == 0) {
            log->total_out = static_cast<size_t>(st.st_size);
        } else {
            const int err = errno;
            fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", __func__, path, err, strerror(err));
        }
    }
    return 0;
}

int log_open_ex(log_ctx* log, const char* path, uint32_t flags)
{
    if (path && !(flags & F_APPEND_OLD)) {
        if (!g_logmod.is_ready)
            log_assert_fail("g_logmod.is_ready", __FILE__, __LINE__, __func__);
        move_if_present(path);
    }
    return do_open(log, path, false);
}

int log_popen(log_ctx* log, const char* command)
{
    return do_open(log, command, true);
}

void log_mirror(log_ctx* log, FILE* stream)
{
    log->mirror_fp = stream;
    if (stream)
        setvbuf(stream, nullptr, _IOLBF, 0);
}

void log_set_pid(log_ctx* log, long pid)
{
    log->pid = pid;
}

long log_get_pid(const log_ctx* log)
{
    return log->pid;
}

void log_set_group(log_ctx* log, const char* group)
{
    log->group.num = 0;
    if (group)
        strncpy(log->group.sym8, group, sizeof(log->group.sym8) - 1);
}

const char* log_get_group(const log_ctx* log)
{
    return log->group.sym8;
}

FILE* log_fp(const log_ctx* log)
{
    // Whoever writes to the stream directly comes after the records already logged.
    log_sync(log);
    return out_stream(log);
}

void log_timefmt(log_ctx* log, uint32_t flags)
{
    log->time_format = flags;
}

void log_set_modules(log_ctx* log, int level)
{
    for (int& l : g_mod_ll)
        l = level;
    log->llst |= LLST_MODULES;
}

void log_set_sections(log_ctx* log, int level)
{
    for (int& l : g_sec_ll)
        l = level;
    log->llst |= LLST_SECTIONS;
}

void log_set_module_level(int module, int level)
{
    ZASSERT(module >= 0 && module < LOG_MAX_MODULES);
    g_mod_ll[module] = level;
}

void log_push_mlevels()
{
    if (s_mlevels_pushed)
        return;
    memcpy(s_saved_mod_ll, g_mod_ll, sizeof(g_mod_ll));
    s_mlevels_pushed = true;
}

void log_pop_mlevels()
{
    if (!s_mlevels_pushed)
        return;
    memcpy(g_mod_ll, s_saved_mod_ll, sizeof(g_mod_ll));
    s_mlevels_pushed = false;
}

bool log_mlevels_pushed()
{
    return s_mlevels_pushed;
}

void config_syslog(log_ctx* log, const char* ident, int option, int facility)
{
    openlog(ident, option, facility);
    log->syslg.option = option;
    log->syslg.facility = facility;
    log->syslg.enabled = true;
}

void glog_enable_syslog(const char* ident)
{
    config_syslog(g_log, ident, LOG_PID | LOG_CONS, LOG_LOCAL0);
}

void disable_syslog(log_ctx* log)
{
    if (log->syslg.enabled)
        closelog();
    log->syslg.enabled = false;
}

void glog_disable_syslog()
{
    disable_syslog(g_log);
}

void log_set_lard(log_ctx* log, lard_handle* lh)
{
    log->lh = lh;
}

bool lard_enabled(const log_ctx* log)
{
    return log->lh != nullptr;
}

// Stores one prepared record (`len` bytes and its NUL) in the shared-memory mirror.
static void lard_store(log_ctx* log, const char* text, size_t len, int level)
{
    lard_handle* lh = log->lh;
    if (!lh || len == 0)
        return;
    memcpy(lh->text, text, len + 1);
    lh->nputs++;
    if (level < 0)
        lh->temp = -level;
}

void log_lard(log_ctx* log, int level)
{
    lard_store(log, g_outbuf, g_outlen, level);
}

void logbuf_reset()
{
    g_outlen = 0;
    g_outbuf[0] = '\0';
}

bool logbuf_empty()
{
    return g_outlen == 0;
}

const char* logbuf_text()
{
    return g_outbuf;
}

size_t logbuf_len()
{
    return g_outlen;
}

namespace {
// A record under construction: the shared record buffer, or a signal handler's own buffer of the
// same size. `diag` is false inside a signal handler, where nothing may be printed to stderr.
struct record {
    char* text; // LOG_OUTBUF_SIZE bytes
    size_t len;
    bool diag;
};
} // namespace

// Appends `text` and two spaces; false (and the record unchanged) when they do not fit, with `*n`
// the length they needed. The pid, level and group pieces come with every record, so they are
// copied rather than formatted.
static bool append_word(record* r, int* n, const char* text, size_t len)
{
    const size_t room = LOG_OUTBUF_USABLE - r->len;
    *n = static_cast<int>(len + 2);
    if (len + 2 > room) {
        r->text[r->len] = '\0';
        return false;
    }
    char* p = r->text + r->len;
    std::memcpy(p, text, len);
    p[len] = p[len + 1] = ' ';
    p[len + 2] = '\0';
    r->len += len + 2;
    return true;
}

static int clear_record(record* r)
{
    r->len = 0;
    r->text[0] = '\0';
    return -1;
}

// Reports a piece that did not fit and empties the record; -1.
[[gnu::format(printf, 2, 3)]] static int record_failed(record* r, const char* format, ...)
{
    if (r->diag) {
        va_list ap;
        va_start(ap, format);
        vfprintf(stderr, format, ap);
        va_end(ap);
    }
    return clear_record(r);
}

[[gnu::format(printf, 4, 0)]] static int build_record(record* r, const log_ctx* log, int level,
                                                       const char* format, va_list ap)
{
    clear_record(r);
    int n = 0;
    const uint32_t tf = log->time_format;
    if (!(tf & f_NO_TIME)) {
        const uint32_t clk = tf & f_TIMER_ID;
        if (clk > f_MONOTONIC_TIMER)
            return record_failed(r, "%s: unsupported timer value: %u\n", "logbuf_vprepare", clk);
        struct timespec now;
        set_clk_now(&now, clk == f_MONOTONIC_TIMER ? CLOCK_MONOTONIC : CLOCK_REALTIME);
        ssize_t tn = mk_timestr(&now, tf, r->text, LOG_OUTBUF_USABLE);
        // A handler that interrupted the time-zone code keeps its record with a raw time stamp.
        if (tn == -35 && !r->diag)
            tn = mk_timestr(&now, tf | f_RAW_TIME, r->text, LOG_OUTBUF_USABLE);
        if (tn < 0 || static_cast<size_t>(tn) + 1 > LOG_OUTBUF_USABLE)
            return record_failed(r, "%s: time buffer error (n=%d)\n", "logbuf_vprepare",
                                 static_cast<int>(tn));
        r->len = static_cast<size_t>(tn);
        r->text[r->len++] = ' ';
        r->text[r->len] = '\0';
        if (log->pid > 0) {
            char digits[24];
            size_t i = sizeof(digits);
            for (auto v = static_cast<unsigned long>(log->pid); v; v /= 10)
                digits[--i] = static_cast<char>('0' + v % 10);
            if (!append_word(r, &n, digits + i, sizeof(digits) - i))
                return record_failed(r, "%s: pid buffer error (n=%d)", "logbuf_vprepare", n);
        }
    }
    if (level >= -126) {
        const char* tag = get_level_tag(level);
        if (!append_word(r, &n, tag, std::strlen(tag)))
            return record_failed(r, "%s: level buffer error (n=%d)\n", "logbuf_vprepare", n);
    }
    if (log->group.sym8[0]) {
        if (log->group.sym8[sizeof(log->group.sym8) - 1] != 0)
            log_assert_fail("0 == log->group.sym8[sizeof(log->group.sym8)-1]", __FILE__, __LINE__,
                            __func__);
        if (!append_word(r, &n, log->group.sym8, std::strlen(log->group.sym8)))
            return record_failed(r, "%s: group buffer error (n=%d)\n", "logbuf_vprepare", n);
    }
    const size_t room = LOG_OUTBUF_USABLE - r->len;
    n = vsnprintf(r->text + r->len, room + 1, format, ap);
    if (n < 0 || static_cast<size_t>(n) > room) {
        if (r->diag) {
            if (n >= 0)
                errno = EOVERFLOW;
            perror("fprintf/vfprintf");
        }
        return clear_record(r);
    }
    r->len += static_cast<size_t>(n);
    // Some established messages (an unknown address family, a sendfile failure) are written
    // without a line end; the record ends its line anyway so that the next record starts on its
    // own line. A record that fills the buffer gives up its last character for it.
    if (r->len > 0 && r->text[r->len - 1] != '\n') {
        if (r->len == LOG_OUTBUF_USABLE)
            --r->len;
        else
            ++n;
        r->text[r->len++] = '\n';
        r->text[r->len] = '\0';
    }
    return n;
}

int logbuf_vprepare(log_ctx* log, int level, const char* format, va_list ap)
{
    record r = {g_outbuf, 0, true};
    const int n = build_record(&r, log, level, format, ap);
    g_outlen = r.len;
    return n;
}

int logbuf_prepare(log_ctx* log, int level, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int n = logbuf_vprepare(log, level, format, ap);
    va_end(ap);
    return n;
}

static bool rotation_due(log_ctx* log)
{
    bool due = log->rota.max_total && log->total_out >= log->rota.max_total;
    if (log->rota.max_log_tm > 0) {
        const time_t now = time(nullptr);
        if (now > log->rota.max_log_tm) {
            log->rota.max_log_tm = get_endofday_utime(now);
            due = true;
        }
    }
    return due;
}

void log_flush(log_ctx* log, int level)
{
    if (g_outlen == 0)
        return;
    FILE* fp = out_stream(log);
    // errno must survive logging: callers log a failure and then look at errno.
    const int saved_errno = errno;
    if (log->batch && s_batch_log == log && !g_sigctx) {
        if (s_batch_len + g_outlen > sizeof(s_batch))
            log_sync(log);
        memcpy(s_batch + s_batch_len, g_outbuf, g_outlen);
        s_batch_len += g_outlen;
    } else {
        fwrite(g_outbuf, 1, g_outlen, fp);
    }
    log->total_out += g_outlen;
    if (log->mirror_fp && fileno(log->mirror_fp) != fileno(fp))
        fwrite(g_outbuf, 1, g_outlen, log->mirror_fp);
    if (!g_sigctx && level < 0 && log->syslg.enabled)
        s_syslog_sink(log_syslog_priority(level) | log->syslg.facility, g_outbuf);
    // The rotation notice is itself a record; it must not start another rotation.
    static bool rotating = false;
    if (!g_sigctx && !rotating && log->fp && !is_std_stream(log->fp) && !log->is_pipe &&
        rotation_due(log)) {
        rotating = true;
        log_rotate(log);
        rotating = false;
    }
    errno = saved_errno;
}

// Writes all of `len` bytes to `fd` with write(2), the one output call that is safe in a handler.
static void write_all(int fd, const char* text, size_t len)
{
    while (len > 0) {
        const ssize_t n = write(fd, text, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        text += n;
        len -= static_cast<size_t>(n);
    }
}

// A record from a signal handler. The interrupted code may be half-way through a record of its own
// or inside a stdio call, so the handler's record is built in a buffer of its own and written to
// the output descriptors directly; syslog and rotation are left out.
[[gnu::format(printf, 3, 0)]] static void emit_in_handler(const log_llctx* llc, int level,
                                                          const char* format, va_list ap)
{
    const bool wanted = log_wants(llc, level);
    if (!wanted && !lard_enabled(g_log))
        return;
    const int saved_errno = errno;
    char text[LOG_OUTBUF_SIZE];
    record r = {text, 0, false};
    if (build_record(&r, g_log, level, format, ap) >= 0) {
        lard_store(g_log, text, r.len, level);
        if (wanted) {
            const int fd = fileno(out_stream(g_log));
            write_all(fd, text, r.len);
            g_log->total_out += r.len;
            if (g_log->mirror_fp && fileno(g_log->mirror_fp) != fd)
                write_all(fileno(g_log->mirror_fp), text, r.len);
        }
    }
    errno = saved_errno;
}

void log_emit(const log_llctx* llc, int level, const char* format, ...)
{
    if (g_sigctx) {
        va_list ap;
        va_start(ap, format);
        emit_in_handler(llc, level, format, ap);
        va_end(ap);
        return;
    }
    logbuf_reset();
    bool prepared = false;
    if (lard_enabled(g_log)) {
        va_list ap;
        va_start(ap, format);
        prepared = logbuf_vprepare(g_log, level, format, ap) >= 0;
        va_end(ap);
        if (prepared)
            log_lard(g_log, level);
    }
    if (!log_wants(llc, level))
        return;
    if (!prepared) {
        va_list ap;
        va_start(ap, format);
        const int n = logbuf_vprepare(g_log, level, format, ap);
        va_end(ap);
        if (n < 0)
            return;
    }
    log_flush(g_log, level);
}

void log_close(log_ctx* log)
{
    log_sync(log);
    FILE* fp = log->fp;
    if (fp && !is_std_stream(fp)) {
        const bool pipe = log->is_pipe;
        const int rc = pipe ? pclose(fp) : fclose(fp);
        // pclose of a command that was already reaped elsewhere reports ECHILD: not an error.
        if (rc != 0 && !(pipe && errno == ECHILD)) {
            const int err = errno;
            fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", __func__,
                    pipe ? "pclose" : "fclose", err, strerror(err));
        }
        log->fp = nullptr;
        log->is_pipe = 0;
    }
    if (log->syslg.enabled) {
        closelog();
        log->syslg.enabled = false;
    }
    // The mirror belongs to the caller, who may close it next: a record written after the close
    // must not reach it.
    if (log->mirror_fp) {
        fflush(log->mirror_fp);
        log->mirror_fp = nullptr;
    }
    log->lh = nullptr;
}

int read_level_env(const char* name, int dflt)
{
    const char* text = getenv(name);
    if (!text)
        return dflt;
    const long v = strtol(text, nullptr, 10);
    if (v == 0 && strcmp(text, "0") != 0)
        return dflt;
    return static_cast<int>(v);
}

int btrace_to_buf(char* buf, size_t size)
{
    void* addrs[BTRACE_DEPTH];
    const int n = backtrace(addrs, BTRACE_DEPTH);
    if (n <= 0) {
        perror("backtrace");
        return -1;
    }
    char** syms = backtrace_symbols(addrs, n);
    if (!syms) {
        perror("backtrace_symbols");
        return -1;
    }
    size_t used = 0;
    if (size)
        buf[0] = '\0';
    for (int i = 0; i < n && used + 1 < size; ++i) {
        const int w = snprintf(buf + used, size - used, "#%d: %s\n", i, syms[i]);
        if (w < 0 || static_cast<size_t>(w) >= size - used) {
            buf[used] = '\0';
            break;
        }
        used += static_cast<size_t>(w);
    }
    free(syms);
    return 0;
}

void log_backtrace(const char* header)
{
    char bt[BTRACE_AREA + 1];
    if (btrace_to_buf(bt, sizeof(bt)) != 0)
        snprintf(bt, sizeof(bt), "(no backtrace)\n");
    // Fatal reports must reach the log whatever the configured levels say.
    static const log_llctx panic_ctx = {LOG_MOD_APP, -1};
    if (g_mod_ll[LOG_MOD_APP] < L_PANIC)
        g_mod_ll[LOG_MOD_APP] = L_PANIC;
    log_emit(&panic_ctx, L_PANIC, "%s at:\n%s==\n", header, bt);
    log_sync(g_log);
    fflush(out_stream(g_log));
}

void log_assert_fail(const char* expr, const char* file, int line, const char* func)
{
    if (g_mod_ll[LOG_MOD_APP] < L_PANIC)
        g_mod_ll[LOG_MOD_APP] = L_PANIC;
    zlog(L_PANIC, "%s: assertion \"%s\" failed at %s:%d\n", func, expr, file, line);
    log_backtrace("ASSERT");
    abort();
}

void log_abort(const char* format, ...)
{
    if (g_mod_ll[LOG_MOD_APP] < L_PANIC)
        g_mod_ll[LOG_MOD_APP] = L_PANIC;
    logbuf_reset();
    va_list ap;
    va_start(ap, format);
    const int n = logbuf_vprepare(g_log, L_PANIC, format, ap);
    va_end(ap);
    if (n >= 0)
        log_flush(g_log, L_PANIC);
    log_backtrace("Aborting");
    abort();
}

// ---- rotation ----

void log_set_rota(log_ctx* log, size_t max_total_bytes, long max_files, time_t t)
{
    log->rota.max_total = max_total_bytes;
    log->rota.max_idx = (max_files >= 1 && max_files < MAX_CYCLIC_ROTATIONS)
                            ? max_files
                            : LOG_DEFAULT_ROTA_FILES;
    log->rota.max_log_tm = t >= 1 ? get_endofday_utime(t) : 0;
}

void log_set_eod(log_ctx* log, time_t t)
{
    log->rota.max_log_tm = t;
}

size_t log_rota_maxsize(const log_ctx* log)
{
    return log->rota.max_total;
}

long log_rota_maxfiles(const log_ctx* log)
{
    return log->rota.max_idx;
}

time_t log_rota_eod(const log_ctx* log)
{
    return log->rota.max_log_tm;
}

int log_rotate(log_ctx* log)
{
    if (!log->name[0]) {
        fprintf(stderr, "%s: nothing to rotate.\n", __func__);
        return 0;
    }
    if (is_std_stream(log->fp)) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", __func__);
        return -1;
    }
    if (log->is_pipe || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", __func__);
        return -1;
    }
    const time_t t = time(nullptr);
    char newname[ROTATED_NAME_MAX];
    const int n = snprintf(newname, sizeof(newname), "%s.%lu", log->name,
                           static_cast<unsigned long>(t));
    if (n < 0 || static_cast<size_t>(n) >= sizeof(newname)) {
        fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", __func__, n,
                static_cast<unsigned long>(ROTATED_NAME_MAX - 1));
        return -1;
    }
    // Taken out of the context before it is closed, so that a signal handler never finds it.
    log_sync(log);
    FILE* old = log->fp;
    log->fp = nullptr;
    if (old && fclose(old) != 0) {
        const int err = errno;
        fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", __func__, log->name, err,
                strerror(err));
    }

    char path[LOG_MAX_NAME];
    memcpy(path, log->name, sizeof(path));
    char rename_msg[384] = "";
    if (rename(path, newname) != 0) {
        const int err = errno;
        snprintf(rename_msg, sizeof(rename_msg), "%s: failed to rename [%s] to [%s], ERROR(%d): %s",
                 __func__, path, newname, err, strerror(err));
        fprintf(stderr, "%s - rotation is to be stopped\n", rename_msg);
    }
    const int rc = do_open(log, path, false);
    if (rc != 0)
        return rc;
    if (rename_msg[0]) {
        log->total_out = 0;
        zlogf(L_ERR, "%s: %s - rotation cancelled this time\n", rename_msg);
    } else if (log->rota.max_idx) {
        handle_rotation(log, t, newname);
    }
    return 0;
}

void handle_rotation(log_ctx* log, time_t t, const char* rotated_name)
{
    log_rota& r = log->rota;
    zlog(L_NORM, "[%s]: previous log rotated to [%s] tm=%ld, idx=%ld\n", g_logmod.app_tag,
         rotated_name, static_cast<long>(t), r.cur_idx);
    if (r.cur_idx < 0 || r.cur_idx >= MAX_CYCLIC_ROTATIONS)
        r.cur_idx = 0;
    const time_t oldest = r.ring[r.cur_idx];
    if (oldest) {
        char oldname[ROTATED_NAME_MAX];
        const int n = snprintf(oldname, sizeof(oldname), "%s.%lu", log->name,
                               static_cast<unsigned long>(oldest));
        if (n < 0 || static_cast<size_t>(n) >= sizeof(oldname)) {
            fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", __func__, n,
                    static_cast<unsigned long>(ROTATED_NAME_MAX - 1));
            return;
        }
        if (unlink(oldname) != 0) {
            const int err = errno;
            zlogf(L_ERR, "%s: unlink(%s) ERROR(%d) : %s\n", oldname, err, strerror(err));
        } else {
            zlogf(L_DEBUG, "%s: replaced %s with %s.%lu\n", oldname, log->name,
                  static_cast<unsigned long>(t));
        }
    }
    r.ring[r.cur_idx] = t;
    if (++r.cur_idx >= r.max_idx)
        r.cur_idx = 0;
}

int move_if_present(const char* path)
{
    struct stat st;
    if (stat(path, &st) != 0) {
        if (errno == ENOENT)
            return 0;
        const int err = errno;
        fprintf(stderr, "stat(%s) ERROR(%d): %s\n", path, err, strerror(err));
        return -1;
    }
    if (!S_ISREG(st.st_mode) || st.st_size <= 0)
        return 0;
    char newname[MOVED_ASIDE_NAME_MAX + 1];
    const int n = snprintf(newname, sizeof(newname), "%s.%lu", path,
                           static_cast<unsigned long>(st.st_mtime));
    if (n < 0 || static_cast<size_t>(n) > MOVED_ASIDE_NAME_MAX)
        return 7;
    const int rc = rename(path, newname);
    if (rc != 0) {
        const int err = errno;
        fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", path, newname, err,
                strerror(err));
    }
    return rc;
}
