// String look-ups in a parsed configuration file, with a length check and a default.
#include "config.h"

#include <cstring>

#include "log.h"

LOG_MODULE(0, -1);

// The configuration being loaded; set by the loader around its reads.
static config_t* g_cur_config = nullptr;

void config_set_current(config_t* cfg) { g_cur_config = cfg; }

config_t* config_current() { return g_cur_config; }

// Copies `value` (null when absent) into `dst` under the rules of the two public readers; `caller`
// names the public reader in the error line.
static int store_config_str(const char* caller, const char* key, const char* value, char* dst,
                            size_t size, const char* dflt)
{
    ZASSERT(dst && size > 0);
    if (!value || !value[0]) {
        // Defaults are the program's own texts; cutting one to the field is not an input error.
        if (dflt && dflt[0]) {
            const size_t n = strnlen(dflt, size - 1);
            std::memcpy(dst, dflt, n);
            dst[n] = '\0';
        } else {
            dst[0] = '\0';
        }
        return 0;
    }
    const size_t len = std::strlen(value);
    if (len >= size) {
        zlog(L_ERR, "%s: %s value is too long (%ld), max = %ld characters.\n", caller, key,
             static_cast<long>(len), static_cast<long>(size - 1));
        return -1;
    }
    std::memcpy(dst, value, len + 1);
    return 0;
}

int load_config_str(const char* key, char* dst, size_t size, const char* dflt)
{
    const char* value = nullptr;
    if (g_cur_config && config_lookup_string(g_cur_config, key, &value) != CONFIG_TRUE)
        value = nullptr;
    return store_config_str(__func__, key, value, dst, size, dflt);
}

int load_config_setting_str(const config_setting_t* setting, const char* key, char* dst,
                            size_t size, const char* dflt)
{
    const char* value = nullptr;
    if (setting && config_setting_lookup_string(setting, key, &value) != CONFIG_TRUE)
        value = nullptr;
    return store_config_str(__func__, key, value, dst, size, dflt);
}
