// A private redis-server on a free loopback port for the tests that need the real peer, killed when
// the object goes (also when a test fails), with a blocking admin connection to set the scene.
#pragma once
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <hiredis/hiredis.h>

namespace vsk_test {

inline int free_loopback_port()
{
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&sa), len) == 0 &&
                    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0;
    close(fd);
    return ok ? ntohs(sa.sin_port) : -1;
}

inline bool have_redis_server()
{
    return std::system("command -v redis-server >/dev/null") == 0;
}

class redis_server {
public:
    pid_t pid = -1;
    int port = 0;
    redisContext* admin = nullptr;

    redis_server() = default;
    redis_server(const redis_server&) = delete;
    redis_server& operator=(const redis_server&) = delete;
    ~redis_server()
    {
        redisFree(admin);
        kill_now();
    }

    // Starts the server with its files in `dir`; true once it answers (it gets up to 10 s).
    bool start(const std::string& dir)
    {
        if ((port = free_loopback_port()) <= 0)
            return false;
        const std::string p = std::to_string(port), redis_log = dir + "/redis.log";
        if ((pid = fork()) == 0) {
            (void)!freopen(redis_log.c_str(), "w", stdout);
            execlp("redis-server", "redis-server", "--bind", "127.0.0.1", "--port", p.c_str(),
                   "--save", "", "--appendonly", "no", "--dir", dir.c_str(), nullptr);
            _exit(127);
        }
        for (int i = 0; i < 1000 && (!admin || admin->err); ++i) {
            redisFree(admin);
            admin = redisConnect("127.0.0.1", port);
            usleep(10000);
        }
        return admin && !admin->err;
    }

    void kill_now()
    {
        if (pid > 0 && kill(pid, SIGKILL) == 0)
            waitpid(pid, nullptr, 0);
        pid = -1;
    }
};

} // namespace vsk_test
