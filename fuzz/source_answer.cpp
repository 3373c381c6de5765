// Fuzz target: a source's answer head as a download task reads it from its socket (end of head,
// the buffer limit, the status line, the body framing), and the strict checks once more on the
// bare bytes without a terminating NUL.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "app.h"
#include "fuzz_support.h"
#include "webops.h"
#include "wopen.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::init_once();
    if (size > 2 * DW_RESP_BUFSZ)
        return 0;
    const auto* text = reinterpret_cast<const char*>(data);

    char why[HTTP_WHY_SIZE];
    int code = 0;
    long length = 0;
    if (check_status_line(text, size, &code, why, sizeof why))
        (void)check_body_framing(text, size, code, &length, why, sizeof why);

    int sv[2];
    fuzz::socket_with(data, size, sv);
    // The buffer and its length as the task hands them over.
    const auto buf = std::make_unique<char[]>(DW_RESP_BUFSZ);
    http_resp_ctx resp{};
    const int rc = recv_http_response(sv[0], buf.get(), DW_RESP_BUFSZ - 1, &resp);
    if (rc == 0 && (resp.code < 200 || resp.tail <= 0 || resp.tail > resp.total))
        std::abort(); // an accepted head is a final answer with its body offset inside the buffer
    if (rc != 0 && resp.malformed[0] && std::strlen(resp.malformed) >= sizeof resp.malformed)
        std::abort();
    close(sv[0]);
    close(sv[1]);
    return 0;
}
