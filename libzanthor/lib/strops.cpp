// String helpers: size-suffixed numbers, line ends, hex text, track tags, numeric macros.
#include "strops.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "log.h"

namespace {
struct size_suffix {
    const char* text;
    double factor;
};
} // namespace

static constexpr std::array<size_suffix, 6> k_suffixes = {{
    {"K", 1024.0},
    {"Kb", 1024.0},
    {"M", 1048576.0},
    {"Mb", 1048576.0},
    {"G", 1073741824.0},
    {"Gb", 1073741824.0},
}};

// Longest number part in front of a suffix.
static constexpr size_t A2D_MAX_NUM = 63;
// 2^63: the first magnitude that no longer fits a signed 64-bit integer.
static constexpr double TWO_POW_63 = 9223372036854775808.0;
static constexpr int MAX_MACRO_REPL = 32;

int a2double(const char* str, double* result)
{
    ZASSERT(str != nullptr);
    const char* sfx = str;
    while (*sfx != '\0' && !isalpha(static_cast<unsigned char>(*sfx)))
        ++sfx;

    double value = 0;
    if (*sfx == '\0') {
        errno = 0;
        value = strtod(str, nullptr);
        if (errno != 0)
            return -4;
    } else {
        double factor = 0;
        for (const size_suffix& s : k_suffixes) {
            if (strcasecmp(sfx, s.text) == 0) {
                factor = s.factor;
                break;
            }
        }
        if (factor == 0)
            return -5;
        const size_t numlen = static_cast<size_t>(sfx - str);
        if (numlen > A2D_MAX_NUM)
            return -3;
        char num[A2D_MAX_NUM + 1];
        memcpy(num, str, numlen);
        num[numlen] = '\0';
        errno = 0;
        value = strtod(num, nullptr);
        if (errno != 0)
            return -4;
        value *= factor;
    }
    if (result != nullptr)
        *result = value;
    return 0;
}

// 2^63 itself is refused as well: converting it to int64_t would overflow.
static int to_int64(const char* str, int64_t* result)
{
    double v = 0;
    const int rc = a2double(str, &v);
    if (rc != 0)
        return rc;
    if (v >= TWO_POW_63 || v < -TWO_POW_63)
        return -2;
    if (result != nullptr)
        *result = static_cast<int64_t>(v);
    return 0;
}

int a2int64(const char* str, int64_t* result)
{
    return to_int64(str, result);
}

int a2size(const char* str, ssize_t* result)
{
    int64_t v = 0;
    const int rc = to_int64(str, &v);
    if (rc == 0 && result != nullptr)
        *result = static_cast<ssize_t>(v);
    return rc;
}

size_t chomp(char* str)
{
    if (str == nullptr)
        return 0;
    size_t n = strlen(str);
    for (int i = 0; i < 2 && n > 0 && (str[n - 1] == '\r' || str[n - 1] == '\n'); ++i)
        str[--n] = '\0';
    return n;
}

size_t marker_count(const char* str, const char* marker)
{
    const size_t mlen = strlen(marker);
    if (mlen == 0)
        return 0;
    const bool sum_numbers = marker[mlen - 1] == ':';
    size_t total = 0;
    for (const char* p = strstr(str, marker); p != nullptr; p = strstr(p, marker)) {
        p += mlen;
        if (!sum_numbers) {
            ++total;
            continue;
        }
        size_t v = 0;
        for (; isdigit(static_cast<unsigned char>(*p)); ++p)
            v = v * 10 + static_cast<size_t>(*p - '0');
        total += v;
    }
    return total;
}

uint8_t sym2hex(char c)
{
    static constexpr std::string_view digits = "0123456789ABCDEF";
    const size_t pos = digits.find(static_cast<char>(toupper(static_cast<unsigned char>(c))));
    return pos == std::string_view::npos ? 0 : static_cast<uint8_t>(pos);
}

size_t hex_to_bin(const char* str, uint8_t* out, size_t outlen)
{
    size_t n = 0;
    for (; n < outlen && str[0] != '\0' && str[1] != '\0'; str += 2)
        out[n++] = static_cast<uint8_t>(sym2hex(str[0]) << 4 | sym2hex(str[1]));
    return n;
}

size_t bin_to_dhex(const void* bin, size_t len, char* out, size_t outlen, const char* delim)
{
    if (outlen == 0)
        return 0;
    const auto* bytes = static_cast<const uint8_t*>(bin);
    const char* dl = delim != nullptr ? delim : "";
    const size_t need = 3 + strlen(dl);
    size_t pos = 0;
    size_t i = 0;
    out[0] = '\0';
    for (; i < len && outlen - pos >= need; ++i)
        pos += static_cast<size_t>(snprintf(out + pos, outlen - pos, "%02x%s", bytes[i], dl));
    out[outlen - 1] = '\0';
    return i;
}

void mk_trk_tag(size_t* counter, n64_tag* tag, char type, size_t max)
{
    if (*counter >= max)
        *counter = 0;
    ++*counter;
    tag->num = 0;
    tag->sym8[0] = type;
    // Room for five digits and a NUL; the last byte of the tag stays NUL so it prints as text.
    const ssize_t n = snprintf(tag->sym8 + 1, sizeof(tag->sym8) - 2, "%zu", *counter);
    if (!(n > 0 && n <= static_cast<ssize_t>(sizeof(tag->sym8)) - 2))
        log_assert_fail("n > 0 && n <= (ssize_t)sizeof(tag->sym8) - 2", __FILE__, __LINE__,
                        __func__);
}

int repl_ulm(char* buf, size_t buflen, const char* macro, unsigned long value)
{
    const size_t mlen = strlen(macro);
    if (mlen == 0)
        return 22;
    const char* at = strstr(buf, macro);
    if (at == nullptr)
        return 3;
    const size_t pre = static_cast<size_t>(at - buf);
    // The text is rebuilt from a copy because the value may be longer than the macro it replaces.
    char* copy = strdup(buf);
    if (copy == nullptr) {
        perror("strdup");
        return 12;
    }
    char num[24] = "";
    if (value != 0)
        snprintf(num, sizeof(num), "%lu", value);
    const int n = snprintf(buf, buflen, "%.*s%s%s", static_cast<int>(pre), copy, num,
                           copy + pre + mlen);
    free(copy);
    if (n < 0 || static_cast<size_t>(n) >= buflen)
        return -34;
    return 0;
}

int replace_ul_macro(char* buf, size_t buflen, const char* macro, unsigned long value)
{
    for (int i = 0; i < MAX_MACRO_REPL; ++i) {
        const int rc = repl_ulm(buf, buflen, macro, value);
        if (rc == 3)
            return 0;
        if (rc != 0)
            return rc;
    }
    return -34;
}
