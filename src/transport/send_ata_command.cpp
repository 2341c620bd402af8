#include "transport/transport.hpp"

Status send_ata_command(DeviceContext& context) {
    if ((context.interfaceKind & ScsiPassThrough) != 0) {
        return scsi_pass_through(context);
    }
    if ((context.interfaceKind & AtaPassThrough) != 0) {
        return ata_pass_through(context);
    }
    if ((context.interfaceKind & Csmi) != 0) {
        return issue_csmi_command(context);
    }
    // No transport bit: nothing can carry the command.
    return Status::InterfaceNotSupported;
}
