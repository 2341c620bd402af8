#include "transport/device_context.hpp"

#include <cstring>

DeviceContext make_device_context() {
    DeviceContext context;
    std::memset(&context, 0, sizeof context);
    context.interfaceKind = ScsiPassThrough;
    return context;
}
