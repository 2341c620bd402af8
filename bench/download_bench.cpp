// Figures of the firmware download engine against the simulated SAT bridge, in-process: commands
// per download, CPU time per command, time per command beyond a plain memcpy of the image, and
// peak resident memory against the image size (each case in a fresh process).
//
//   quenmark_bench                   the timings, then the memory probes
//   quenmark_bench --carry-out       the simulated drive also judges each image (its CRC-32)
//   quenmark_bench --fresh-memory    glibc's own mmap and trim thresholds: buffers faulted in anew
//   quenmark_bench --peak-memory SIZE MODE SEGMENT FILE
//                                    one download in this process; prints its memory figures
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "drive/download_firmware.hpp"
#include "drive/firmware_image.hpp"
#include "drive/progress_line.hpp"
#include "drive/transfer_plan.hpp"
#include "platform/console.hpp"
#include "sim/machine.hpp"
#include "sim/microcode_image.hpp"
#include "transport/transport.hpp"

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kOneMiB = 1048576;
constexpr std::uint32_t kBudgetMicroseconds = 5;
constexpr long kBudgetSlackKiB = 4096;

bool carryOut = false;
bool freshMemory = false;
fs::path imageFolder;

struct Case {
    std::uint32_t size;
    std::uint8_t mode;
    std::uint8_t segmentBlocks;
};

const Case kCases[] = {
    // One block: what a call costs beyond its bytes, for comparison with the 1 MiB call.
    {kBlockBytes, 0x07, 64},    {kOneMiB, 0x07, 64},         {kOneMiB, 0x03, 1},
    {kOneMiB, 0x03, 64},        {kOneMiB, 0x03, 255},        {kOneMiB, 0x0E, 64},
    {kOneMiB, 0x0F, 0},         {kMaxImageBytes, 0x07, 64},  {kMaxImageBytes, 0x03, 1},
    {kMaxImageBytes, 0x03, 64}, {kMaxImageBytes, 0x03, 255}, {kMaxImageBytes, 0x0E, 64},
    {kMaxImageBytes, 0x0F, 0},
};

std::string case_name(const Case& c) {
    char text[64];
    std::snprintf(text, sizeof text, "%s mode 0x%02X seg %u",
                  c.size == kOneMiB          ? "1 MiB"
                  : c.size == kMaxImageBytes ? "32 MiB"
                                             : "512 B",
                  c.mode, c.segmentBlocks);
    return text;
}

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

fs::path image_path(std::uint32_t size) {
    return imageFolder / ("fw-" + std::to_string(size) + ".bin");
}

void write_image(std::uint32_t size) {
    const std::vector<std::uint8_t> image = sim::make_image("QTBENCH1", size);
    std::ofstream file(image_path(size), std::ios::binary);
    file.write(reinterpret_cast<const char*>(image.data()),
               static_cast<std::streamsize>(image.size()));
}

// One disk, one drive with no block limits. Unless the drive carries the commands out, it
// acknowledges each DOWNLOAD MICROCODE without judging the image: the simulator's bitwise
// CRC-32 of a whole image would otherwise swamp the tool's own time.
DeviceContext open_bench_drive() {
    sim::reset_machine();
    std::string error;
    const char* machine = R"({
      "drives": [{"id": "d0", "firmware": "QT010000", "enforceBlockLimits": false}],
      "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0"}]
    })";
    if (!sim::load_machine(machine, "", error)) {
        std::fprintf(stderr, "quenmark_bench: %s\n", error.c_str());
        std::exit(1);
    }
    if (!carryOut) {
        sim::CommandFault acknowledge;
        acknowledge.command = 0x92;
        acknowledge.status = 0x50;
        acknowledge.error = 0;
        sim::machine().faults.commands.push_back(acknowledge);
    }
    DeviceContext context = make_device_context();
    if (open_device(context, L"\\\\.\\PhysicalDrive0") != Status::Success) {
        std::fprintf(stderr, "quenmark_bench: the simulated drive does not open\n");
        std::exit(1);
    }
    return context;
}

DownloadRequest make_request(const Case& c) {
    DownloadRequest request{};
    image_path(c.size).wstring().copy(request.fileName, kPathUnits - 1);
    request.downloadMode = c.mode;
    request.segmentBlocks = c.segmentBlocks;
    return request;
}

std::uint32_t commands_of(const Case& c) {
    const TransferPlan plan = plan_transfers(c.size, c.mode, c.segmentBlocks);
    return plan.transferCount + (plan.remainderBytes != 0 ? 1u : 0u);
}

// Reads the image file whole, as the engine does before its first command.
void read_image(const DownloadRequest& request) {
    FirmwareImage image;
    read_firmware_image(request.fileName, 0, image);
    benchmark::DoNotOptimize(image.bytes.get());
}

// Moves every data phase of the download as the simulated bridge moves it: each transfer's
// bytes copied into a buffer of its own.
void copy_data_phases(const std::vector<std::uint8_t>& image, const Case& c) {
    if (c.mode == kModeActivate) {
        return;
    }
    const TransferPlan plan = plan_transfers(c.size, c.mode, c.segmentBlocks);
    std::size_t offset = 0;
    for (std::uint32_t i = 0; i <= plan.transferCount; ++i) {
        const std::size_t length =
            i < plan.transferCount ? plan.transferBytes : plan.remainderBytes;
        if (length == 0) {
            break;
        }
        std::vector<std::uint8_t> copy(image.data() + offset, image.data() + offset + length);
        benchmark::DoNotOptimize(copy.data());
        offset += length;
    }
}

template <typename Work>
double timed(Work work) {
    const double start = cpu_seconds();
    work();
    return cpu_seconds() - start;
}

struct Figures {
    std::uint32_t commands = 0;
    // CPU seconds per download, and per moving of its bytes measured beside it.
    double download = 0;
    double read = 0;
    double copies = 0;
    double memcpy = 0;
    // What is left per command once the bytes are moved: the engine, the transport, and the
    // simulator's decoding and logging of the request.
    double beyond() const { return (download - read - copies) / commands; }
};
std::map<int, Figures> results;

// Each iteration times one download and, beside it (untimed by the framework), the moves of the
// same bytes: the file read, the bridge's copies, one plain memcpy of the image.
void download_benchmark(benchmark::State& state, int index) {
    const Case& c = kCases[index];
    DeviceContext context = open_bench_drive();
    const DownloadRequest request = make_request(c);
    const std::vector<std::uint8_t> source(c.size, 0x5A);
    std::vector<std::uint8_t> destination(c.size, 0);
    // Room for the whole call log of one download, so that its growth is not timed.
    sim::machine().log.reserve(std::size_t{commands_of(c)} * 4 + 64);

    Figures sum;
    std::int64_t downloads = 0;
    for (auto _ : state) {
        Status status = Status::Success;
        DownloadRecord record{};
        sum.download += timed([&] { status = download_firmware(context, request, record); });
        if (status != Status::Success) {
            state.SkipWithError("the download failed");
            return;
        }
        state.PauseTiming();
        // The simulator's call log is no part of the tool; keep it from growing run after run.
        sim::machine().log.clear();
        sum.read += timed([&] { read_image(request); });
        sum.copies += timed([&] { copy_data_phases(source, c); });
        sum.memcpy += timed([&] {
            std::memcpy(destination.data(), source.data(), c.size);
            benchmark::ClobberMemory();
        });
        ++downloads;
        state.ResumeTiming();
    }

    const double n = static_cast<double>(downloads);
    Figures figures{commands_of(c), sum.download / n, sum.read / n, sum.copies / n, sum.memcpy / n};
    results[index] = figures;
    state.counters["commands"] = figures.commands;
    state.counters["cpu_us/cmd"] = figures.download / figures.commands * 1e6;
    state.counters["beyond_us/cmd"] = figures.beyond() * 1e6;
    state.counters["x_memcpy"] = figures.download / figures.memcpy;
    state.SetBytesProcessed(static_cast<std::int64_t>(c.size) * state.iterations());
}

// The engine's own work after each full transfer: the progress line, into the discarding sink.
void progress_line_benchmark(benchmark::State& state) {
    for (auto _ : state) {
        draw_progress_line(52);
    }
}

struct Memory {
    long baselineKiB = -1;
    long peakGrowthKiB = -1;
    long retainedKiB = -1;
};

long max_rss_kib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// The child side of a memory probe: one download in a fresh process.
int peak_memory_probe(const Case& c) {
    console::set_sinks([](const char*, std::size_t) {}, [](const char*, std::size_t) {});
    DeviceContext context = open_bench_drive();
    const DownloadRequest request = make_request(c);
    // The call log's array is set aside up front (untouched pages cost no resident memory), so
    // that its growth never holds two copies of it at once; what the log holds after the call,
    // its records and their texts, is the simulator's share.
    sim::machine().log.reserve(std::size_t{commands_of(c)} * 4 + 64);
    malloc_trim(0);
    const std::size_t heapBefore = mallinfo2().uordblks;
    const long before = max_rss_kib();
    DownloadRecord record{};
    const Status status = download_firmware(context, request, record);
    const long after = max_rss_kib();
    const std::size_t heapAfter = mallinfo2().uordblks;
    if (status != Status::Success) {
        return 1;
    }
    const std::size_t logBytes = sim::machine().log.size() * sizeof(sim::CallRecord) +
                                 (heapAfter > heapBefore ? heapAfter - heapBefore : 0);
    std::printf("%ld %ld %ld\n", before, after - before, static_cast<long>(logBytes / 1024));
    return 0;
}

Memory run_memory_probe(const Case& c) {
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    Memory memory;
    if (length <= 0) {
        return memory;
    }
    char command[8192];
    std::snprintf(command, sizeof command, "'%s' --peak-memory %u %u %u '%s'%s", self, c.size,
                  c.mode, c.segmentBlocks, imageFolder.c_str(), carryOut ? " --carry-out" : "");
    FILE* child = popen(command, "r");
    if (child == nullptr) {
        return memory;
    }
    if (std::fscanf(child, "%ld %ld %ld", &memory.baselineKiB, &memory.peakGrowthKiB,
                    &memory.retainedKiB) != 3) {
        memory = Memory{};
    }
    pclose(child);
    return memory;
}

// The cost of one more command for the same bytes: the slope between the finest and the
// coarsest segmentation of one image in mode 0x03.
void print_slope(std::uint32_t size) {
    const Figures* fine = nullptr;
    const Figures* coarse = nullptr;
    for (const auto& [index, f] : results) {
        const Case& c = kCases[index];
        if (c.size == size && c.mode == kModeSegmented && c.segmentBlocks == 1) {
            fine = &f;
        } else if (c.size == size && c.mode == kModeSegmented && c.segmentBlocks == 255) {
            coarse = &f;
        }
    }
    if (fine == nullptr || coarse == nullptr) {
        return;
    }
    const double slope =
        (fine->download - coarse->download) / (fine->commands - coarse->commands) * 1e6;
    std::printf("%-26s %9u %9u %14.3f %8s\n",
                size == kOneMiB ? "1 MiB, mode 0x03" : "32 MiB, mode 0x03", fine->commands,
                coarse->commands, slope, slope < kBudgetMicroseconds ? "holds" : "EXCEEDS");
}

void print_summary() {
    std::printf("\nCPU time per download; beyond = (download - file read - data-phase copies) / "
                "commands, budget %u us.\n",
                kBudgetMicroseconds);
    std::printf("%-26s %9s %11s %10s %10s %10s %9s %11s %10s %8s\n", "case", "commands",
                "download ms", "read ms", "copies ms", "memcpy ms", "x memcpy", "cpu us/cmd",
                "beyond us", "budget");
    for (const auto& [index, f] : results) {
        std::printf("%-26s %9u %11.3f %10.3f %10.3f %10.3f %9.2f %11.3f %10.3f %8s\n",
                    case_name(kCases[index]).c_str(), f.commands, f.download * 1e3, f.read * 1e3,
                    f.copies * 1e3, f.memcpy * 1e3, f.download / f.memcpy,
                    f.download / f.commands * 1e6, f.beyond() * 1e6,
                    f.beyond() * 1e6 < kBudgetMicroseconds ? "holds" : "EXCEEDS");
    }
    std::printf("\nCPU time of one more command for the same bytes (segment 1 against segment "
                "255):\n");
    std::printf("%-26s %9s %9s %14s %8s\n", "image", "commands", "against", "us per command",
                "budget");
    print_slope(kOneMiB);
    print_slope(kMaxImageBytes);

    std::printf("\nPeak resident memory of one download in a fresh process (budget: image + %ld "
                "KiB):\n",
                kBudgetSlackKiB);
    std::printf("%-26s %11s %13s %16s %13s %13s %8s\n", "case", "image KiB", "baseline KiB",
                "peak growth KiB", "sim log KiB", "bridge KiB", "budget");
    for (const Case& c : kCases) {
        const Memory m = run_memory_probe(c);
        const long imageKiB = static_cast<long>(c.size / 1024);
        const TransferPlan plan = plan_transfers(c.size, c.mode, c.segmentBlocks);
        // The simulated bridge copies each data phase, as a driver's probe of the buffer would.
        const long bridgeKiB =
            c.mode == kModeActivate ? 0 : static_cast<long>((plan.transferBytes + 1023) / 1024);
        const long toolGrowth = m.peakGrowthKiB - m.retainedKiB - bridgeKiB;
        std::printf("%-26s %11ld %13ld %16ld %13ld %13ld %8s\n", case_name(c).c_str(), imageKiB,
                    m.baselineKiB, m.peakGrowthKiB, m.retainedKiB, bridgeKiB,
                    m.peakGrowthKiB < 0                        ? "?"
                    : toolGrowth <= imageKiB + kBudgetSlackKiB ? "holds"
                                                               : "EXCEEDS");
    }
    std::printf("The budget is judged on the peak growth less what the simulator holds: its call "
                "log and the bridge's copy of the largest data phase.\n");
}

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> arguments;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--carry-out") == 0) {
            carryOut = true;
        } else if (std::strcmp(argv[i], "--fresh-memory") == 0) {
            freshMemory = true;
        } else {
            arguments.push_back(argv[i]);
        }
    }
    if (arguments.size() == 6 && std::strcmp(arguments[1], "--peak-memory") == 0) {
        const Case c{static_cast<std::uint32_t>(std::strtoul(arguments[2], nullptr, 10)),
                     static_cast<std::uint8_t>(std::strtoul(arguments[3], nullptr, 10)),
                     static_cast<std::uint8_t>(std::strtoul(arguments[4], nullptr, 10))};
        imageFolder = arguments[5];
        return peak_memory_probe(c);
    }

    imageFolder = fs::temp_directory_path() / ("quenmark-bench-" + std::to_string(getpid()));
    fs::create_directories(imageFolder);
    write_image(kBlockBytes);
    write_image(kOneMiB);
    write_image(kMaxImageBytes);
    // The progress line goes nowhere: the console is no part of what is measured.
    console::set_sinks([](const char*, std::size_t) {}, [](const char*, std::size_t) {});

    if (!freshMemory) {
        // Steady state: buffers come back warm from the heap run after run instead of being
        // mapped and faulted in anew, a cost per byte of the kernel's, not per command of ours.
        mallopt(M_MMAP_THRESHOLD, 64 << 20);
        mallopt(M_TRIM_THRESHOLD, 256 << 20);
    }
    benchmark::RegisterBenchmark("progress line", progress_line_benchmark);
    for (int i = 0; i < static_cast<int>(sizeof kCases / sizeof kCases[0]); ++i) {
        benchmark::RegisterBenchmark(("download/" + case_name(kCases[i])).c_str(),
                                     download_benchmark, i)
            ->Unit(benchmark::kMillisecond);
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    print_summary();

    std::error_code ignored;
    fs::remove_all(imageFolder, ignored);
    return 0;
}
