// `zvxfer loopback -p bplus`: our B+ terminal against our B+ service over
// the simulated line, every file downloaded and uploaded and both copies
// checked against the original.
#pragma once
#include "loopback.h"

namespace zvxfer::cli {

int RunBPlusLoopback(const LoopbackSettings &settings, int32_t checkMethod, Verbosity verbosity);

} // namespace zvxfer::cli
