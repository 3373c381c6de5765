// The agent's entry: two passes over the command line around the configuration file, process
// set-up, the event loop and the orderly shut-down, plus the loop handlers that dispatch events to
// the agent's objects by their three-letter type tag.
#include "main.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <sys/socket.h>
#include <unistd.h>

#include "adm.h"
#include "app.h"
#include "cfg.h"
#include "check.h"
#include "data.h"
#include "fdio.h"
#include "ioh.h"
#include "lbquery.h"
#include "log.h"
#include "meta.h"
#include "rq.h"
#include "rqs.h"
#include "rui.h"
#include "spool.h"
#include "tmout.h"
#include "udl.h"
#include "util.h"
#include "wopen.h"

LOG_MODULE(LOG_MOD_APP, -1);

const char* const g_app_name = "vsk";

namespace {

constexpr size_t MAX_PATH_ARG = 128;
constexpr size_t CWD_BUF = 256;

// Debug levels pushed by SIGUSR2 and not yet popped.
bool s_dbg_pushed = false;

// -t/--check: load and check the configuration, then exit instead of starting.
bool s_check_only = false;

// Ends a failed command line or configuration with status 1; in check mode the verdict line
// follows whatever the failing step printed.
[[noreturn]] void config_failed()
{
    if (s_check_only)
        fprintf(stderr, "configuration check FAILED\n");
    exit(1);
}

constexpr const char* k_default_configs[] = {
    "./vsk.conf",      "/etc/vsk.conf",      "/usr/local/etc/vsk.conf",
    "./torbella.conf", "/etc/torbella.conf", "/usr/local/etc/torbella.conf",
};

// A leading ':' makes getopt report a missing argument as ':' rather than '?'. "-?" is left out
// of the table on purpose: glibc then reports it as an unknown option and sets optopt to '?' every
// time, which tells it apart from a real unknown option wherever it stands. A '?' listed in the
// table would come back with whatever optopt an earlier option had left behind.
constexpr const char* k_optstring = ":0hVqtTC:l:L:p:P:D:w:W:U:";

const struct option k_long_options[] = {
    {"default", no_argument, nullptr, '0'},  {"help", no_argument, nullptr, 'h'},
    {"options", no_argument, nullptr, 'h'},  {"version", no_argument, nullptr, 'V'},
    {"quiet", no_argument, nullptr, 'q'},    {"term", no_argument, nullptr, 'T'},
    {"check", no_argument, nullptr, 't'},    {"config", required_argument, nullptr, 'C'},
    {"logfile", required_argument, nullptr, 'l'}, {"level", required_argument, nullptr, 'L'},
    {"pidfile", required_argument, nullptr, 'p'}, {"cpu", required_argument, nullptr, 'P'},
    {"dataroot", required_argument, nullptr, 'D'}, {"webrq", required_argument, nullptr, 'w'},
    {"webrq6", required_argument, nullptr, 'W'},   {"udpcha", required_argument, nullptr, 'U'},
    {nullptr, 0, nullptr, 0},
};

const rqs_config k_rqs_cfg = {
    {
        upd_tmout,     // update_tmout
        do_idle_tasks, // on_idle
        on_read,       // read
        on_write,      // write
        on_error,      // error
        on_pp,         // post_process
        nullptr,       // on_file_modified
        nullptr,       // time_out
        nullptr,       // is_dormant
    },
    0, // quit_on_zero_fds
};

// -h, --help, --options, and "-?" (which getopt reports as the unknown option '?').
bool is_help_request(int c)
{
    return c == 'h' || (c == '?' && optopt == '?');
}

// The word of an unknown option for its message: the short letter, or the whole long word, which
// getopt leaves at argv[optind - 1] (optopt is 0 for a long one).
void report_unknown_option(int c, char** argv)
{
    if (optopt)
        fprintf(stderr, "Unknown option: %c\n", optopt);
    else if (optind > 0 && argv[optind - 1])
        fprintf(stderr, "Unknown option: %s\n", argv[optind - 1]);
    else
        fprintf(stderr, "Unknown option: %c\n", c);
}

// Copies a path argument into a fixed field, refusing one that would not fit.
bool copy_path_arg(char* dst, const char* arg, const char* what)
{
    const size_t len = strlen(arg);
    if (len >= MAX_PATH_ARG) {
        fprintf(stderr, "%s path is too long (%ld bytes), max=%ld bytes.\n", what,
                static_cast<long>(len), static_cast<long>(MAX_PATH_ARG));
        return false;
    }
    snprintf(dst, MAX_PATH_ARG, "%s", arg);
    return true;
}

// -P: 0 only from the text "0"; anything below -1 means no pinning.
bool parse_cpu_arg(const char* arg, int* cpunum)
{
    const long v = strtol(arg, nullptr, 10);
    if (v == 0 && strcmp(arg, "0") != 0) {
        fprintf(stderr, "Invalid CPU #: %s\n", arg);
        return false;
    }
    *cpunum = v < -1 ? -1 : static_cast<int>(v > INT_MAX ? INT_MAX : v);
    return true;
}

// One option of the second pass; false ends the process with status 1.
bool apply_option(int c, const char* arg, char** argv)
{
    vesk_cfg* cfg = g_cfg;
    switch (c) {
    case '0':
    case 'C':
    case 'V':
    case 'h':
    case 't':
        return true; // handled by the first pass
    case 'q':
        // Again here: the runtime section of the file has reset what the first pass set.
        cfg->rt.quiet = true;
        return true;
    case 'T':
        cfg->rt.non_daemon = true;
        return true;
    case 'l':
        return copy_path_arg(cfg->log.path, arg, "Log");
    case 'L':
        if (match_log_level(arg, &cfg->log.level) != 0) {
            fprintf(stderr, "Invalid log level: %s\n", arg);
            return false;
        }
        return true;
    case 'p':
        return copy_path_arg(cfg->rt.pidfile, arg, "Pidfile");
    case 'P':
        return parse_cpu_arg(arg, &cfg->rt.cpunum);
    case 'D':
        return copy_path_arg(cfg->data_dir, arg, "Data");
    case 'w':
        return add_web_cli(cfg, arg, AF_INET) == 0;
    case 'W':
        return add_web_cli(cfg, arg, AF_INET6) == 0;
    case 'U':
        snprintf(cfg->udp_cha.url, sizeof(cfg->udp_cha.url), "%s", arg);
        // The flag reads inverted on purpose: an order channel given on the command line is taken
        // as compressed unless it says "zipped=1". Operators' scripts rely on this.
        cfg->udp_cha.is_gzipped = strstr(arg, "zipped=1") == nullptr;
        return true;
    case ':':
        fprintf(stderr, "Missing argument for option: %c\n", optopt ? optopt : '?');
        return false;
    default:
        report_unknown_option(c, argv);
        return false;
    }
}

// The first candidate that exists and is not a directory. Skipping a directory departs from the
// plain "first that exists" on purpose: a directory can never be read as a configuration, and
// stopping at it would only turn a stray ./vsk.conf directory into a parse error that hides the
// installed file. The file actually read is logged at start ("Config read from") and printed by
// --check.
const char* pick_default_config()
{
    return pick_first_file(k_default_configs,
                           sizeof(k_default_configs) / sizeof(k_default_configs[0]));
}

} // namespace

const char* err_word(int err)
{
    if (err & RQS_SOCKHUP)
        return "HUP";
    return err ? "ERROR" : "data";
}

void usage(int status)
{
    fprintf(stderr, "%s\n", get_app_info(g_app_name, 0));
    fprintf(stderr, "Usage: %s PARAMETERS [OPTIONS]\n\n", g_app_name);
    fputs("Parameters:\n"
          "  -w|-W|--webrq[6] ifc:port  add an IPv4 (-w) or IPv6 (-W) web listener\n"
          "  -U|--udpcha url            listen for download orders on a UDP channel\n"
          "  -C|--config path           configuration file\n"
          "Options:\n"
          "  -0|--default               built-in defaults plus the configuration file\n"
          "  -D|--dataroot dir          data directory\n"
          "  -l|--logfile path          log file (|command for a pipe)\n"
          "  -L|--level level           log level: crit|err|norm|warn|info|debug [info]\n"
          "  -p|--pidfile path          pid file\n"
          "  -P|--cpu n                 run on CPUx only\n"
          "  -u|--runas user            run as user [root|current]\n"
          "  -T|--term                  stay in the foreground\n"
          "  -V|--version               print the version and exit\n"
          "  -q|--quiet                 do not mirror the log to the terminal\n"
          "  -t|--check                 check the configuration and exit (0 when OK)\n"
          "  -h|?                       print this text\n",
          stderr);
    dump_build_info(stderr);
    fprintf(stderr, "%s is a part of the torbella family of media-streaming servers.\n",
            g_app_name);
    exit(status);
}

int setup_config(int argc, char** argv)
{
    vesk_cfg* cfg = g_cfg;
    init_vesk_config(cfg);
    log_default(g_log, stderr);
    log_set_group(g_log, "VSK");

    const char* config_path = pick_default_config();
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, k_optstring, k_long_options, nullptr)) != -1) {
        if (is_help_request(c))
            usage(1);
        if (c == 'V') {
            fprintf(stderr, "%s\n", get_app_info(g_app_name, 0));
            exit(1);
        }
        if (c == 'C')
            config_path = optarg;
        else if (c == 'q')
            cfg->rt.quiet = true;
        else if (c == 't')
            s_check_only = true;
    }
    if (!config_path) {
        fprintf(stderr, "Invalid or unspecified config [%s], please use -C path\n", "");
        if (s_check_only)
            config_failed();
        usage(1);
    }
    if (s_check_only)
        fprintf(stderr, "checking configuration [%s]\n", config_path);
    if (load_vesk_config(config_path, cfg, 0) != 0)
        config_failed();

    reset_getopt_state();
    opterr = 0;
    log_timefmt(g_log, static_cast<uint32_t>(cfg->log.timefmt));
    if (geteuid() != 0)
        cfg->rt.non_daemon = true;

    while ((c = getopt_long(argc, argv, k_optstring, k_long_options, nullptr)) != -1) {
        if (!apply_option(c, optarg, argv))
            config_failed();
    }
    if (validate_config(cfg) != 0)
        config_failed();
    return 0;
}

int check_only()
{
    if (chk_config(g_cfg) != 0) {
        fprintf(stderr, "configuration check FAILED\n");
        return 1;
    }
    fprintf(stderr, "configuration OK\n");
    return 0;
}

// Lets the daemon's terminal go once the log is open. Descriptor 2 is taken by the null device
// rather than left free: the next socket or destination file would get it otherwise, and every
// stray write to standard error would land in that.
static void release_stderr()
{
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd < 0) {
        close(STDERR_FILENO);
        return;
    }
    dup2(null_fd, STDERR_FILENO);
    if (null_fd != STDERR_FILENO)
        close(null_fd);
}

// Opens the configured log output; on failure the logger stays on standard error.
static int open_log_output(const log_cfg* lc)
{
    const int rc =
        lc->path[0] == '|' ? log_popen(g_log, lc->path + 1) : log_open_ex(g_log, lc->path, 0);
    if (rc != 0) {
        log_default(g_log, stderr);
        return rc;
    }
    apply_log_config(g_log, lc);
    zlogf(L_DEBUG, "%s: log config applied\n");
    return 0;
}

static int runtime_setup_steps()
{
    vesk_cfg* cfg = g_cfg;
    usock_set_apptag(get_app_tag(g_app_name));
    int rc = handle_quit_signals(on_sigquit);
    if (rc == 0)
        rc = ignore_sigpipe();
    if (rc == 0)
        rc = ignore_sigxfsz();
    if (rc == 0)
        rc = handle_sig(SIGUSR2, on_tdbg);
    if (rc != 0)
        return rc;

    const bool daemon = !cfg->rt.non_daemon;
    char cwd[CWD_BUF];
    if (daemon) {
        if (!cfg->log.path[0]) {
            fprintf(stderr, "Logfile must be specified to run as daemon\n");
            return 1;
        }
        if (!getcwd(cwd, sizeof(cwd))) {
            const int err = errno;
            fprintf(stderr, "getcwd ERROR(%d) : %s\n", err, strerror(err));
            return -1;
        }
        rc = daemonize();
        if (rc != 0) {
            log_default(g_log, stderr);
            zlog(L_ERR, "Failed to make the process a daemon, quitting.\n");
            return rc;
        }
        if (cfg->rt.user[0] && (rc = run_as_user(cfg->rt.user)) != 0)
            return rc;
        if (geteuid() != 0 && (rc = goto_runtime_home(cwd, "/tmp")) != 0)
            return rc;
    }

    if (cfg->log.path[0] && (rc = open_log_output(&cfg->log)) != 0)
        return rc;

    if (daemon) {
        release_stderr();
        rc = create_pidfile_extra(cfg->rt.pidfile, getpid(), nullptr, 0);
        if (rc != 0)
            return rc;
        if (cfg->log.enable_syslog)
            glog_enable_syslog(g_app_name);
    }

    log_set_pid(g_log, getpid());
    if (cfg->rt.enforce_core_dumps)
        set_unlimited_core(nullptr);

    if (!getcwd(cwd, sizeof(cwd))) {
        const int err = errno;
        zlog(L_ERR, "getcwd ERROR(%d) : %s\n", err, strerror(err));
        return -1;
    }
    zlog(L_INFO, "Runtime pid=%ld uid/gid = %ld/%ld running in [%s]\n", static_cast<long>(getpid()),
         static_cast<long>(geteuid()), static_cast<long>(getegid()), cwd);
    if (cfg->rt.cpunum >= 0) {
        rc = pin2cpu(cfg->rt.cpunum);
        if (rc == 0)
            zlog(L_INFO, "%s(pid=%ld) processor affinity set to CPU%d\n", g_app_name,
                 static_cast<long>(getpid()), cfg->rt.cpunum);
        else
            zlog(L_ERR, "Failed to pin this %s(pid=%ld) to CPU%d\n", g_app_name,
                 static_cast<long>(getpid()), cfg->rt.cpunum);
    }
    return rc;
}

int runtime_setup()
{
    const int rc = runtime_setup_steps();
    if (rc != 0)
        zlog(L_ERR, "%s: FAILED (rc=%d)\n", "runtime_setup", rc);
    else
        zlog(L_DEBUG, "%s: OK\n", "runtime_setup");
    return rc;
}

int app_start()
{
    int rc = rqs_init(&k_rqs_cfg);
    // The registry's start-up connection has been checked; from here on it runs on the loop.
    if (rc == 0 && g_cfg->lbdb.port > 0)
        rc = lbdb_link_start();
    if (rc == 0 && (rc = rsv_init(g_cfg->resolve_tmout_ms)) == 0)
        g_ctx.rsv_on = true;
    if (rc == 0 && g_cfg->reserve_in_worker)
        start_reserve_worker();
    if (rc == 0)
        rc = rui_ctx_start(&g_ctx.rui);
    if (rc == 0 && g_cfg->udp_cha.url[0])
        rc = udl_ctx_start(&g_ctx.udl);
    return rc;
}

void app_shutdown()
{
    zlogf(L_DEBUG, "%s: begins\n");
    pprm_task_cleanup();
    destroy_vesk_ctx();
    stop_reserve_worker();
    rqs_destroy();
    zlog(L_NORM, "%s shut down\n", g_app_name);
    const char* pidfile = g_cfg->rt.pidfile;
    if (pidfile[0] && unlink(pidfile) != 0 && errno != ENOENT) {
        const int err = errno;
        zlogf(L_ERR, "%s: unlink(%s) ERROR(%d): %s\n", pidfile, err, strerror(err));
    }
}

// Restores the log group on every return from a read handler.
namespace {
struct group_guard {
    char saved[8];
    group_guard() { snprintf(saved, sizeof(saved), "%s", log_get_group(g_log)); }
    ~group_guard() { log_set_group(g_log, saved); }
    group_guard(const group_guard&) = delete;
    group_guard& operator=(const group_guard&) = delete;
};
} // namespace

// A read event that carries an error or hang-up is screened: a hang-up whose socket still holds
// data is read normally (the peer may have sent its last bytes and closed), anything else is a
// failure of the object. Returns true when the event may be handled as a read.
static bool screen_read_event(int sockfd, int err)
{
    if (err == RQS_SOCKHUP) {
        if (wait_to_read(sockfd, 10) == 0)
            return true;
        zlogf(L_DEBUG, "%s: no data pending for fd%d\n", sockfd);
        return false;
    }
    return err == 0;
}

int on_read(int fd, int err, void* udata, void* aux)
{
    group_guard gg;
    n32_tag* tag = static_cast<n32_tag*>(udata);
    zlogf(L_DEBUG, "%s: %s [%s] (%p) err=%d\n", err_word(err), tag->sym4, udata, err);
    switch (tag->num) {
    case DW_URQ: {
        dw_urq* urq = static_cast<dw_urq*>(udata);
        if (screen_read_event(urq->sockfd, err))
            return urq_read(urq);
        zlogf(L_ERR, "%s: URQ [%s] (%p) err=%d\n", urq->trk_tag.sym8, udata, err);
        pprm_urq(urq);
        return 0;
    }
    case DOW_TAG: {
        dw_task* dw = static_cast<dw_task*>(udata);
        log_set_group(g_log, dw->trk_tag.sym8);
        if (screen_read_event(dw->sfd, err))
            return dw_read(dw);
        // A source that closed an idle pooled connection just as the request went out resets it:
        // the download starts over on a new connection instead of failing.
        if (retry_reused_source(dw))
            return 0;
        zlogf(L_ERR, "%s: task [%s] (%p) err=%d\n", dw->trk_tag.sym8, udata, err);
        // Before the GET went out the source was never reached; after it, it went away.
        const bool sent =
            dw->state.num == dw_state("rsp").num || dw->state.num == dw_state("dnl").num;
        dw_set_end(dw, sent ? MTR_END_SOURCE_CLOSED : MTR_END_SOURCE_UNREACHABLE);
        pprm_task(dw);
        return 0;
    }
    case SPL_TAG:
        spl_on_event(static_cast<spl_entry*>(udata));
        return 0;
    case ADM_TAG: {
        adm_rq* rq = static_cast<adm_rq*>(udata);
        if (screen_read_event(rq->sockfd, err))
            return adm_read(rq);
        adm_error(rq, (err & RQS_SOCKHUP) != 0);
        return 0;
    }
    case RSC_TAG:
        return on_srv_accept(fd, err, static_cast<rui_socket_ctx*>(udata), aux);
    case IOH_TAG:
        return ioh_dispatch(udata, RQS_READ, err);
    case UDL_TAG:
        log_set_group(g_log, "uDl");
        return udl_accept(static_cast<udl_ctx*>(udata));
    default:
        break;
    }
    if (tag->sym4[0] == '#') {
        zlogf(L_WARN, "%s: got expired [%3s] (0x%04x) on (%p), dismissing\n", tag->sym4, tag->num,
              udata);
        return 0;
    }
    zlogf(L_ERR, "%s: unknown data type: [%3s] (0x%04x) on (%p), data corruption detected\n",
          tag->sym4, tag->num, udata);
    log_assert_fail("unknown object tag in a read event", __FILE__, __LINE__, __func__);
}

int on_write(int fd, int err, void* udata, void* aux)
{
    (void)fd;
    n32_tag* tag = static_cast<n32_tag*>(udata);
    zlogf(L_DEBUG, "%s: %s [%s] (%p) err=%d\n", err_word(err), tag->sym4, udata, err);
    if (tag->num == DOW_TAG)
        return dw_write(static_cast<dw_task*>(udata));
    if (tag->num == IOH_TAG)
        return ioh_dispatch(udata, RQS_WRITE, err);
    if (tag->num == ADM_TAG)
        return adm_write(static_cast<adm_rq*>(udata));
    zlogf(L_PANIC, "%s: tag=[%s] err=%d, udata=%p, aux=%p - why are we here?\n", tag->sym4, err,
          udata, aux);
    log_backtrace("Aborting");
    abort();
}

int on_error(int fd, int err, void* udata, void* aux)
{
    (void)fd;
    (void)aux;
    n32_tag* tag = static_cast<n32_tag*>(udata);
    const bool is_hup = (err & RQS_SOCKHUP) != 0;
    zlogf(L_INFO, "%s: %s (%p), err=0x%04x %s\n", tag->sym4, udata, err, is_hup ? "HUP" : "-");
    if (tag->num == DW_URQ)
        urq_error(static_cast<dw_urq*>(udata), is_hup);
    else if (tag->num == ADM_TAG)
        adm_error(static_cast<adm_rq*>(udata), is_hup);
    else if (tag->num == RSC_TAG)
        rui_crash_on_error(static_cast<rui_socket_ctx*>(udata), is_hup);
    else if (tag->num == IOH_TAG)
        return ioh_dispatch(udata, 0, err);
    else if (tag->num == SPL_TAG)
        spl_on_event(static_cast<spl_entry*>(udata));
    else if (tag->num == DOW_TAG)
        on_parked_source_error(static_cast<dw_task*>(udata));
    return 0;
}

// A listener that keeps connections and holds its limit while clients wait to connect closes
// idle kept connections (up to one accept pass of them) rather than answer the newcomers 503:
// a kept client that comes back simply connects again. True when it did.
static bool make_room(rui_socket_ctx* listener)
{
    if (!listener->lc || !listener->lc->keep_alive || rui_queue_room(listener) > 0)
        return false;
    const size_t n = urq_evict_idle(listener, g_cfg->rui.max_accept);
    if (n > 0)
        zlogf(L_INFO, "%s: [%s] holds %zu requests: closing %zu idle kept-alive connections\n",
              listener->lc->alias, dlep_count(listener->requests), n);
    return n > 0;
}

int on_srv_accept(int fd, int err, rui_socket_ctx* listener, void* aux)
{
    (void)fd;
    (void)aux;
    const char* alias = listener->lc ? listener->lc->alias : "?";
    if (err) {
        zlogf(L_ERR, "%s: [%s] ERR/HUP\n", alias);
    } else if (make_room(listener)) {
        // The waiting clients are accepted in the next pass, once the idle connections are gone.
    } else if (rui_accept(listener, g_cfg->rui.max_accept, 0, nullptr) != 0) {
        zlogf(L_ERR, "%s: error accepting requests on [%s]\n", alias);
    }
    if (g_quit) {
        zlogf(L_NORM, "%s: quitting with the app\n");
        return 1;
    }
    return 0;
}

int on_pp()
{
    pprm_requests();
    pprm_task_cleanup();
    spl_post_process();
    return 0;
}

int do_idle_tasks()
{
    time_out_requests();
    rui_resume_listeners(&g_ctx.rui);
    if (g_cfg->end_stalled_tasks)
        (void)time_out_tasks();
    spl_expire();
    if (g_tdbg) {
        if (!s_dbg_pushed) {
            log_push_mlevels();
            log_set_modules(g_log, L_DEBUG);
        } else {
            log_pop_mlevels();
        }
        s_dbg_pushed = !s_dbg_pushed;
        zlog(L_INFO, "Log level %s (DEBUG)\n", s_dbg_pushed ? "PUSH" : "POP");
        if (s_dbg_pushed)
            zlogf(L_DEBUG, "%s: now all DEBUG messages will be recorded\n");
        g_tdbg = 0;
    }
    return 0;
}

void upd_tmout(struct timespec* ts)
{
    const long ms = get_min_timeout();
    if (ms < 1) {
        ts->tv_sec = ms < 0 ? -1 : 0;
        ts->tv_nsec = 0;
        return;
    }
    ts->tv_sec = ms / 1000;
    ts->tv_nsec = (ms % 1000) * 1000000L;
}

int vsk_main(int argc, char** argv)
{
    const char* sysw_debug = getenv("SYSW_DEBUG");
    if (argc < 2)
        usage(1);

    glog_init(g_app_name);
    init_timeout_registry();
    log_default(g_log, stderr);
    log_set_module_level(LOG_MOD_APP, L_DEBUG);

    setup_config(argc, argv);
    vesk_cfg* cfg = g_cfg;
    log_set_modules(g_log, cfg->log.level);
    if (sysw_debug && strcmp(sysw_debug, "1") == 0)
        log_set_module_level(LOG_MOD_SYSWRAP, L_DEBUG);
    if (s_check_only) {
        const int rc = check_only();
        log_close(g_log);
        return rc;
    }

    int status = runtime_setup();
    if (status == 0) {
        dump_vesk_config(log_fp(g_log), cfg);
        if (!cfg->rt.quiet && cfg->rt.non_daemon && cfg->log.path[0]) {
            log_mirror(g_log, stderr);
            dump_vesk_config(stderr, cfg);
        }
        status = init_vesk_ctx();
        if (status == 0)
            status = app_start();
    }
    if (status == 0) {
        zlog(L_NORM, "%s STARTING. PID=%ld\n", get_app_info(g_app_name, 0),
             static_cast<long>(getpid()));
        zlog(L_INFO, "Config read from [%s]\n", cfg->config_path);
        const int rc = rqs_event_loop();
        if (g_quit)
            zlog(L_NORM, "%s has been asked to quit.\n", g_app_name);
        else
            status = rc;
    }
    app_shutdown();
    status = std::abs(status);
    zlog(L_NORM, "%s EXIT(%d). PID=%ld\n", get_app_info(g_app_name, 0), status,
         static_cast<long>(getpid()));
    log_close(g_log);
    return status;
}
