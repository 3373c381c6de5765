// Cost of one access-list look-up, as the accept path and the source check pay it: full lists
// (64 prefixes, 32 host patterns), addresses that hit and miss, no allocation per look-up.
// Prints nanoseconds per look-up; not a test, built with the release tree by `make bench-acl`.
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <netinet/in.h>

#include "acl.h"

namespace {

template <typename F>
double ns_per_call(long n, F&& f)
{
    const auto t0 = std::chrono::steady_clock::now();
    long hits = 0;
    for (long i = 0; i < n; ++i)
        hits += f(i) ? 1 : 0;
    const auto t1 = std::chrono::steady_clock::now();
    // The count is printed so that the compiler cannot drop the calls.
    std::printf("  (%ld hits)", hits);
    return std::chrono::duration<double, std::nano>(t1 - t0).count() / static_cast<double>(n);
}

} // namespace

int main()
{
    static acl_list list{};
    const char* why = "";
    char text[64];
    for (int i = 0; i < 48; ++i) {
        std::snprintf(text, sizeof text, "10.%d.0.0/16", i * 3);
        (void)acl_add(&list, text, true, &why);
    }
    for (int i = 0; i < 16; ++i) {
        std::snprintf(text, sizeof text, "2001:db8:%x::/48", i);
        (void)acl_add(&list, text, true, &why);
    }
    for (int i = 0; i < 32; ++i) {
        std::snprintf(text, sizeof text, "*.origin%d.example.com", i);
        (void)acl_add(&list, text, true, &why);
    }
    acl_finish(&list);

    constexpr long N = 10000000;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sockaddr_in6 sa6{};
    sa6.sin6_family = AF_INET6;
    (void)inet_pton(AF_INET6, "2001:db8:7::1", &sa6.sin6_addr);

    std::printf("IPv4 address, hits and misses:");
    const double v4 = ns_per_call(N, [&](long i) {
        sa.sin_addr.s_addr = htonl(0x0a000001u + (static_cast<uint32_t>(i % 256) << 16));
        return acl_match_addr(&list, reinterpret_cast<const sockaddr*>(&sa));
    });
    std::printf(" %.1f ns\n", v4);

    std::printf("IPv6 address, hit:");
    const double v6 = ns_per_call(N, [&](long) {
        return acl_match_addr(&list, reinterpret_cast<const sockaddr*>(&sa6));
    });
    std::printf(" %.1f ns\n", v6);

    std::printf("host name, last pattern:");
    const double host = ns_per_call(N / 10, [&](long) {
        return acl_match_host(&list, "cdn.origin31.example.com");
    });
    std::printf(" %.1f ns\n", host);
    return 0;
}
