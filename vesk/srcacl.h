// Which sources the agent may fetch from: the host of a source URL is judged against
// vesk.allow_sources and vesk.deny_sources before any task, file or connection exists, and the
// address a host name is looked up to is judged again just before it is connected.
#pragma once
#include <sys/socket.h>

// Judges the host of the source URL `url`. An address literal must lie in an allowed prefix (when
// allow_sources has entries) and outside the denied ones; a name must match an allowed name
// pattern (when allow_sources has entries); names are judged against the prefixes only after
// resolution, by src_addr_allowed. Returns 0, or 13 after an error line naming the host. With
// both lists empty every URL passes untouched.
[[nodiscard]] int src_url_allowed(const char* url);

// Judges one resolved source address: refused when it lies in deny_sources, or when
// allow_sources has prefixes and it lies in none of them. Logs an error line when refusing.
// Handed to the socket opener as socket_spec::addr_ok.
[[nodiscard]] bool src_addr_allowed(const struct sockaddr* sa);
