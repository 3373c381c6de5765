// The configuration check (-t/--check): what a start would find wrong with a loaded configuration,
// found without binding a socket or writing a file, so that an operator can run it before a
// restart while the old process still holds the ports.
#pragma once

#include "cfg.h"

// Runs every check on `cfg` (loaded and validated as for a start) and prints each problem, and
// each note that is not a problem, as one line on standard error. A database that cannot be
// reached within its time-out is a note, not a problem: the scripts are then left unchecked. One
// that accepts and then stays silent ends the process from a SIGALRM handler with that note and
// the verdict (exit status 0 or 1). Returns the number of problems (0: fit to start).
[[nodiscard]] int chk_config(const vesk_cfg* cfg);
