// quenmark-sim: the tool itself on the simulated machine. The machine comes from the file named
// by QUENMARK_SIM_MACHINE (the built-in demo machine when it is unset; written to that file first
// when the file does not exist yet). When the run ends the drives' state goes back into the file,
// as a disk keeps its firmware across power cycles, and the call log is written to the file named
// by QUENMARK_SIM_LOG.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "app/run_driver.hpp"
#include "platform/console_events.hpp"
#include "sim/call_log.hpp"
#include "sim/machine.hpp"
#include "sim/machine_file.hpp"

namespace {

// Distinct from every exit code of the tool, so that a broken machine file is never mistaken
// for an outcome of the run.
constexpr int kExitMachineFileError = 78;

bool file_exists(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return static_cast<bool>(file);
}

int machine_file_error(const std::string& path, const std::string& error) {
    std::fprintf(stderr, "quenmark-sim: machine file %s: %s\n", path.c_str(), error.c_str());
    return kExitMachineFileError;
}

std::string end_line(int exitCode) {
    const sim::Machine& m = sim::machine();
    std::string handles;
    for (std::size_t i = 0; i < m.handles.size(); ++i) {
        if (m.handles[i].open) {
            handles += (handles.empty() ? "" : ",") + std::to_string(4 * (i + 1));
        }
    }
    return "-- end: exit=" + std::to_string(exitCode) + " clock=" + std::to_string(m.clockMs) +
           " open-handles=" + (handles.empty() ? "none" : handles) + "\n";
}

} // namespace

int main(int argumentCount, char** arguments) {
    const char* machineVariable = std::getenv("QUENMARK_SIM_MACHINE");
    const std::string machinePath = machineVariable != nullptr ? machineVariable : "";
    std::string error;
    if (machinePath.empty() || !file_exists(machinePath)) {
        if (!sim::load_machine(sim::demo_machine().dump(2), "", error)) {
            return machine_file_error("(built-in demo)", error);
        }
        if (!machinePath.empty() && !sim::save_machine_file(machinePath, error)) {
            return machine_file_error(machinePath, error);
        }
    } else if (!sim::load_machine_file(machinePath, error)) {
        return machine_file_error(machinePath, error);
    }

    sim::attach_real_console_events = console_events::attach;
    int exitCode = quenmark_main(argumentCount, arguments);

    if (!machinePath.empty() && !sim::save_machine_file(machinePath, error)) {
        exitCode = machine_file_error(machinePath, error);
    }
    const char* logPath = std::getenv("QUENMARK_SIM_LOG");
    if (logPath != nullptr && *logPath != '\0') {
        std::ofstream log(logPath, std::ios::binary | std::ios::trunc);
        log << sim::call_log_text(sim::machine().log) << end_line(exitCode);
        if (!log) {
            std::fprintf(stderr, "quenmark-sim: cannot write the call log %s\n", logPath);
        }
    }
    return exitCode;
}
