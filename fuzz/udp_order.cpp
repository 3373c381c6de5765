// Fuzz target: one datagram of the UDP channel, taken the way the channel takes it: the length
// bounds, the line end trimmed, the "#!" prefix, the lock id, URL and expiry fields, then the
// download-request split of the URL and the order's destination rules. Lock files are not taken.
#include <cctype>
#include <cstring>

#include "data.h"
#include "fuzz_support.h"
#include "strops.h"
#include "udl.h"

// A message whose URL is not followed by an expiry stops the agent on purpose (a broken sender
// must be fixed, not tolerated). That abort is the intended answer, so such inputs are not fed
// to the parser; this mirrors its field split.
static bool stops_the_agent(const char* text)
{
    const size_t n = std::strlen(text);
    const size_t i = std::strcspn(text, " \t");
    if (i >= n || i < MIN_LID_LEN || i > MAX_LID_LEN)
        return false;
    const char* url = text + i + 1;
    const size_t m = std::strcspn(url, " \t");
    if (m < MIN_URL_LEN)
        return false;
    size_t j = i + 1 + m + 1;
    while (j < n && std::isspace(static_cast<unsigned char>(text[j])))
        ++j;
    return j >= n || text[j] == '#';
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::init_once();
    if (size < MIN_UMSG_LEN || size > MAX_UMSG_LEN)
        return 0;
    char buf[UDL_RCVBUF_SIZE] = {};
    std::memcpy(buf, data, size);
    chomp(buf);
    if (buf[0] != '#' || buf[1] != '!' || stops_the_agent(buf + 2))
        return 0;
    char* url = nullptr;
    char* lid = nullptr;
    time_t expiry = 0;
    if (parse_msg(buf + 2, &url, &lid, &expiry) == 0) {
        dw_spec spec{};
        (void)parse_url(url, lid, &spec);
    }
    fuzz::sweep_data_dir();
    return 0;
}
