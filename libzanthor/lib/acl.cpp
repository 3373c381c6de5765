// Access lists: address prefixes and host-name patterns in fixed, sorted tables.
#include "acl.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>

namespace {

constexpr int V4_MAPPED_BITS = 96;

void map_v4(const in_addr* a, uint8_t out[16])
{
    std::memset(out, 0, 10);
    out[10] = 0xff;
    out[11] = 0xff;
    std::memcpy(out + 12, a, 4);
}

// Whether `addr` lies inside `p`.
bool covers(const acl_prefix* p, const uint8_t addr[16])
{
    const size_t whole = p->bits / 8;
    if (std::memcmp(p->addr, addr, whole) != 0)
        return false;
    const unsigned rest = p->bits % 8;
    if (rest == 0)
        return true;
    const auto mask = static_cast<uint8_t>(0xff << (8 - rest));
    return (addr[whole] & mask) == p->addr[whole];
}

bool host_bits_clear(const acl_prefix* p)
{
    for (unsigned bit = p->bits; bit < 128; ++bit)
        if (p->addr[bit / 8] & (0x80 >> (bit % 8)))
            return false;
    return true;
}

bool prefix_less(const acl_prefix& a, const acl_prefix& b)
{
    const int c = std::memcmp(a.addr, b.addr, sizeof a.addr);
    return c < 0 || (c == 0 && a.bits < b.bits);
}

// Compares `host` with one pattern, ignoring case; `n` is the host's length without a final dot.
bool host_matches(const char* pattern, const char* host, size_t n)
{
    if (pattern[0] == '*' && pattern[1] == '.') {
        const char* domain = pattern + 2;
        const size_t dn = std::strlen(domain);
        if (n == dn)
            return strncasecmp(host, domain, n) == 0;
        // A subdomain: the name ends in ".domain", so "badexample.com" does not pass for
        // "*.example.com".
        return n > dn && host[n - dn - 1] == '.' && strncasecmp(host + n - dn, domain, dn) == 0;
    }
    return std::strlen(pattern) == n && strncasecmp(host, pattern, n) == 0;
}

} // namespace

bool acl_addr_literal(const char* text, uint8_t out[16])
{
    in_addr a4{};
    if (inet_pton(AF_INET, text, &a4) == 1) {
        map_v4(&a4, out);
        return true;
    }
    in6_addr a6{};
    if (inet_pton(AF_INET6, text, &a6) == 1) {
        std::memcpy(out, &a6, 16);
        return true;
    }
    return false;
}

int acl_parse_prefix(const char* text, acl_prefix* out, const char** why)
{
    char addr[INET6_ADDRSTRLEN];
    const char* slash = std::strchr(text, '/');
    const size_t alen = slash ? static_cast<size_t>(slash - text) : std::strlen(text);
    if (alen == 0 || alen >= sizeof addr) {
        *why = "not an IPv4 or IPv6 address";
        return 22;
    }
    std::memcpy(addr, text, alen);
    addr[alen] = '\0';

    acl_prefix p{};
    in_addr a4{};
    in6_addr a6{};
    int max_bits;
    int base;
    if (inet_pton(AF_INET, addr, &a4) == 1) {
        map_v4(&a4, p.addr);
        max_bits = 32;
        base = V4_MAPPED_BITS;
    } else if (inet_pton(AF_INET6, addr, &a6) == 1) {
        std::memcpy(p.addr, &a6, 16);
        max_bits = 128;
        base = 0;
    } else {
        *why = "not an IPv4 or IPv6 address";
        return 22;
    }

    int bits = max_bits;
    if (slash) {
        const char* s = slash + 1;
        if (!*s || std::strlen(s) > 3) {
            *why = "prefix length missing or not a number";
            return 22;
        }
        bits = 0;
        for (; *s; ++s) {
            if (!std::isdigit(static_cast<unsigned char>(*s))) {
                *why = "prefix length missing or not a number";
                return 22;
            }
            bits = bits * 10 + (*s - '0');
        }
        if (bits > max_bits) {
            *why = max_bits == 32 ? "prefix length above 32" : "prefix length above 128";
            return 22;
        }
    }
    p.bits = static_cast<uint8_t>(base + bits);
    if (!host_bits_clear(&p)) {
        *why = "address has bits set past the prefix length";
        return 22;
    }
    *out = p;
    return 0;
}

int acl_check_host(const char* text, const char** why)
{
    const char* s = text;
    if (s[0] == '*' && s[1] == '.')
        s += 2;
    const size_t n = std::strlen(s);
    if (n == 0 || std::strlen(text) >= ACL_HOST_LEN) {
        *why = n == 0 ? "empty host name" : "host name too long";
        return 22;
    }
    size_t label = 0;
    for (size_t i = 0; i < n; ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c == '.') {
            if (label == 0)
                break;
            label = 0;
            continue;
        }
        if (!std::isalnum(c) && c != '-') {
            *why = "host name holds a character other than letters, digits, '-' and '.'";
            return 22;
        }
        ++label;
    }
    if (label == 0) {
        *why = "host name has an empty label";
        return 22;
    }
    return 0;
}

int acl_add(acl_list* list, const char* text, bool hosts_too, const char** why)
{
    uint8_t probe[16];
    if (!hosts_too || std::strchr(text, '/') || acl_addr_literal(text, probe)) {
        acl_prefix p{};
        if (const int rc = acl_parse_prefix(text, &p, why))
            return rc;
        if (list->npfx >= ACL_MAX_PREFIXES) {
            *why = "too many prefixes in the list";
            return 28;
        }
        list->pfx[list->npfx++] = p;
        return 0;
    }
    if (const int rc = acl_check_host(text, why))
        return rc;
    if (list->nhosts >= ACL_MAX_HOSTS) {
        *why = "too many host names in the list";
        return 28;
    }
    char* dst = list->hosts[list->nhosts++];
    size_t i = 0;
    for (; text[i]; ++i)
        dst[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
    dst[i] = '\0';
    return 0;
}

void acl_finish(acl_list* list)
{
    std::sort(list->pfx, list->pfx + list->npfx, prefix_less);
    size_t kept = 0;
    for (size_t i = 0; i < list->npfx; ++i) {
        // Prefixes are nested or disjoint, and a covering one sorts before all it covers: only the
        // last one kept can cover the next.
        if (kept > 0 && covers(&list->pfx[kept - 1], list->pfx[i].addr) &&
            list->pfx[kept - 1].bits <= list->pfx[i].bits)
            continue;
        list->pfx[kept++] = list->pfx[i];
    }
    list->npfx = kept;
}

bool acl_match_addr16(const acl_list* list, const uint8_t addr[16])
{
    // The last range that starts at or before the address is the only one that can hold it.
    size_t lo = 0;
    size_t hi = list->npfx;
    while (lo < hi) {
        const size_t mid = lo + (hi - lo) / 2;
        if (std::memcmp(list->pfx[mid].addr, addr, 16) <= 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo > 0 && covers(&list->pfx[lo - 1], addr);
}

bool acl_sockaddr16(const sockaddr* sa, uint8_t out[16])
{
    if (sa->sa_family == AF_INET)
        map_v4(&reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, out);
    else if (sa->sa_family == AF_INET6)
        std::memcpy(out, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, 16);
    else
        return false;
    return true;
}

bool acl_match_addr(const acl_list* list, const sockaddr* sa)
{
    uint8_t addr[16];
    return acl_sockaddr16(sa, addr) && acl_match_addr16(list, addr);
}

bool acl_match_host(const acl_list* list, const char* host)
{
    size_t n = std::strlen(host);
    // "example.com." is the same name written absolutely.
    if (n > 0 && host[n - 1] == '.')
        --n;
    if (n == 0)
        return false;
    for (size_t i = 0; i < list->nhosts; ++i)
        if (host_matches(list->hosts[i], host, n))
            return true;
    return false;
}

const char* acl_prefix_str(const acl_prefix* p, char* buf, size_t len)
{
    char text[INET6_ADDRSTRLEN] = "?";
    static constexpr uint8_t mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (p->bits >= V4_MAPPED_BITS && std::memcmp(p->addr, mapped, sizeof mapped) == 0) {
        (void)inet_ntop(AF_INET, p->addr + 12, text, sizeof text);
        std::snprintf(buf, len, "%s/%d", text, p->bits - V4_MAPPED_BITS);
    } else {
        (void)inet_ntop(AF_INET6, p->addr, text, sizeof text);
        std::snprintf(buf, len, "%s/%d", text, p->bits);
    }
    return buf;
}
