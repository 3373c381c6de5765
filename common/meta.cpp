// Build identity: version line, agent tag and build information.
#include "meta.h"

#include <cstring>
#include <strings.h>
#include <sys/utsname.h>

namespace {
constexpr const char* k_version = "0.2";
constexpr int k_major = 0;
constexpr int k_minor = 7;
constexpr const char* k_family = "torbella";
constexpr const char* k_flavour = "regular";
constexpr const char* k_platform = "Ubuntu 14.04.5 Linux (amd64)";
constexpr const char* k_build_date = "2018-08-09";
constexpr uint32_t k_build_checksum = 0x7a1c0e93;
constexpr const char* k_error = "#error#";

constexpr const char* k_lib_version = "1.5";
constexpr int k_lib_major = 6;
constexpr int k_lib_minor = 16;
constexpr const char* k_lib_checksum = "3b9d41c2";
constexpr unsigned k_lib_stamp = 1533772800u;
constexpr const char* k_build_flags = "-ggdb3";

struct app_row {
    const char* tag;
    const char* description;
};
constexpr app_row k_apps[] = {
    {"vsk", "Download manager"},
};
} // namespace

const char* app_description(const char* tag)
{
    if (!tag)
        return k_error;
    for (const auto& a : k_apps)
        if (strcasecmp(a.tag, tag) == 0)
            return a.description;
    return k_error;
}

const char* get_app_info(const char* tag, uint32_t checksum)
{
    static char info[256];
    if (info[0])
        return info;
    struct utsname un;
    if (uname(&un) != 0)
        return k_error;
    char sysinfo[192];
    int n = snprintf(sysinfo, sizeof(sysinfo), "%s - %s/%s", k_platform, un.release, un.machine);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(sysinfo))
        return k_error;
    n = snprintf(info, sizeof(info), "%s (%s) %s-%d.%d (%s) %s [%s] %08x; built on %s",
                 tag ? tag : "", app_description(tag), k_version, k_major, k_minor, k_family,
                 k_flavour, sysinfo, checksum ? checksum : k_build_checksum, k_build_date);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(info)) {
        info[0] = '\0';
        return k_error;
    }
    return info;
}

const char* get_app_tag(const char* name)
{
    static char tag[128];
    if (tag[0])
        return tag;
    if (!name)
        return k_error;
    const int n =
        snprintf(tag, sizeof(tag), "%s/%s-%d.%d (%s)", name, k_version, k_major, k_minor, k_family);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(tag)) {
        tag[0] = '\0';
        return k_error;
    }
    return tag;
}

const char* get_app_version()
{
    static char version[32];
    if (!version[0])
        snprintf(version, sizeof(version), "%s-%d.%d", k_version, k_major, k_minor);
    return version;
}

const char* get_app_family()
{
    return k_family;
}

void dump_build_info(FILE* stream)
{
    fprintf(stream, "----\n");
    fprintf(stream, "libznt/%s-%d.%d (%s) @%u", k_lib_version, k_lib_major, k_lib_minor,
            k_lib_checksum, k_lib_stamp);
    fputc(' ', stream);
    // Fast clocks are never used in this build, so no "[fast-clocks] " marker.
    fprintf(stream, "[%s]\n", k_build_flags);
    fprintf(stream, "----\n\n");
}
