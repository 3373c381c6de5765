// String look-ups in a parsed configuration file, with a length check and a default. The file
// being read is held here for the duration of a load, so keys can be read by their full path.
#pragma once
#include <cstddef>

#include <libconfig.h>

// The configuration that load_config_str() reads; null when no file is being loaded. The loader
// owns the object and clears the pointer before destroying it.
void config_set_current(config_t* cfg);
config_t* config_current();

// Reads the string at the full path `key` (for example "vesk.data_dir") into `dst`.
// A value of `size` characters or more is refused with an error line and -1, leaving `dst` as it
// was; otherwise at most `size` - 1 characters are copied. An absent or empty value stores `dflt`
// when that is a non-empty text, else an empty string; both return 0. With no current
// configuration the key counts as absent.
int load_config_str(const char* key, char* dst, size_t size, const char* dflt);

// The same for the member `key` of a group `setting`.
int load_config_setting_str(const config_setting_t* setting, const char* key, char* dst,
                            size_t size, const char* dflt);
