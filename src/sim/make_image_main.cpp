// quenmark-sim-image: writes firmware images in the simulated drives' own format, valid ones and
// deliberately broken ones for tests.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "sim/microcode_image.hpp"

namespace {

constexpr char kUsage[] =
    "usage: quenmark-sim-image --revision REV --size BYTES -o FILE [--bad-crc | --bad-magic | "
    "--bad-length]\n"
    "  REV    the firmware revision the image carries, 1 to 8 characters\n"
    "  BYTES  the image size, 32 to 33553920 (decimal, or 0x hexadecimal)\n"
    "  --bad-crc     a wrong CRC-32 in the header\n"
    "  --bad-magic   a wrong magic in the header\n"
    "  --bad-length  a header length 512 bytes longer than the image\n";

int usage_error(const char* message) {
    std::fprintf(stderr, "quenmark-sim-image: %s\n%s", message, kUsage);
    return 2;
}

bool parse_size(const char* text, std::uint32_t& size) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 0);
    if (end == text || *end != '\0' || text[0] == '-' || value < sim::kImageHeaderBytes ||
        value > sim::kImageMaxBytes) {
        return false;
    }
    size = static_cast<std::uint32_t>(value);
    return true;
}

} // namespace

int main(int argumentCount, char** arguments) {
    std::string revision;
    std::string output;
    std::uint32_t size = 0;
    bool haveSize = false;
    sim::ImageDefect defect = sim::ImageDefect::None;
    for (int i = 1; i < argumentCount; ++i) {
        const std::string argument = arguments[i];
        const bool hasValue = i + 1 < argumentCount;
        if (argument == "--help" || argument == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (argument == "--revision" && hasValue) {
            revision = arguments[++i];
        } else if (argument == "--size" && hasValue) {
            if (!parse_size(arguments[++i], size)) {
                return usage_error("--size must be a number from 32 to 33553920");
            }
            haveSize = true;
        } else if ((argument == "-o" || argument == "--output") && hasValue) {
            output = arguments[++i];
        } else if (argument == "--bad-crc" || argument == "--bad-magic" ||
                   argument == "--bad-length") {
            if (defect != sim::ImageDefect::None) {
                return usage_error("only one defect at a time");
            }
            defect = argument == "--bad-crc"     ? sim::ImageDefect::BadCrc
                     : argument == "--bad-magic" ? sim::ImageDefect::BadMagic
                                                 : sim::ImageDefect::BadLength;
        } else {
            return usage_error(("unexpected argument " + argument).c_str());
        }
    }
    if (revision.empty() || revision.size() > 8) {
        return usage_error("--revision needs 1 to 8 characters");
    }
    if (!haveSize) {
        return usage_error("--size is missing");
    }
    if (output.empty()) {
        return usage_error("-o is missing");
    }
    const std::vector<std::uint8_t> image = sim::make_image(revision, size, defect);
    std::ofstream file(output, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(image.data()),
               static_cast<std::streamsize>(image.size()));
    file.close();
    if (!file) {
        std::fprintf(stderr, "quenmark-sim-image: cannot write %s\n", output.c_str());
        return 1;
    }
    return 0;
}
