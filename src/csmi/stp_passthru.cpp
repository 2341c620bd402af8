#include "csmi/csmi.hpp"

Status issue_stp_passthru(DeviceContext& context) {
    (void)context;
    return Status::Failed;
}
