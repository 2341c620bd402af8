#include "csmi/csmi.hpp"
#include "transport/transport.hpp"

Status issue_csmi_command(DeviceContext& context) {
    if (context.handle == INVALID_HANDLE_VALUE) {
        return Status::Failed;
    }
    return issue_stp_passthru(context);
}
