#pragma once

#include "transport/status.hpp"

// One whole run from the command line to the exit code. The process entry point calls it with
// its own arguments; tests call it in-process against the simulated machine.
int quenmark_main(int argumentCount, char** arguments);

int map_status_to_exit_code(Status status);
