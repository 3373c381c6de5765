// Source access control: the checks of vesk.allow_sources and vesk.deny_sources.
#include "srcacl.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "acl.h"
#include "cfg.h"
#include "data.h"
#include "log.h"
#include "wopen.h"

LOG_MODULE(0, -1);

namespace {

bool addr16_allowed(const uint8_t addr[16], const char** why)
{
    if (acl_match_addr16(&g_cfg->deny_sources, addr)) {
        *why = "in vesk.deny_sources";
        return false;
    }
    if (g_cfg->allow_sources.npfx > 0 && !acl_match_addr16(&g_cfg->allow_sources, addr)) {
        *why = "not in vesk.allow_sources";
        return false;
    }
    return true;
}

} // namespace

int src_url_allowed(const char* url)
{
    const acl_list* allow = &g_cfg->allow_sources;
    if (acl_is_empty(allow) && acl_is_empty(&g_cfg->deny_sources))
        return 0;

    // The host is taken apart by the same function the resolver and the socket opener use, so
    // that no spelling of a URL can mean one host here and another one there.
    char host[DW_URL_LEN];
    if (usock_url_host(url, host, sizeof host) != 0) {
        zlogf(L_ERR, "%s: source [%s] refused: no host can be read from it\n", url);
        return 13;
    }

    uint8_t addr[16];
    const char* why = "not in vesk.allow_sources";
    bool ok;
    if (acl_addr_literal(host, addr))
        ok = addr16_allowed(addr, &why) && (allow->npfx > 0 || acl_is_empty(allow));
    else
        ok = acl_is_empty(allow) || acl_match_host(allow, host);
    if (!ok) {
        zlogf(L_ERR, "%s: source host [%s] refused: %s\n", host, why);
        return 13;
    }
    return 0;
}

bool src_addr_allowed(const struct sockaddr* sa)
{
    uint8_t addr[16];
    if (!acl_sockaddr16(sa, addr))
        return false;
    const char* why = "";
    if (addr16_allowed(addr, &why))
        return true;
    char text[INET6_ADDRSTRLEN] = "?";
    const bool v4 = sa->sa_family == AF_INET;
    const void* bytes = v4 ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(sa)->sin_addr)
                           : static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr);
    (void)inet_ntop(sa->sa_family, bytes, text, sizeof text);
    zlogf(L_ERR, "%s: source address %s refused: %s\n", text, why);
    return false;
}
