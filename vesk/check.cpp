// The configuration check (-t/--check): every start-up check that neither binds a socket nor
// writes a file, each run to its end so that one pass shows all that is wrong.
#include "check.h"

#include <cerrno>
#include <cstdarg>
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <pwd.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lbquery.h"
#include "log.h"
#include "netops.h"
#include "rui.h"
#include "util.h"

LOG_MODULE(0, -1);

namespace {

[[gnu::format(printf, 1, 2)]] void problem(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void note(const char* format, ...);

int g_problems = 0;

void problem(const char* format, ...)
{
    g_problems = g_problems + 1;
    fputs("check: ", stderr);
    va_list ap;
    va_start(ap, format);
    vfprintf(stderr, format, ap);
    va_end(ap);
}

void note(const char* format, ...)
{
    fputs("check: note: ", stderr);
    va_list ap;
    va_start(ap, format);
    vfprintf(stderr, format, ap);
    va_end(ap);
}

// The directory part of `path` ("." when it has none).
std::string dir_of(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    if (!slash)
        return ".";
    if (slash == path)
        return "/";
    return std::string(path, static_cast<size_t>(slash - path));
}

// A file the agent will create or append to: it must be writable if it exists, else its directory
// must let us create it. Nothing is created here.
void check_writable_file(const char* what, const char* path)
{
    if (access(path, F_OK) == 0) {
        if (access(path, W_OK) != 0) {
            const int err = errno;
            problem("%s [%s] is not writable: %s\n", what, path, strerror(err));
        }
        return;
    }
    const std::string dir = dir_of(path);
    if (access(dir.c_str(), W_OK | X_OK) != 0) {
        const int err = errno;
        problem("%s [%s] cannot be created in [%s]: %s\n", what, path, dir.c_str(),
                strerror(err));
    }
}

// Two listeners on one endpoint: the second bind would fail with "address in use".
bool same_endpoint(const rui_listener_cfg* a, const rui_listener_cfg* b)
{
    if (a->domain_path[0] || b->domain_path[0])
        return std::strcmp(a->domain_path, b->domain_path) == 0;
    if (a->proto != b->proto || std::strcmp(a->port, b->port) != 0)
        return false;
    // A wildcard listener of any family covers every address of the port.
    if (!a->ifc || !b->ifc)
        return a->pref_af == b->pref_af || a->pref_af == 0 || b->pref_af == 0;
    return std::strcmp(a->ifc->name, b->ifc->name) == 0 && a->pref_af == b->pref_af;
}

void check_listeners(const rui_cfg* rc)
{
    const rui_listener_cfg* lists[RUI_MAX] = {rc->user, rc->admin, rc->custom};
    // The listener manager starts the slots of a type up to the first empty one.
    const rui_listener_cfg* started[static_cast<size_t>(RUI_MAX) * RUI_LISTENER_SLOTS] = {};
    size_t nstarted = 0;
    for (int type = 0; type < RUI_MAX; ++type) {
        bool gap = false;
        for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i) {
            const rui_listener_cfg* l = &lists[type][i];
            if (!l->is_valid) {
                gap = true;
                continue;
            }
            if (gap) {
                note("%s listener [%s] sits behind an empty slot and will not be started\n",
                     rui_type_name(type), l->alias);
                continue;
            }
            if (!l->domain_path[0] && l->pref_af == -1) {
                problem("%s listener [%s]: unknown address family, it cannot be opened\n",
                        rui_type_name(type), l->alias);
                continue;
            }
            if (l->domain_path[0])
                check_writable_file("local-domain listener socket", l->domain_path);
            for (size_t j = 0; j < nstarted; ++j) {
                if (same_endpoint(started[j], l)) {
                    problem("%s listener [%s] uses the endpoint of listener [%s]\n",
                            rui_type_name(type), l->alias, started[j]->alias);
                    break;
                }
            }
            started[nstarted++] = l;
        }
    }
}

void check_runtime(const vesk_cfg* cfg)
{
    const bool daemon = !cfg->rt.non_daemon;
    if (cfg->log.path[0] && cfg->log.path[0] != '|')
        check_writable_file("log file", cfg->log.path);
    if (daemon) {
        if (!cfg->log.path[0])
            problem("a daemon needs a log file (vesk.log.file or -l)\n");
        if (!cfg->rt.pidfile[0])
            problem("a daemon needs a pid file (vesk.runtime.pidfile or -p)\n");
        else
            check_writable_file("pid file", cfg->rt.pidfile);
        // The account is only switched to in daemon mode.
        if (cfg->rt.user[0] && !getpwnam(cfg->rt.user))
            problem("user [%s] (vesk.runtime.user) does not exist\n", cfg->rt.user);
    }
    if (cfg->rt.cpunum >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        if (sched_getaffinity(0, sizeof(set), &set) == 0 &&
            (cfg->rt.cpunum >= CPU_SETSIZE || !CPU_ISSET(cfg->rt.cpunum, &set)))
            problem("CPU %d is not available to this process\n", cfg->rt.cpunum);
    }
}

void check_udp_channel(const udp_lstn_cfg* udp)
{
    if (!udp->url[0] || !udp->must_lock || udp->lock_backend == LOCK_BACKEND_REDIS)
        return;
    if (dir_check(udp->lkdir, true) != 0)
        problem("lock directory [%s] (vesk.udp_input.lock_dir) cannot hold lock files\n",
                udp->lkdir);
}

// The digest files, then, when the database answers within its time-out, that its scripts are
// loaded. Only the calls a start makes, and the module is left idle again.
void check_database(const lbdb_cfg* db)
{
    if (db->port <= 0)
        return;
    if (lbdb_init(db->sha1_path, LBQ_FL_ADD, 0) != 0) {
        problem("digest files in [%s] (vesk.lbdb.sha1_dir) cannot be read\n", db->sha1_path);
        return;
    }
    // An empty digest file passes the reader but would stop the connection with an assertion.
    if (!lbdb_get_ctx()->add_sha1[0]) {
        problem("digest file [%s/add_url.sha1] is empty\n", db->sha1_path);
        lbdb_destroy();
        return;
    }
    // The connection is bounded by the connect time-out and each "script exists" by the command
    // time-out, so a paused database cannot hold the check.
    lbdb_set_link_opts(db);
    const long ms = db->tmout.tv_sec * 1000L + db->tmout.tv_usec / 1000L;
    const int rc = lbdb_connect(db->host, db->port, db->tmout);
    if (rc == -1)
        note("database %s:%d not reached within %ld ms, or it refused the check (see above); "
             "its scripts were not checked\n",
             db->host, db->port, ms + lbdb_cmd_tmout_ms(db));
    else if (rc != 0)
        problem("database %s:%d: the registry scripts are not loaded (rc=%d)\n", db->host,
                db->port, rc);
    lbdb_destroy();
}

} // namespace

int chk_config(const vesk_cfg* cfg)
{
    g_problems = 0;
    check_listeners(&cfg->rui);
    // The data directory was checked when the file was read; a -D on the command line was not.
    if (dir_check(cfg->data_dir, true) != 0)
        problem("data directory [%s] cannot hold downloads\n", cfg->data_dir);
    check_udp_channel(&cfg->udp_cha);
    check_runtime(cfg);
    check_database(&cfg->lbdb);
    return g_problems;
}
