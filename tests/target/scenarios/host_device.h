#pragma once

#include <string>

namespace target {

/// A device as the host sees it, by its folder in sysfs. It is the one that was plugged in when it was looked
/// for: another plugging-in makes another.
class host_device {
public:
    /// The device of which this attribute has this value ("idProduct", "3c4d"). Throws std::runtime_error
    /// when there is none.
    host_device(const std::string& attribute, const std::string& value);

    /// An attribute of the device; empty when it has none of that name.
    std::string attribute(const std::string& name) const;
    /// The driver that is bound to an interface of the active configuration; empty: none.
    std::string driver(int interface_number) const;
    /// Makes another configuration the active one.
    void configure(int value) const;
    /// The file through which programs open it.
    std::string node() const;

private:
    std::string m_folder;
};

/// Returns when udev's daemon has given the node of every device on the bus its rights; the kernel leaves one
/// to root alone. The daemon itself is not asked: now and then it ignores a question, not knowing whose it
/// is. Throws std::runtime_error.
void wait_for_node_rights();

} // namespace target
