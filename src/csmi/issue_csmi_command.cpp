#include "csmi/csmi.hpp"
#include "transport/transport.hpp"

Status issue_csmi_command(DeviceContext& context) {
    (void)context;
    return Status::Failed;
}
