// What every fuzz target sets up before its first input: a log that formats every line at debug
// level but writes it nowhere (VSK_FUZZ_LOG=1: to standard error), the built-in configuration, and a scratch data directory for the
// parsers that create the directories of a destination.
#pragma once
#include <cstddef>
#include <cstdint>

// The libFuzzer entry point, defined once per target; the replay driver calls the same one.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Idempotent; the first call sets up the log, the configuration and the data directory.
void init_once();
// Puts `size` bytes of `data` into a fresh non-blocking stream socket pair, with the writing side
// shut down behind them, as a peer that sent them and stopped: sv[0] is the side to read.
void socket_with(const uint8_t* data, size_t size, int sv[2]);
// Empties the scratch data directory every few thousand calls, so that a long run cannot fill
// the disk with the directories its inputs asked for.
void sweep_data_dir();

} // namespace fuzz
