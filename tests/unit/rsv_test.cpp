// Tests of host-name look-ups on a real loop: the hosts file answers without a name server, the
// answer never comes from inside the call, a withdrawn waiter is never called, and numeric
// addresses are recognised.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <unistd.h>
#include <vector>

#include "ioh.h"
#include "rqs.h"
#include "test_support.h"
#include "util.h"
#include "rsv.h"

namespace {

std::vector<std::string> g_done;
bool g_in_lookup = false;

// Ends the loop once no name is being looked up any more.
const rqs_callbacks k_cb = vsk_test::ioh_callbacks([] { return rsv_lookups_active() == 0 ? 9 : 0; });

// Records "<arg> <status> <first address>", and checks that the addresses are few and distinct.
void done(void* arg, int status, const char* const* addrs, size_t n)
{
    EXPECT_FALSE(g_in_lookup) << "called from inside rsv_lookup";
    EXPECT_EQ(status == 0, n >= 1 && n <= RSV_MAX_ADDRS) << n;
    for (size_t i = 0; i < n; ++i)
        for (size_t j = i + 1; j < n; ++j)
            EXPECT_STRNE(addrs[i], addrs[j]);
    g_done.push_back(std::string(static_cast<const char*>(arg)) + " " + std::to_string(status) +
                     " " + (n ? addrs[0] : "-"));
}

TEST(Rsv, NumericAddresses)
{
    for (const char* h : {"127.0.0.1", "::1", "fe80::1", "10.1.2.3"})
        EXPECT_TRUE(rsv_is_numeric(h)) << h;
    for (const char* h : {"localhost", "1.2.3", "127.0.0.1:80", "[::1]", ""})
        EXPECT_FALSE(rsv_is_numeric(h)) << h;
}

TEST(Rsv, HostsFileAnswersOnTheLoopAndCancelledWaitersAreNotCalled)
{
    alarm(20);
    g_quit = 0;
    const rqs_config cfg{k_cb, 0};
    ASSERT_EQ(0, rqs_init(&cfg));
    ASSERT_EQ(nullptr, rsv_lookup("localhost", done, nullptr)) << "not running yet";
    ASSERT_EQ(0, rsv_init(2000));
    char a[] = "a", b[] = "b", c[] = "c";
    g_in_lookup = true;
    ASSERT_NE(nullptr, rsv_lookup("localhost", done, a));
    rsv_wait* wb = rsv_lookup("localhost", done, b);
    ASSERT_NE(nullptr, rsv_lookup("localhost", done, c));
    g_in_lookup = false;
    ASSERT_NE(nullptr, wb);
    rsv_cancel(wb);
    EXPECT_EQ(9, rqs_event_loop());
    EXPECT_EQ((std::vector<std::string>{"a 0 127.0.0.1", "c 0 127.0.0.1"}), g_done);
    EXPECT_EQ(nullptr, rsv_lookup(std::string(300, 'x').c_str(), done, a)) << "too long";
    rsv_destroy();
    EXPECT_EQ(0u, rqs_fd_count(1)) << "the resolver's timer and sockets are gone";
    rqs_destroy();
    alarm(0);
}

} // namespace
