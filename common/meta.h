// Build identity of the program: its version line, its agent tag for HTTP requests, and the
// build information printed with the usage text.
#pragma once
#include <cstdint>
#include <cstdio>

// A one-line description of an application tag (case-insensitive), "#error#" when unknown.
const char* app_description(const char* tag);
// The version line, built once into a static buffer; later calls return the cached line.
// `checksum` 0 selects the built-in build checksum. "#error#" when it cannot be built.
const char* get_app_info(const char* tag, uint32_t checksum);
// "name/0.2-0.7 (torbella)", built once; later calls (any argument, null too) return it.
const char* get_app_tag(const char* name);
// The version alone ("0.2-0.7") and the family name, for the build identity in the metrics.
const char* get_app_version();
const char* get_app_family();
void dump_build_info(FILE* stream);
