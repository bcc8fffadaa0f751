#pragma once

#include <string>

namespace target {

/// While it lives, this process acts as the user "guest" of the machine, and what it starts is the guest's
/// for good. Throws std::system_error.
class guest {
public:
    guest();
    guest(const guest&) = delete;
    guest& operator=(const guest&) = delete;
    ~guest();

    /// Makes the guest the owner of a file or folder.
    static void give(const std::string& path);
};

} // namespace target
