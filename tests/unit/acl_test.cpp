// Access lists: prefix parsing and its refusals, address matching across IPv4, IPv6 and mapped
// IPv4 at the length edges, overlapping entries, and the host-name patterns.
#include <arpa/inet.h>
#include <cstring>
#include <initializer_list>
#include <netinet/in.h>
#include <string>

#include "acl.h"
#include "test_support.h"

namespace {

acl_list make_list(std::initializer_list<const char*> entries, bool hosts_too = true)
{
    acl_list l{};
    for (const char* e : entries) {
        const char* why = "";
        EXPECT_EQ(acl_add(&l, e, hosts_too, &why), 0) << e << ": " << why;
    }
    acl_finish(&l);
    return l;
}

bool match_text(const acl_list& l, const char* addr)
{
    sockaddr_storage ss{};
    if (std::strchr(addr, ':')) {
        auto* s6 = reinterpret_cast<sockaddr_in6*>(&ss);
        s6->sin6_family = AF_INET6;
        EXPECT_EQ(inet_pton(AF_INET6, addr, &s6->sin6_addr), 1) << addr;
    } else {
        auto* s4 = reinterpret_cast<sockaddr_in*>(&ss);
        s4->sin_family = AF_INET;
        EXPECT_EQ(inet_pton(AF_INET, addr, &s4->sin_addr), 1) << addr;
    }
    return acl_match_addr(&l, reinterpret_cast<const sockaddr*>(&ss));
}

} // namespace

TEST(Acl, PrefixParseTable)
{
    // The prefix as printed back, or the start of the reason for the refusal.
    const std::pair<const char*, const char*> rows[] = {
        {"10.0.0.0/8", "10.0.0.0/8"},
        {"127.0.0.1", "127.0.0.1/32"},
        {"0.0.0.0/0", "0.0.0.0/0"},
        {"::1", "::1/128"},
        {"fe80::/10", "fe80::/10"},
        {"::/0", "::/0"},
        {"::ffff:10.0.0.0/104", "10.0.0.0/8"}, // the mapped form is the IPv4 prefix
        {"10.1.0.0/8", "address has bits set"},
        {"10.0.0.0/33", "prefix length above 32"},
        {"::/129", "prefix length above 128"},
        {"10.0.0.0/", "prefix length missing"},
        {"10.0.0.0/8x", "prefix length missing"},
        {"10.0.0.0/-1", "prefix length missing"},
        {"/8", "not an IPv4"},
        {"10.0.0/8", "not an IPv4"},
        {"example.com", "not an IPv4"},
        {"", "not an IPv4"},
    };
    for (const auto& [text, want] : rows) {
        acl_prefix p{};
        const char* why = "";
        char buf[64];
        const std::string got =
            acl_parse_prefix(text, &p, &why) == 0 ? acl_prefix_str(&p, buf, sizeof buf) : why;
        EXPECT_EQ(got.substr(0, std::strlen(want)), want) << "[" << text << "] gave " << got;
    }
}

TEST(Acl, AddressMatchTable)
{
    struct Row {
        std::initializer_list<const char*> list;
        const char* addr;
        bool want;
    };
    const Row rows[] = {
        {{"10.0.0.0/8"}, "10.255.255.255", true},
        {{"10.0.0.0/8"}, "11.0.0.0", false},
        {{"10.0.0.0/8"}, "9.255.255.255", false},
        {{"10.0.0.0/8"}, "::ffff:10.1.2.3", true}, // an IPv4 peer on a dual-stack socket
        {{"10.0.0.0/8"}, "::a01:203", false},      // IPv4-compatible is not mapped
        {{"192.168.1.7/32"}, "192.168.1.7", true},
        {{"192.168.1.7/32"}, "192.168.1.6", false},
        {{"0.0.0.0/0"}, "203.0.113.9", true},
        {{"0.0.0.0/0"}, "2001:db8::1", false}, // an IPv4 /0 is all of IPv4, not all of IPv6
        {{"::/0"}, "2001:db8::1", true},
        {{"::/0"}, "1.2.3.4", true}, // all of IPv6 holds the mapped IPv4 range
        {{"::1/128"}, "::1", true},
        {{"::1/128"}, "::2", false},
        {{"::1/128"}, "127.0.0.1", false},
        {{"fe80::/10"}, "febf:ffff::1", true},
        {{"fe80::/10"}, "fec0::1", false},
        {{"169.254.0.0/16"}, "169.254.169.254", true},
        // Overlaps: the wider entry wins whatever the order, and disjoint ones all count.
        {{"10.1.0.0/16", "10.0.0.0/8"}, "10.200.0.1", true},
        {{"10.0.0.0/8", "10.1.0.0/16"}, "10.1.2.3", true},
        {{"10.1.0.0/16", "10.3.0.0/16", "10.2.0.0/16"}, "10.2.9.9", true},
        {{"10.1.0.0/16", "10.3.0.0/16"}, "10.2.9.9", false},
        {{"10.1.0.0/16", "10.3.0.0/16"}, "10.3.0.0", true},
        {{"127.0.0.0/8", "::1/128", "10.0.0.0/8"}, "::1", true},
        {{}, "10.0.0.1", false},
    };
    for (const Row& r : rows) {
        const acl_list l = make_list(r.list, false);
        std::string desc;
        for (const char* e : r.list)
            desc += std::string(e) + " ";
        EXPECT_EQ(match_text(l, r.addr), r.want) << r.addr << " in [ " << desc << "]";
    }
}

TEST(Acl, CoveredPrefixesAreFolded)
{
    const acl_list l = make_list({"10.1.0.0/16", "10.0.0.0/8", "10.0.0.0/8", "10.2.3.0/24"}, false);
    ASSERT_EQ(l.npfx, 1u);
    char buf[64];
    EXPECT_STREQ(acl_prefix_str(&l.pfx[0], buf, sizeof buf), "10.0.0.0/8");
}

TEST(Acl, OtherFamiliesNeverMatch)
{
    const acl_list l = make_list({"0.0.0.0/0", "::/0"}, false);
    sockaddr_storage ss{};
    ss.ss_family = AF_UNIX;
    EXPECT_FALSE(acl_match_addr(&l, reinterpret_cast<const sockaddr*>(&ss)));
}

TEST(Acl, HostPatternTable)
{
    struct Row {
        const char* pattern;
        const char* host;
        bool want;
    };
    const Row rows[] = {
        {"media.example.com", "media.example.com", true},
        {"media.example.com", "MEDIA.Example.COM", true},
        {"media.example.com", "media.example.com.", true}, // the absolute spelling
        {"media.example.com", "xmedia.example.com", false},
        {"media.example.com", "media.example.co", false},
        {"*.example.com", "example.com", true},
        {"*.example.com", "a.b.example.com", true},
        {"*.example.com", "badexample.com", false},
        {"*.example.com", "example.com.evil.net", false},
        {"*.example.com", "", false},
        {"localhost", "localhost", true},
    };
    for (const Row& r : rows) {
        const acl_list l = make_list({r.pattern});
        EXPECT_EQ(acl_match_host(&l, r.host), r.want) << r.host << " vs " << r.pattern;
    }
}

TEST(Acl, HostEntriesAndLiterals)
{
    // In a source list an address literal is a prefix, never a name pattern.
    const acl_list l = make_list({"10.0.0.5", "cdn.example.net", "::1"});
    EXPECT_EQ(l.npfx, 2u);
    EXPECT_EQ(l.nhosts, 1u);
    EXPECT_FALSE(acl_match_host(&l, "10.0.0.5"));
    EXPECT_TRUE(match_text(l, "10.0.0.5"));
}

TEST(Acl, BadEntriesTable)
{
    const std::string long_name(ACL_HOST_LEN, 'a');
    // hosts_too, entry, the start of the reason.
    struct Row {
        bool hosts_too;
        const char* entry;
        const char* why;
    };
    const Row rows[] = {
        {false, "example.com", "not an IPv4"},
        {true, "*.", "empty host name"},
        {true, "*", "host name holds"},
        {true, "a..b", "host name has an empty label"},
        {true, ".example.com", "host name has an empty label"},
        {true, "example.com.", "host name has an empty label"},
        {true, "ex ample.com", "host name holds"},
        {true, "*.*.example.com", "host name holds"},
        {true, "http://example.com", "not an IPv4"}, // a "/" makes it a prefix
        {true, "10.0.0.0/40", "prefix length above 32"},
        {true, long_name.c_str(), "host name too long"},
    };
    for (const Row& r : rows) {
        acl_list l{};
        const char* why = "";
        EXPECT_EQ(acl_add(&l, r.entry, r.hosts_too, &why), 22) << r.entry;
        EXPECT_EQ(std::string(why).substr(0, std::strlen(r.why)), r.why) << r.entry;
        EXPECT_TRUE(acl_is_empty(&l)) << r.entry;
    }
}

TEST(Acl, FullListIsRefused)
{
    acl_list l{};
    const char* why = "";
    char text[32];
    for (size_t i = 0; i < ACL_MAX_PREFIXES; ++i) {
        std::snprintf(text, sizeof text, "10.0.%zu.0/24", i);
        ASSERT_EQ(acl_add(&l, text, false, &why), 0) << text;
    }
    EXPECT_EQ(acl_add(&l, "192.168.0.0/16", false, &why), 28);
    EXPECT_STREQ(why, "too many prefixes in the list");
    for (size_t i = 0; i < ACL_MAX_HOSTS; ++i) {
        std::snprintf(text, sizeof text, "h%zu.example.com", i);
        ASSERT_EQ(acl_add(&l, text, true, &why), 0) << text;
    }
    EXPECT_EQ(acl_add(&l, "one.more.example.com", true, &why), 28);
}
