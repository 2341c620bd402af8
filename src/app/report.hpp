#pragma once

#include <cstdint>

#include "app/run_options.hpp"
#include "drive/drive_info.hpp"
#include "transport/device_context.hpp"

void print_selection(const RunOptions& options, const DeviceContext& context);
void print_drive_report(const DriveInfo& driveInfo, std::uint8_t segmentBlocks);
