// The application log: one process-wide logger writing levelled records with a fixed prefix to a
// file, a pipe or standard error, with an optional mirror stream, syslog copies and rotation.
// Levels are filtered per module and per section through two global tables.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/types.h>

#include "ztypes.h"

// Levels: more negative is more severe. Critical ranks below error in this numbering on purpose.
enum : int {
    L_PANIC = -4,
    L_ERR = -3,
    L_CRIT = -2,
    L_WARN = -1,
    L_NORM = 0,
    L_INFO = 1,
    L_DEBUG = 2,
    L_SECT = 64,
};

constexpr int LOG_MAX_MODULES = 128;
constexpr int LOG_MAX_SECTIONS = 128;
constexpr size_t LOG_OUTBUF_SIZE = 2048;
constexpr size_t LOG_MAX_NAME = 128;
constexpr int MAX_CYCLIC_ROTATIONS = 128;
constexpr long LOG_DEFAULT_ROTA_FILES = 16;
constexpr size_t LARD_MAX_NAME = 255;

// Well-known module numbers: 0 is the application itself, 2 the system-call wrappers.
enum : int { LOG_MOD_APP = 0, LOG_MOD_EVENTS = 1, LOG_MOD_SYSWRAP = 2 };

enum : uint32_t { F_APPEND_OLD = 1 };

// Bits of `llst`: which of the two level tables were set explicitly.
enum : uint32_t { LLST_MODULES = 1, LLST_SECTIONS = 2 };

struct log_rota {
    size_t max_total;  // size limit in bytes, 0: no size rotation
    long max_idx;      // rotated files kept (1..127)
    time_t max_log_tm; // next end of day, 0: no daily rotation
    long cur_idx;      // next position in the ring
    time_t ring[MAX_CYCLIC_ROTATIONS];
};

// The shared-memory mirror: a store for the latest record text and a severity mark. This build keeps
// it in process memory; tests attach one to observe what the logger produced.
struct lard_handle {
    char name[LARD_MAX_NAME + 1];
    char text[LOG_OUTBUF_SIZE];
    size_t nputs;
    int temp;
};

struct log_syslog {
    bool enabled;
    int option;
    int facility;
};

struct log_ctx {
    char name[LOG_MAX_NAME];
    unsigned is_pipe : 1;
    uint32_t time_format;
    FILE* fp;
    FILE* mirror_fp;
    size_t total_out;
    uint32_t llst;
    log_rota rota;
    long pid;
    n64_tag group;
    lard_handle* lh;
    log_syslog syslg;
    // Records are held in one buffer and written once per event-loop pass (log_sync), not one
    // write per record.
    unsigned batch : 1;
};

// Level context of a source module: {module number, section number}; section -1 means none.
struct log_llctx {
    int module;
    int section;
};

struct log_module {
    bool is_ready;
    char app_tag[128];
};

extern log_ctx* const g_log;
extern int g_mod_ll[LOG_MAX_MODULES];
extern int g_sec_ll[LOG_MAX_SECTIONS];
extern log_module g_logmod;
// Set by signal handlers around their own logging: syslog and rotation are skipped meanwhile.
extern volatile sig_atomic_t g_sigctx;

// Syslog sink, replaceable so that tests can observe what would reach syslog.
using log_syslog_fn = void (*)(int priority, const char* text);
void log_set_syslog_sink(log_syslog_fn fn);

const char* log_level_str(int level);
const char* get_level_tag(int level);
int log_syslog_priority(int level);
// Case-insensitive level names; 0 with `*level` set, or -1 leaving it unchanged.
int match_log_level(const char* text, int* level);

void glog_init(const char* app_tag);
void log_default(log_ctx* log, FILE* stream);
// 0 on success, -1 on failure (the logger then stays where it was).
int log_open_ex(log_ctx* log, const char* path, uint32_t flags);
int log_popen(log_ctx* log, const char* command);
void log_mirror(log_ctx* log, FILE* stream);
void log_set_pid(log_ctx* log, long pid);
long log_get_pid(const log_ctx* log);
void log_set_group(log_ctx* log, const char* group);
const char* log_get_group(const log_ctx* log);
FILE* log_fp(const log_ctx* log);
void log_timefmt(log_ctx* log, uint32_t flags);
void log_set_modules(log_ctx* log, int level);
void log_set_sections(log_ctx* log, int level);
void log_set_module_level(int module, int level);
void log_push_mlevels();
void log_pop_mlevels();
bool log_mlevels_pushed();

void config_syslog(log_ctx* log, const char* ident, int option, int facility);
void glog_enable_syslog(const char* ident);
void glog_disable_syslog();
void disable_syslog(log_ctx* log);

void log_set_lard(log_ctx* log, lard_handle* lh);
bool lard_enabled(const log_ctx* log);
void log_lard(log_ctx* log, int level);

// The record pipeline. A record is prepared into one static buffer and flushed before the next.
void logbuf_reset();
bool logbuf_empty();
const char* logbuf_text();
size_t logbuf_len();
// Returns the length of the message part, or -1 when a piece does not fit (nothing goes out).
[[gnu::format(printf, 3, 4)]] int logbuf_prepare(log_ctx* log, int level, const char* format, ...);
[[gnu::format(printf, 3, 0)]] int logbuf_vprepare(log_ctx* log, int level, const char* format,
                                                   va_list ap);
void log_flush(log_ctx* log, int level);
// Batched writes: with `on`, records of `log` are kept in memory until log_sync, until the buffer
// is full, or until the output changes, closes or the process aborts or exits; off writes what is
// held. One log at a time can batch.
void log_set_batching(log_ctx* log, bool on);
// Writes the records held for `log`; the event loop calls it before it waits.
void log_sync(const log_ctx* log);

// Whether a record at `level` from the module/section of `llc` goes to the outputs.
inline bool log_wants(const log_llctx* llc, int level)
{
    if (llc->section >= 0)
        return g_sec_ll[llc->section] <= g_mod_ll[llc->module];
    return g_mod_ll[llc->module] >= level;
}

// One record from a call site: reset, feed the shared-memory mirror, test the level, format once,
// flush. Use through the macros below.
[[gnu::format(printf, 3, 4)]] void log_emit(const log_llctx* llc, int level, const char* format,
                                            ...);

// Closes the file or pipe (never standard output or error), syslog, and drops the mirror stream
// after flushing it; later records go to standard error.
void log_close(log_ctx* log);
int read_level_env(const char* name, int dflt);
// The call stack as "#%d: %s\n" lines; 0, or -1 when it cannot be captured.
int btrace_to_buf(char* buf, size_t size);

// Rotation.
void log_set_rota(log_ctx* log, size_t max_total_bytes, long max_files, time_t t);
void log_set_eod(log_ctx* log, time_t t);
size_t log_rota_maxsize(const log_ctx* log);
long log_rota_maxfiles(const log_ctx* log);
time_t log_rota_eod(const log_ctx* log);
int log_rotate(log_ctx* log);
void handle_rotation(log_ctx* log, time_t t, const char* rotated_name);
int move_if_present(const char* path);

// Fatal paths: log the text, a backtrace as "ASSERT at:\n%s==\n" (or "Aborting at:\n%s==\n"),
// flush and abort.
[[noreturn]] void log_assert_fail(const char* expr, const char* file, int line, const char* func);
[[noreturn, gnu::format(printf, 1, 2)]] void log_abort(const char* format, ...);
// Logs a backtrace at panic level with the given header ("ASSERT" or "Aborting") and flushes.
void log_backtrace(const char* header);

// Each source file that logs declares its level context once.
#define LOG_MODULE(mod, sec) [[maybe_unused]] static const log_llctx g_llctx = {(mod), (sec)}

// zlog(level, format, ...): a record with a caller-written format. The level is tested before the
// arguments are evaluated, so a filtered record costs one table look-up.
#define zlog(level, ...)                                                                           \
    do {                                                                                           \
        const int zlog_lvl_ = (level);                                                             \
        if (log_wants(&g_llctx, zlog_lvl_) || lard_enabled(g_log))                                 \
            log_emit(&g_llctx, zlog_lvl_, __VA_ARGS__);                                            \
    } while (0)
// zlogf(level, "%s: ...", ...): the same with the calling function's name as the first argument.
#define zlogf(level, format, ...) zlog((level), format, __func__ __VA_OPT__(, ) __VA_ARGS__)

#define ZASSERT(expr)                                                                              \
    ((expr) ? static_cast<void>(0) : log_assert_fail(#expr, __FILE__, __LINE__, __func__))
