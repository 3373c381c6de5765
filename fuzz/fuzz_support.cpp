// Shared set-up of the fuzz targets (see fuzz_support.h).
#include "fuzz_support.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include "cfg.h"
#include "log.h"

namespace fuzz {

namespace {

std::string g_data_dir;

void remove_data_dir()
{
    std::error_code ec;
    if (!g_data_dir.empty())
        std::filesystem::remove_all(g_data_dir, ec);
}

} // namespace

void init_once()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    glog_init("vsk");
    // Every log call still formats its arguments: the hostile texts go through the log code too.
    // VSK_FUZZ_LOG=1 shows the lines, to follow what one input does.
    const char* show = std::getenv("VSK_FUZZ_LOG");
    FILE* sink = (show && show[0] == '1') ? stderr : std::fopen("/dev/null", "w");
    if (!sink)
        std::abort();
    log_default(g_log, sink);
    log_set_modules(g_log, L_DEBUG);
    (void)init_vesk_config(g_cfg);
    char tmpl[] = "/tmp/vsk-fuzz-XXXXXX";
    if (!mkdtemp(tmpl))
        std::abort();
    g_data_dir = tmpl;
    std::snprintf(g_cfg->data_dir, sizeof g_cfg->data_dir, "%s", tmpl);
    std::atexit(remove_data_dir);
}

void socket_with(const uint8_t* data, size_t size, int sv[2])
{
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv) != 0)
        std::abort();
    if (size && write(sv[1], data, size) != static_cast<ssize_t>(size))
        std::abort();
    shutdown(sv[1], SHUT_WR);
}

void sweep_data_dir()
{
    static unsigned calls = 0;
    if (++calls % 4096 != 0)
        return;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(g_data_dir, ec))
        std::filesystem::remove_all(e.path(), ec);
}

} // namespace fuzz
