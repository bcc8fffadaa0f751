#pragma once

#include <gtest/gtest.h>

#include "fake_usb/bus.h"

namespace fake_usb {

/// A bus that fails the test for everything left behind and for every misuse, at its destruction or at
/// verify(), whichever comes first.
class checked_bus : public bus {
public:
    ~checked_bus() override { verify(); }

    void verify()
    {
        if (m_isVerified)
            return;
        m_isVerified = true;
        for (const std::string& thing : leftovers())
            ADD_FAILURE() << "left behind on the USB bus: " << thing;
        for (const std::string& what : misuses())
            ADD_FAILURE() << "libusb was misused: " << what;
    }

private:
    bool m_isVerified = false;
};

} // namespace fake_usb
