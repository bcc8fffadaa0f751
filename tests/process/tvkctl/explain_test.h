#pragma once

#include <string>
#include <vector>

#include "process/tvkctl/tvkctl_test.h"

namespace process_test {

/// tvkctl explain on a machine where all is well: one scanner at bus 1, device 1, port 1, with a node that
/// everybody may open, on an interface that is free. Tests break one thing.
class explain_test : public tvkctl_test {
protected:
    static constexpr const char* kUdi = "usb:1a2b:3c4d";
    static constexpr const char* kPort = "1-1";

    void SetUp() override;
    void TearDown() override;

    tvkctl_result explain(const std::string& udi = kUdi, const std::vector<std::string>& more = {});

    std::string node() const { return m_node; }
    static std::string plugin_file();
    /// Installs something that is not a plugin in the place of one.
    static void with_plugin_file(const std::string& content);
    /// A shell script in the place of tvkintif; its path.
    static std::string program_that(const std::string& script);

private:
    std::string m_node;
};

} // namespace process_test
