#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "process/faults/injection.h"
#include "process/wire.h"

namespace faults {

using process_test::bytes;

/// One request and what a healthy program answers.
struct exchange {
    bytes request;
    bytes reply;
};

/// A front-end that sends all its requests at once, ends its stream, and reads what comes.
struct session {
    const char* name;
    std::string bus; ///< in the language of fake_usb/script.h
    std::vector<exchange> exchanges;

    /// For messages.
    friend std::ostream& operator<<(std::ostream& out, const session& what) { return out << what.name; }
};

/// Logging: off, or at which level.
enum class logging { off, info, trace };

/// Everything about one run.
struct outcome {
    int status = 0; ///< as waitpid() has it
    std::string output;
    bytes replies;
    std::string log;
    std::vector<std::string> dialogue;
    pid_t process = 0;
};

/// Runs the program once. What it tells of itself is in shared_report() until the next run.
outcome run(const session& what, const injection& failure, logging how, const bus_state* before = nullptr);
report& shared_report();

} // namespace faults
