// Helpers shared by the unit tests: capturing what the application log wrote, a scratch
// directory that cleans up after itself, counting the process's open descriptors, and loop
// callbacks for ioh records.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "ioh.h"
#include "log.h"
#include "rqs.h"
#include "timeop.h"

namespace vsk_test {

inline bool contains(const std::string& hay, const std::string& needle)
{
    return hay.find(needle) != std::string::npos;
}

// The whole content of a file ("" when it cannot be read).
inline std::string slurp(const std::filesystem::path& path)
{
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

// Points the application log at a temporary file: no time stamps, no pid, no group, every module
// at debug level, so that a test can look for exact lines. Restores standard error on exit.
class log_capture {
public:
    log_capture()
    {
        glog_init("vsk");
        fp_ = tmpfile();
        EXPECT_NE(fp_, nullptr);
        log_default(g_log, fp_);
        log_timefmt(g_log, f_NO_TIME);
        log_set_pid(g_log, 0);
        log_set_group(g_log, "");
        log_set_modules(g_log, L_DEBUG);
    }
    ~log_capture()
    {
        log_default(g_log, stderr);
        if (fp_)
            fclose(fp_);
    }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    // Everything logged since the last call.
    std::string take()
    {
        std::string out;
        if (!fp_)
            return out;
        fflush(fp_);
        rewind(fp_);
        char buf[1024];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), fp_)) > 0)
            out.append(buf, n);
        EXPECT_EQ(ftruncate(fileno(fp_), 0), 0);
        rewind(fp_);
        return out;
    }

private:
    FILE* fp_ = nullptr;
};

// A fresh directory under /tmp, removed with everything in it at the end of the scope.
class temp_dir {
public:
    explicit temp_dir(const char* prefix = "vsk-test")
    {
        std::string tmpl = std::string("/tmp/") + prefix + "-XXXXXX";
        if (mkdtemp(tmpl.data()))
            path_ = tmpl;
        EXPECT_FALSE(path_.empty());
    }
    ~temp_dir()
    {
        std::error_code ec;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ec);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

inline size_t open_fd_count()
{
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d))
            ++n;
        closedir(d);
    }
    return n;
}

// Loop callbacks for tests whose descriptors all belong to ioh records: every event goes to its
// record's handler; `idle` (optional) is the loop's idle callback.
inline rqs_callbacks ioh_callbacks(int (*idle)(void) = nullptr)
{
    return {
        nullptr,
        idle,
        [](int, int err, void* u, void*) { return ioh_dispatch(u, RQS_READ, err); },
        [](int, int err, void* u, void*) { return ioh_dispatch(u, RQS_WRITE, err); },
        [](int, int err, void* u, void*) { return ioh_dispatch(u, 0, err); },
        nullptr,
        nullptr,
        nullptr,
        nullptr,
    };
}

} // namespace vsk_test
