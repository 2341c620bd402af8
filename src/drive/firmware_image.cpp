#include "drive/firmware_image.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>
#include <system_error>

#include "drive/transfer_plan.hpp"
#include "platform/console.hpp"
#include "platform/utf8.hpp"

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

std::filesystem::path native_path(const wchar_t* fileName) {
#ifdef _WIN32
    return std::filesystem::path(std::wstring(fileName));
#else
    return std::filesystem::path(utf8::to_utf8(fileName));
#endif
}

// Read-only, binary, shared with other readers and writers.
std::FILE* open_for_reading(const std::filesystem::path& path) {
#ifdef _WIN32
    return _wfopen(path.c_str(), L"rb");
#else
    return std::fopen(path.c_str(), "rb");
#endif
}

// The distance from the start to the end of the file, or -1.
long long measure_size(std::FILE* file) {
#ifdef _WIN32
    // long is 32 bits here; a file above 2 GiB must still be measured to be refused as too large.
    if (_fseeki64(file, 0, SEEK_END) != 0) {
        return -1;
    }
    const long long end = _ftelli64(file);
    if (end < 0 || _fseeki64(file, 0, SEEK_SET) != 0) {
        return -1;
    }
#else
    if (std::fseek(file, 0, SEEK_END) != 0) {
        return -1;
    }
    const long long end = std::ftell(file);
    if (end < 0 || std::fseek(file, 0, SEEK_SET) != 0) {
        return -1;
    }
#endif
    return end;
}

} // namespace

bool measure_firmware_file(const wchar_t* fileName, std::uint32_t& size) {
    const std::filesystem::path path = native_path(fileName);
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error) || error) {
        return false;
    }
    const std::uintmax_t bytes = std::filesystem::file_size(path, error);
    if (error || bytes > kMaxImageBytes) {
        return false;
    }
    size = static_cast<std::uint32_t>(bytes);
    return true;
}

void print_image_refusal(const char* why, const wchar_t* fileName) {
    const console::Message message(console::Severity::Error);
    console::err() << "Firmware file " << why << ": " << console::to_console_bytes(fileName)
                   << std::endl;
}

Status read_firmware_image(const wchar_t* fileName, std::int32_t verbose, FirmwareImage& image) {
    const std::filesystem::path path = native_path(fileName);

    // A directory or a device may open, and may even report a size, but holds no image; the
    // bytes it delivered would go to the drive as firmware.
    std::error_code statusError;
    const std::filesystem::file_status status = std::filesystem::status(path, statusError);
    const bool knownRegular = !statusError && std::filesystem::is_regular_file(status);
    if (!statusError && !knownRegular) {
        print_image_refusal("is not a regular file", fileName);
        return Status::BadFirmwareFile;
    }

    errno = 0;
    File file(open_for_reading(path));
    if (!file) {
        const int openError = errno;
        if (verbose != 0) {
            const console::Message message(console::Severity::Error);
            console::err() << "File Open Failure: " << std::strerror(openError) << std::endl;
        }
        return Status::BadFirmwareFile;
    }
    if (!knownRegular) {
        print_image_refusal("is not a regular file", fileName);
        return Status::BadFirmwareFile;
    }

    const long long size = measure_size(file.get());
    if (size < 0) {
        print_image_refusal("size cannot be read", fileName);
        return Status::BadFirmwareFile;
    }
    if (size > static_cast<long long>(kMaxImageBytes)) {
        print_image_refusal("is larger than 33553920 bytes (65535 blocks)", fileName);
        return Status::BadFirmwareFile;
    }

    const std::size_t bytes = static_cast<std::size_t>(size);
    // One byte at least: an empty image still gets a buffer its transfers can point into.
    image.bytes.reset(static_cast<std::uint8_t*>(std::calloc(bytes != 0 ? bytes : 1, 1)));
    if (!image.bytes) {
        return Status::OutOfMemory;
    }
    image.size = static_cast<std::uint32_t>(size);

    // Bytes not read would stay zero and go to the drive as part of its firmware.
    if (std::fread(image.bytes.get(), 1, bytes, file.get()) != bytes) {
        image.bytes.reset();
        image.size = 0;
        print_image_refusal("could not be read whole", fileName);
        return Status::BadFirmwareFile;
    }
    return Status::Success;
}
