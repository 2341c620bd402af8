#pragma once

#include "drive/drive_info.hpp"
#include "transport/device_context.hpp"

// Standard INQUIRY and the unit serial number page through SCSI pass-through; a failure
// leaves driveInfo as it was.
void inquire_device(DeviceContext& context, DriveInfo& driveInfo);
