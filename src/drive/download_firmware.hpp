#pragma once

#include "drive/download_request.hpp"
#include "transport/device_context.hpp"
#include "transport/status.hpp"

Status download_firmware(DeviceContext& context, DownloadRequest request);
