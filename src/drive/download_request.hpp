// What the download engine is given: the image file, the DOWNLOAD MICROCODE mode and the size
// of one transfer.
#pragma once

#include <cstdint>

constexpr int kPathUnits = 260; // 259 characters and the terminating NUL

struct DownloadRequest {
    wchar_t fileName[kPathUnits]; // empty (all zero) without /D:
    std::uint8_t downloadMode;    // DOWNLOAD MICROCODE subcommand, sent in Features
    std::uint8_t segmentBlocks;   // blocks of 512 bytes per transfer; 0: whole image, 8 MiB cap
    std::uint32_t timeoutSeconds; // of every DOWNLOAD MICROCODE, the activation included (/t)
    bool digestImage;             // the record of the run names the image by its SHA-256
};

constexpr std::uint8_t kModeSegmented = 0x03;
constexpr std::uint8_t kModeImmediate = 0x07;
constexpr std::uint8_t kModeDeferred = 0x0E;
constexpr std::uint8_t kModeActivate = 0x0F;

// Without /t. A drive that writes its flash may need far longer than a command's usual few
// seconds, and a command that times out makes the host reset the link in the middle of it.
constexpr std::uint32_t kDefaultDownloadTimeoutSeconds = 120;
// What a download leaves in the context for the commands after it (the closing IDENTIFY DEVICE
// and READ LOG EXT): the time-out they have always had.
constexpr std::uint32_t kAfterDownloadTimeoutSeconds = 5;
constexpr std::uint32_t kMaxDownloadTimeoutSeconds = 3600;
