// Fuzz target: the configuration file: the file syntax, the agent's group and the common
// sections (log, runtime, listeners, UDP input, database), the final check and the dump of what
// was read. The file is handed over by path, as the agent gets it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "cfg.h"
#include "fuzz_support.h"

static void free_listeners(rui_listener_cfg* slots)
{
    for (size_t i = 0; i < RUI_LISTENER_SLOTS; ++i) {
        std::free(slots[i].ifc);
        slots[i].ifc = nullptr;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::init_once();
    if (size > 8192)
        return 0;
    // An include directive reads whatever file it names (a device could block forever): that is
    // the operator's choice, not an input this parser must survive.
    if (std::string_view(reinterpret_cast<const char*>(data), size).find("@include") !=
        std::string_view::npos)
        return 0;
    const int fd = memfd_create("vsk-fuzz-conf", MFD_CLOEXEC);
    if (fd < 0 || (size && write(fd, data, size) != static_cast<ssize_t>(size)))
        std::abort();
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

    // The data directory must stay the scratch one: a fuzzed path is only checked, never written.
    vesk_cfg cfg;
    (void)init_vesk_config(&cfg);
    if (load_vesk_config(path, &cfg, 0) == 0) {
        (void)validate_config(&cfg);
        FILE* sink = std::fopen("/dev/null", "w");
        if (sink) {
            dump_vesk_config(sink, &cfg);
            std::fclose(sink);
        }
    }
    free_listeners(cfg.rui.user);
    free_listeners(cfg.rui.admin);
    free_listeners(cfg.rui.custom);
    close(fd);
    return 0;
}
