// The firmware image file read whole into one zero-filled buffer, from which every transfer is
// sent in place.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "transport/status.hpp"

struct FreeImage {
    void operator()(std::uint8_t* bytes) const { std::free(bytes); }
};

struct FirmwareImage {
    std::unique_ptr<std::uint8_t[], FreeImage> bytes;
    std::uint32_t size = 0;
};

// Status::Success with the image; Status::BadFirmwareFile when the file cannot be used;
// Status::OutOfMemory when the buffer cannot be had (no message). A file that cannot be opened
// prints "File Open Failure: <reason>" on standard error only when verbose is not 0; a file
// that opens but cannot be sent (not a regular file, above 65,535 blocks, not read whole)
// prints one line saying why on standard error, whatever verbose is.
Status read_firmware_image(const wchar_t* fileName, std::int32_t verbose, FirmwareImage& image);

// The size of the image file, without reading it and without a message. False when the file is
// no regular file, its size cannot be read, or it exceeds kMaxImageBytes: read_firmware_image
// then refuses it with its own line.
bool measure_firmware_file(const wchar_t* fileName, std::uint32_t& size);

// "Firmware file <why>: <name>" and a line end on standard error.
void print_image_refusal(const char* why, const wchar_t* fileName);
