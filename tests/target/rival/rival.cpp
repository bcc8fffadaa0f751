// Preloaded into the program: somebody else has the interface just when the program claims it for the first
// time, and has let go of it when the program has learnt that.
#include <dlfcn.h>
#include <libusb.h>

#include <cstdio>
#include <utility>

#include "target/rival/interface_claim.h"

namespace {

std::string node_of(libusb_device_handle* handle)
{
    libusb_device* device = libusb_get_device(handle);
    char path[32];
    std::snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d", libusb_get_bus_number(device),
                  libusb_get_device_address(device));
    return path;
}

} // namespace

extern "C" int libusb_claim_interface(libusb_device_handle* handle, int interface_number)
{
    using function = int (*)(libusb_device_handle*, int);
    static const auto claim = reinterpret_cast<function>(
        dlsym(RTLD_NEXT, "libusb_claim_interface")); // how the loader hands functions out
    static bool is_first = true;
    if (!std::exchange(is_first, false))
        return claim(handle, interface_number);
    const target::interface_claim rival(node_of(handle), static_cast<unsigned int>(interface_number));
    return claim(handle, interface_number);
}
