// Fuzz target: a client's download request as the agent reads it from its socket: the head read
// (end of head, the size limit, a dropped tail), the request line and header fields, the URI and
// the split of its path into source and destination, the "expiry=" query, the destination rules,
// and the task key and local-URL test of the order that comes out.
#include <cstdlib>
#include <unistd.h>

#include "app.h"
#include "data.h"
#include "fuzz_support.h"
#include "rq.h"
#include "strops.h"
#include "util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::init_once();
    // More than a head buffer is never looked at, and the socket buffer must take it all at once.
    if (size > 2 * HRQ_BUF_SIZE)
        return 0;
    int sv[2];
    fuzz::socket_with(data, size, sv);

    dw_urq urq{};
    set_tag32(&urq.tag, "URQ");
    urq.sockfd = sv[0];
    urq.pprm_idx = -1;
    if (read_http_rq(&urq) == 0) {
        dw_spec spec{};
        if (parse_dw_get(&urq, &spec) == 0) {
            (void)url2key(spec.url);
            (void)is_local_url(spec.url);
        }
    }
    std::free(urq.hrq.hbuf);
    close(sv[0]);
    close(sv[1]);
    fuzz::sweep_data_dir();
    return 0;
}
