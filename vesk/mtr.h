// The agent's counters and their two renderings: the metrics text a scraper reads and the status
// document a person reads. Counting is a plain increment of a field of one static record, so that
// the download path pays nothing measurable for it; everything else is computed at scrape time.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>

// Why a download task ended; the first reason set wins (a failure often cascades).
enum mtr_end : uint8_t {
    MTR_END_NONE = 0,           // not set yet
    MTR_END_COMPLETED,          // renamed into place
    MTR_END_SOURCE_UNREACHABLE, // no connection, no name, or the request could not be sent
    MTR_END_SOURCE_REFUSED,     // the source answered with a status other than 2xx
    MTR_END_SOURCE_DENIED,      // its address is not an allowed source
    MTR_END_MALFORMED_ANSWER,   // unreadable head, or no positive Content-Length
    MTR_END_SOURCE_CLOSED,      // the source closed or reset before the announced length
    MTR_END_STALLED,            // no I/O within the task time-out
    MTR_END_WRITE_ERROR,        // the destination could not be created, written or renamed
    MTR_END_DEST_EXISTS,        // the final file appeared meanwhile
    MTR_END_SHUTDOWN,           // still running when the agent quit
    MTR_END_OTHER,
    MTR_END_COUNT
};

// What became of one datagram of the UDP channel.
enum mtr_udp : uint8_t {
    MTR_UDP_STARTED = 0, // a download task was started
    MTR_UDP_LOCAL,       // a local URL: only registered
    MTR_UDP_LOCKED,      // another agent or order holds its lock
    MTR_UDP_MALFORMED,   // refused message (length, prefix, fields, URL)
    MTR_UDP_REFUSED,     // well-formed, but no task could be started (limit, duplicate, source)
    MTR_UDP_DENIED,      // from a peer outside allow_clients, or for a source not allowed
    MTR_UDP_ERROR,       // receive or lock-file failure
    MTR_UDP_COUNT
};

// Outcome of one registration in the segment registry.
enum mtr_reg : uint8_t { MTR_REG_OK = 0, MTR_REG_FAILED, MTR_REG_DROPPED, MTR_REG_COUNT };

// Upper bounds of the download-duration histogram, milliseconds (the +Inf bucket is implicit).
inline constexpr long MTR_DUR_BOUNDS_MS[] = {5,    10,   25,   50,    100,   250,  500,
                                             1000, 2500, 5000, 10000, 30000, 60000};
inline constexpr size_t MTR_DUR_BUCKETS = sizeof(MTR_DUR_BOUNDS_MS) / sizeof(MTR_DUR_BOUNDS_MS[0]);

// Highest HTTP status counted by code; the table is indexed by the code itself.
enum : int { MTR_MAX_HTTP_CODE = 599 };

struct mtr_counters {
    uint64_t tasks_started;
    uint64_t tasks_ended[MTR_END_COUNT];
    uint64_t bytes_downloaded;          // body bytes received into destination files
    uint64_t answers[MTR_MAX_HTTP_CODE + 1]; // answers sent to download requesters, by code
    uint64_t clients_gone;               // requesters that left before they could be answered
    uint64_t udp_orders[MTR_UDP_COUNT];
    uint64_t registrations[MTR_REG_COUNT];
    uint64_t dur_buckets[MTR_DUR_BUCKETS + 1]; // per bucket (not cumulative); last is +Inf
    uint64_t dur_count;
    uint64_t dur_sum_us;
    time_t start_time;     // wall clock at start, seconds
    timespec start_mono;   // monotonic clock at start, for the uptime
};

extern mtr_counters g_mtr;

// Notes the start times; called once before the loop runs.
void mtr_init();

inline void mtr_answer(int code)
{
    if (code >= 0 && code <= MTR_MAX_HTTP_CODE)
        ++g_mtr.answers[code];
}
inline void mtr_udp_order(mtr_udp r) { ++g_mtr.udp_orders[r]; }
inline void mtr_registration(mtr_reg r) { ++g_mtr.registrations[r]; }
// A download that took `us` microseconds from its order to the rename.
void mtr_observe_download_us(uint64_t us);

// A text that grows as it is written to; a failed growth is remembered and ends in `failed`.
struct mtr_text {
    char* p;
    size_t len;
    size_t cap;
    bool failed;
};
[[gnu::format(printf, 2, 3)]] void mtr_printf(mtr_text* t, const char* fmt, ...);
// Appends `s` as the inside of a JSON (or label) string: quotes, backslashes and control
// characters escaped.
void mtr_put_escaped(mtr_text* t, const char* s);
void mtr_text_free(mtr_text* t);

// The metrics in the text exposition format of the metrics scraper, and the status as JSON.
// Both read the agent context; 0, or -1 (logged) when memory ran out.
[[nodiscard]] int mtr_render_metrics(mtr_text* out);
[[nodiscard]] int mtr_render_status(mtr_text* out);
