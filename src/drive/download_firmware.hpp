#pragma once

#include <cstdint>

#include "drive/download_request.hpp"
#include "drive/sha256.hpp"
#include "transport/device_context.hpp"
#include "transport/status.hpp"

// What one call of download_firmware sent and what the drive answered: the run's outcome lines
// are made from it, never from the text the call printed.
struct DownloadRecord {
    std::uint8_t mode;
    std::uint32_t timeoutSeconds;
    std::uint32_t transfersPlanned; // full transfers and the remainder
    std::uint32_t transfersSent;    // handed to the transport, a failed one included
    bool timedOut;                  // the last one sent did not end within timeoutSeconds
    bool countReturned;             // the drive's Count after the last command sent was read
    std::uint8_t count;
    bool imageRead; // the image file was read whole; its size, and its digest when asked for
    std::uint32_t imageBytes;
    Sha256Digest imageSha256;
};

// The DOWNLOAD MICROCODE status a drive reports in Count.
constexpr std::uint8_t kDownloadMoreDataExpected = 0x01;
constexpr std::uint8_t kDownloadApplied = 0x02;
constexpr std::uint8_t kDownloadSaved = 0x03;

Status download_firmware(DeviceContext& context, DownloadRequest request, DownloadRecord& record);
