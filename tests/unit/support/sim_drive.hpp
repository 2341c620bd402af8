// A simulated machine loaded from JSON, with \\.\PhysicalDrive0 opened as the run driver opens
// it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "sim/machine.hpp"
#include "transport/transport.hpp"

inline DeviceContext open_sim_drive(const std::string& machineJson) {
    std::string error;
    sim::reset_machine();
    EXPECT_TRUE(sim::load_machine(machineJson, ".", error)) << error;
    DeviceContext context = make_device_context();
    EXPECT_EQ(open_device(context, L"\\\\.\\PhysicalDrive0"), Status::Success);
    return context;
}
