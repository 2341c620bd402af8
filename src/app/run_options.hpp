// The parsed command line: what the run driver and the download engine are given.
#pragma once

#include <cstdint>

#include "drive/download_request.hpp"

struct RunOptions {
    wchar_t devicePath[kPathUnits];
    std::int32_t phyNumber;     // -1: find the phy by sasAddress
    std::uint8_t sasAddress[8]; // byte 0 is the first pair of digits typed; zero unless typed
    DownloadRequest request;
    std::int32_t retryCount;
};

// Defaults: no path, phy -1, address zero, mode 0x07, 64 blocks, a 5 s time-out, no retry.
RunOptions make_run_options();
