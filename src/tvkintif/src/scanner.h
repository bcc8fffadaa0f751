#pragma once

#include <memory>
#include <string>

class interpreter;
class usb_transceiver;

/// The one scanner session of the process: at most one device is open and at most one plugin runs.
///
/// Owns the running plugin. Shares the USB connection with the two callbacks that the plugin was given,
/// each for the length of one transfer. Destruction stops the plugin, unloads it and closes the device.
/// Causes of a failure are told in the log only.
///
/// Threads: one. The callbacks may come from a thread of the plugin's own: the connection object then
/// lives until their transfer returns, and nothing more is guarded.
class scanner {
public:
    static constexpr int kOk = 0;
    static constexpr int kNoPlugin = 1;
    static constexpr int kSendFailed = 200;
    static constexpr int kRecvFailed = 201;

    /// How often open() looks for its device, and how long it waits between two attempts.
    static constexpr int kConnectionAttempts = 5;
    static constexpr unsigned int kPauseSeconds = 3;

    /// The session, created on first use and destroyed at process exit.
    static scanner& instance();

    scanner();
    scanner(const scanner&) = delete;
    scanner& operator=(const scanner&) = delete;
    ~scanner();

    /// Connects the device whose address (udi.h) `text` is and starts the plugin of its model. True when a
    /// device is connected and a plugin runs afterwards; at once so when one was connected before, whatever
    /// `text` says. Without a device it fails after all its attempts.
    bool open(const std::string& text);

    /// Stops and unloads the plugin, then closes the device. Harmless when nothing is open.
    void close();

    /// Hands `length` bytes to the plugin. kOk, kNoPlugin or kSendFailed. `value` is not used.
    int send(unsigned char* data, unsigned int length, unsigned int value);

    /// Has the plugin fill all `length` bytes of `data`. kOk, kNoPlugin or kRecvFailed.
    int recv(unsigned char* data, unsigned int length);

    /// The USB connection, or empty.
    std::shared_ptr<usb_transceiver> usb_con();

private:
    /// Takes the connection over and starts the plugin on it; on refusal both are gone.
    bool start(std::unique_ptr<interpreter> plugin, std::shared_ptr<usb_transceiver> usb);

    std::shared_ptr<usb_transceiver> m_usb;
    std::unique_ptr<interpreter> m_interpreter; // destroyed before the connection that it may still use
};
