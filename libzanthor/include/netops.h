// Socket operations: listeners (TCP, UDP, local-domain), the general opener that resolves an
// address and makes a listener, a client or a multicast reader of it, interface look-up, and small
// socket option and address-text helpers. System calls go through the logging W_ wrappers.
#pragma once
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

enum : int { NETOPS_BACKLOG = 128 };

// What kind of socket open_socket makes. The flags are bits 1, 2, 4, 8, 16 and 32 in this order.
struct socket_spec {
    uint32_t writer : 1;             // sends (a client's request, a multicast sender)
    uint32_t passive : 1;            // server side: bind and listen
    uint32_t multicast : 1;          // set by open_socket for a datagram socket on a group address
    uint32_t non_blocking : 1;       // make the socket non-blocking
    uint32_t async_connect : 1;      // set by open_socket: a non-blocking connect is in progress
    uint32_t defer_listen : 1;       // bind but do not listen yet
    int family;                      // AF_INET, AF_INET6 or 0 for any
    int socktype;                    // SOCK_STREAM or SOCK_DGRAM
    struct sockaddr_storage addr_ss; // filled in on success: the address actually used
    socklen_t addr_len;
    bool is_ssm; // source-specific multicast: src_ss is the sender
    struct sockaddr_storage src_ss;
    socklen_t src_len;
    // Consulted for each resolved address of a client socket before anything is opened for it;
    // an address it refuses is skipped, and when none is left open_socket fails with EACCES.
    // Null: every address is tried.
    bool (*addr_ok)(const struct sockaddr* sa);
};

// A network interface with one of its addresses. Records are allocated with calloc and belong to
// the caller (free()).
struct ifc_info {
    uint32_t idx;  // interface index
    char name[16]; // interface name
    struct sockaddr_storage ss;
};

// A non-blocking TCP listener on `ss` (AF_INET or AF_INET6) and `port` (decimal, 1..65535); it
// listens at once unless `defer_listen`. `ss` is not modified: the port goes into a copy. Returns
// the descriptor or -1; a failed attempt closes what it opened.
int open_listener(const struct sockaddr_storage* ss, const char* port, int defer_listen);
// A non-blocking UDP socket bound to `ss` and `port`; a null port keeps the port of `ss`.
int open_udp_listener(const struct sockaddr_storage* ss, const char* port);
// A non-blocking TCP listener on the wildcard address of `af` (AF_INET for 0; an IPv6 listener also
// takes IPv4 connections), through open_socket.
int open_anyaddr_listener(int af, const char* port, int defer_listen);
// A non-blocking local-domain stream listener on `path` (at most 107 characters), replacing any
// file of that name.
int open_domain_listener(const char* path);

// SO_REUSEADDR (its failure is returned), SO_REUSEPORT (best effort), then bind. Returns 0 or the
// errno value of the failing step.
int reuse_and_bind(int sock, struct sockaddr* addr, socklen_t addrlen);

// The general opener. `addr` (null: the wildcard address of spec->family, IPv4 for 0) and `port`
// are resolved, and each result is tried in turn: a socket is made (non-blocking when asked) and
// set up as
// - a multicast reader when it is a datagram socket on a group address and not a writer: bound to
//   the group and joined on the interface `ifc_tag` (a name or an address; null: the default one),
//   source-specifically when `auth` names the sender ("host[:port]", port 111 when absent);
// - a listener when passive (an IPv6 wildcard listener also takes IPv4);
// - otherwise a client: a datagram reader is bound, a stream socket connects; a non-blocking
//   connect still in progress sets spec->async_connect, returns the descriptor and leaves errno at
//   EINPROGRESS (wait for writability, then read the result with socket_error).
// The port must be a number or "0" (a null port for a stream or datagram socket is a fatal
// assertion). On success spec->addr_ss/addr_len hold the address used and, when `ifi` is given,
// `*ifi` receives the interface record used for a group join (or null); it is the caller's to free.
// Returns the descriptor or -1.
int open_socket(const char* addr, const char* port, const char* auth, struct socket_spec* spec,
                const char* ifc_tag, struct ifc_info** ifi);
// Leaves the group joined by open_socket for a multicast reader (`ifi` as it returned, may be
// null). Returns 0 or -1.
int mcast_leave(int sockfd, const struct socket_spec* spec, const struct ifc_info* ifi);

// Switches O_NONBLOCK to `nblock`; nothing is changed when it is already so. 0 or -1.
int set_nblock(int sockfd, int nblock);
int set_tcp_nodelay(int sockfd, int is_on);
// SO_RCVTIMEO / SO_SNDTIMEO from milliseconds (not negative). 0 or -1.
int set_rcv_timeout(int sockfd, int ms);
int set_send_timeout(int sockfd, int ms);
// The pending error of the socket (SO_ERROR, or the errno of a failing getsockopt); a non-zero
// value is logged, stored in errno and returned.
int socket_error(int sockfd);

// Numeric text of an address: "host:port" for IPv4, "[host]:port" for IPv6, "DOMAIN path:" for a
// local-domain address. Returns `buf`, or null (logged) when the address cannot be converted or the
// text does not fit `len`.
char* saddr_str(struct sockaddr* sa, socklen_t salen, char* buf, size_t len);
// Address family of a configuration name (case-insensitive): AF_INET, AF_INET6, 0 for any, or -1
// (logged) for an unknown name.
int name2af(const char* name);
// The interface named `tag`, or owning the address `tag`, with one of its addresses of family `af`
// (AF_INET, AF_INET6, or 0 for either; a global IPv6 address is preferred over a link-local one).
// Returns a calloc'd record (the caller frees it) or null (logged).
struct ifc_info* get_ifc_info(int af, const char* tag);
