// Small string helpers shared across the agent: number parsing with size suffixes, line-end
// trimming, hex conversion, track tags and substitution of a numeric macro in a text.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "ztypes.h"

// A decimal number with an optional size suffix K/Kb, M/Mb or G/Gb (any case; powers of 1024).
// 0 with the value stored through `result` when given; -3 number part too long (over 63
// characters before a suffix), -4 conversion error (errno from strtod), -5 unknown suffix. Any
// letter starts the suffix, so exponent notation ("1.5e3") is refused with -5 on purpose.
// A null `str` is a programming error (assertion).
[[nodiscard]] int a2double(const char* str, double* result);
// As a2double, truncated toward zero into a signed 64-bit value; -2 when it does not fit.
[[nodiscard]] int a2int64(const char* str, int64_t* result);
[[nodiscard]] int a2size(const char* str, ssize_t* result);

// Removes at most two trailing characters, each CR or LF. Returns the new length.
size_t chomp(char* str);

// Occurrences of `marker` in `str`. When `marker` ends with ':' the decimal numbers written right
// after each occurrence are added up instead (an occurrence without digits adds 0). An empty
// marker counts nothing.
size_t marker_count(const char* str, const char* marker);

// The value of a hexadecimal digit (either case), 0 for any other character.
uint8_t sym2hex(char c);
// Two hex characters per byte, high nibble first, until the text (or a last odd character) or
// the output runs out. Returns the bytes written.
size_t hex_to_bin(const char* str, uint8_t* out, size_t outlen);
// Each byte as "%02x" followed by `delim` (none when null) while 3 + strlen(delim) bytes remain in
// `out`; the text is NUL-terminated and the last byte of `out` is always NUL. Returns the number
// of bytes converted.
size_t bin_to_dhex(const void* bin, size_t len, char* out, size_t outlen, const char* delim);

// Advances `*counter` (restarting from 0 once it has reached `max`) and makes the track tag: the
// `type` character followed by the counter's decimal text, at most 5 digits, zero-padded to 8
// bytes.
void mk_trk_tag(size_t* counter, n64_tag* tag, char type, size_t max);

// Replaces the first occurrence of `macro` in the NUL-terminated `buf` (of `buflen` bytes) with
// `value` in decimal (nothing at all for 0). 0 done; 3 no occurrence (buffer untouched); -34 the
// result did not fit and was cut; 12 no memory for the scratch copy; 22 empty macro.
int repl_ulm(char* buf, size_t buflen, const char* macro, unsigned long value);
// repl_ulm repeated at most 32 times: 0 once no occurrence is left, -34 after 32 replacements
// (more occurrences than supported), otherwise the failing repl_ulm code.
int replace_ul_macro(char* buf, size_t buflen, const char* macro, unsigned long value);
