#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fake_usb/bus.h"

// libusb leaves these types open; here is what they are on this bus. The memory of none is used again while
// the bus lives, so that a stale pointer is recognised.

struct libusb_context {
    bool is_alive = true;
};

struct libusb_device {
    fake_usb::device description;
    int references = 0;
    bool is_plugged = true;
    std::set<int> detached_drivers = {};
    std::set<std::uint8_t> halted = {};
    std::map<std::uint8_t, std::deque<fake_usb::transfer>> script = {};
    std::map<std::uint8_t, std::vector<unsigned char>> written = {};
    std::map<std::uint8_t, std::size_t> pattern_position = {};
};

struct libusb_device_handle {
    libusb_device* device;
    int shared_claim = -1; ///< a file to be locked; -1: nobody else is on this bus
    bool is_open = true;
    std::set<int> claimed = {};
};

namespace fake_usb {

/// A device list or a configuration descriptor on loan, and whom it describes.
struct device_list {
    std::vector<libusb_device*> devices; ///< ends in a null, as libusb's does
};
struct config_loan {
    std::string name; ///< device and index
    std::vector<std::vector<libusb_interface_descriptor>> settings;
    std::vector<std::vector<libusb_endpoint_descriptor>> endpoints;
    std::vector<libusb_interface> interfaces;
    libusb_config_descriptor descriptor = {};
};

struct hook {
    std::string function;
    int calls_left;
    std::function<void()> action;
};

struct bus_state {
    int searches = 0;
    std::string claims_folder; ///< empty: nobody else is on this bus
    std::vector<std::unique_ptr<libusb_context>> contexts;
    std::vector<std::unique_ptr<libusb_device>> devices;
    std::vector<std::unique_ptr<libusb_device_handle>> handles;
    std::map<libusb_device**, std::unique_ptr<device_list>> lists;
    std::map<libusb_config_descriptor*, std::unique_ptr<config_loan>> configs;
    std::deque<failure> failures; // references to them stay valid
    std::vector<hook> hooks;
    std::vector<std::string> misuses;

    libusb_device& device_named(const std::string& name);
    void misuse(const std::string& what);
};

} // namespace fake_usb
