#include "sim/identify_data.hpp"

#include "sim/byte_order.hpp"

namespace sim {

std::uint16_t identify_word(const IdentifyData& data, int word) {
    return read_le16(data.data(), static_cast<std::size_t>(word) * 2);
}

void set_identify_word(IdentifyData& data, int word, std::uint16_t value) {
    write_le16(data.data(), static_cast<std::size_t>(word) * 2, value);
}

void put_ata_string(IdentifyData& data, int firstWord, int words, const std::string& text) {
    for (int i = 0; i < words * 2; ++i) {
        const auto c = static_cast<std::uint8_t>(
            static_cast<std::size_t>(i) < text.size() ? text[static_cast<std::size_t>(i)] : ' ');
        // The first character of each word travels in its high byte.
        data[static_cast<std::size_t>(firstWord * 2 + (i ^ 1))] = c;
    }
}

std::string get_ata_string(const IdentifyData& data, int firstWord, int words) {
    std::string text;
    for (int i = 0; i < words * 2; ++i) {
        text += static_cast<char>(data[static_cast<std::size_t>(firstWord * 2 + (i ^ 1))]);
    }
    return text;
}

void seal_identify_checksum(IdentifyData& data) {
    data[510] = 0xA5;
    unsigned sum = 0;
    for (std::size_t i = 0; i < 511; ++i) {
        sum += data[i];
    }
    data[511] = static_cast<std::uint8_t>(0x100 - (sum & 0xFF));
}

bool has_identify_signature(const IdentifyData& data) {
    return data[510] == 0xA5;
}

IdentifyData default_identify() {
    IdentifyData data{};
    const auto set = [&data](int word, std::uint16_t value) {
        set_identify_word(data, word, value);
    };
    set(0, 0x0040); // fixed ATA device
    set(1, 16383);
    set(3, 16);
    set(6, 63);
    set(47, 0x8010); // READ/WRITE MULTIPLE, up to 16 sectors
    set(49, 0x2F00); // LBA, DMA, IORDY
    set(50, 0x4000);
    set(53, 0x0007);
    set(59, 0x0110);
    set(60, 0xFFFF); // 28-bit capacity, capped
    set(61, 0x0FFF);
    set(63, 0x0007);
    set(64, 0x0003);
    for (int word = 65; word <= 68; ++word) {
        set(word, 120);
    }
    set(75, 31);
    set(76, 0x070E); // SATA Gen1 to Gen3, NCQ
    set(80, 0x07F0); // ATA8-ACS, ACS-2, ACS-3
    set(82, 0x746B);
    set(83, 0x7501); // bit 0 DOWNLOAD MICROCODE, bit 10 48-bit addressing
    set(84, 0x4163);
    set(85, 0x7469);
    set(86, 0xB401);
    set(87, 0x4163);
    set(88, 0x407F);
    set(100, 0x12B0); // 1,000,215,216 sectors
    set(101, 0x3B9E);
    set(106, 0x4000);
    set(119, 0x4010); // bit 4: DOWNLOAD MICROCODE with offsets (mode 0x03)
    set(120, 0x4010);
    set(128, 0x0021); // security supported, not enabled: SEC1
    set(217, 0x0001); // non-rotating medium
    set(222, 0x101F);
    set(234, 1);
    set(235, 2048);
    return data;
}

namespace {

constexpr std::uint64_t kPageValid = std::uint64_t{1} << 63;

std::uint64_t page_header(std::uint8_t page) {
    return kPageValid | std::uint64_t{page} << 16 | 0x0001;
}

} // namespace

LogPage identify_log_page3(const DmCapabilities& capabilities) {
    LogPage page{};
    std::uint64_t header = page_header(0x03);
    if (!capabilities.header) {
        header &= ~kPageValid;
    }
    write_le64(page.data(), 0, header);
    write_le64(page.data(), 8, kPageValid); // supported capabilities: valid, nothing claimed
    std::uint64_t dm = kPageValid;
    if (capabilities.offsetsDeferred) {
        dm |= std::uint64_t{1} << 34;
    }
    if (capabilities.clearsNonactivatedDeferredData) {
        dm |= std::uint64_t{1} << 35;
    }
    write_le64(page.data(), 16, dm);
    return page;
}

LogPage identify_log_page0() {
    LogPage page{};
    write_le64(page.data(), 0, page_header(0x00));
    page[8] = 2; // number of entries
    page[9] = 0x00;
    page[10] = 0x03;
    return page;
}

IdentifyData vendor_identify_data(const IdentifyData& identify) {
    IdentifyData data{};
    put_ata_string(data, 0, 10, "QSIM VENDOR IDENTIFY");
    for (std::size_t i = 20; i < 40; ++i) {
        data[i] = identify[i]; // the serial number, words 10 to 19
    }
    set_identify_word(data, 20, 0x0001); // page format
    seal_identify_checksum(data);
    return data;
}

} // namespace sim
