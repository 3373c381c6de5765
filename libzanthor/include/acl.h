// Access lists: address prefixes (IPv4 and IPv6 in CIDR form) and host-name patterns, held in
// fixed tables so that a look-up on the request path neither allocates nor walks every entry.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/socket.h>

enum : size_t {
    ACL_MAX_PREFIXES = 64, // prefixes of one list
    ACL_MAX_HOSTS = 32,    // host-name patterns of one list
    ACL_HOST_LEN = 128,    // a pattern with its NUL
};

// One prefix. IPv4 prefixes are kept as IPv4-mapped IPv6 ones (::ffff:a.b.c.d, 96 bits more),
// so one comparison serves both families and a mapped peer address meets the IPv4 entries.
struct acl_prefix {
    uint8_t addr[16]; // bits past `bits` are zero
    uint8_t bits;     // 0..128
};

// One list. Zero-initialised it is empty. acl_finish sorts the prefixes and drops those inside
// another, which leaves disjoint ranges that a binary search can decide on.
struct acl_list {
    acl_prefix pfx[ACL_MAX_PREFIXES];
    size_t npfx;
    char hosts[ACL_MAX_HOSTS][ACL_HOST_LEN]; // lower case; "*.x" stands for x and its subdomains
    size_t nhosts;
};

// Parses "a.b.c.d/n", "v6/n" or a bare address (a whole-length prefix). Set bits past the length
// are refused, since "10.1.0.0/8" is more likely a typing error than meant as 10/8. Returns 0, or
// 22 with a reason in `why` (static text).
[[nodiscard]] int acl_parse_prefix(const char* text, acl_prefix* out, const char** why);

// Checks a host-name pattern: letters, digits, "-" and "." in non-empty labels, optionally led
// by "*.". 0 or 22 with the reason in `why`.
[[nodiscard]] int acl_check_host(const char* text, const char** why);

// Adds a prefix (when `hosts_too` is false) or a prefix or host pattern to `list`. Returns 0, or
// 22 for a bad entry or 28 when the list is full, with the reason in `why`. acl_finish must be
// called after the last entry.
[[nodiscard]] int acl_add(acl_list* list, const char* text, bool hosts_too, const char** why);

// Sorts the prefixes and removes those covered by another one.
void acl_finish(acl_list* list);

inline bool acl_is_empty(const acl_list* list)
{
    return list->npfx == 0 && list->nhosts == 0;
}

// Whether an IPv4 or IPv6 socket address lies in one of the prefixes. Other families never do.
[[nodiscard]] bool acl_match_addr(const acl_list* list, const struct sockaddr* sa);

// The 16-byte form of an IPv4 (mapped) or IPv6 socket address; false for other families.
[[nodiscard]] bool acl_sockaddr16(const struct sockaddr* sa, uint8_t out[16]);

// Whether the 16-byte (IPv6 or IPv4-mapped) address lies in one of the prefixes.
[[nodiscard]] bool acl_match_addr16(const acl_list* list, const uint8_t addr[16]);

// Whether `host` (any case, without port or brackets) matches one of the host patterns. An
// address literal never matches a pattern; it is judged by its prefixes.
[[nodiscard]] bool acl_match_host(const acl_list* list, const char* host);

// Parses an IPv4 or IPv6 address literal (no brackets) into the 16-byte form. true on success.
[[nodiscard]] bool acl_addr_literal(const char* text, uint8_t out[16]);

// Writes "addr/bits" for the prefix into `buf`; returns buf.
const char* acl_prefix_str(const acl_prefix* p, char* buf, size_t len);
