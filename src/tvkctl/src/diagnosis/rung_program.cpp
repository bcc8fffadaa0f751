#include <unistd.h>

#include "common/process/front_end_error.h"
#include "tvkctl/src/diagnosis/rungs.h"

namespace tarvik::tvkctl {

namespace {

/// As a word for programs.
const char* name_of(failure cause)
{
    switch (cause) {
    case failure::start_failed:
        return "not_executable";
    case failure::exited_early:
        return "exited_early";
    case failure::start_refused:
        return "start_refused";
    case failure::bad_port_line:
        return "bad_port_line";
    case failure::timed_out:
        return "timed_out";
    default:
        return "not_accepting";
    }
}

rung_result not_found()
{
    return {verdict::bad,
            "not_found",
            "there is no tvkintif beside tvkctl or in PATH",
            {},
            {"install it, or say where it is with --program FILE"}};
}

void start(situation& where)
{
    where.news.emplace(where.log.directory(), day_of(std::time(nullptr)), log_tail::start::at_the_end);
    launch how{where.machine.program};
    how.errors = launch::standard_error::capture;
    where.program = std::make_unique<front_end>(how);
    where.program->connect();
}

} // namespace

rung_result look_at_program(situation& where)
{
    const std::string& path = where.machine.program;
    if (path.empty())
        return not_found();
    try {
        start(where);
    } catch (const front_end_error& error) {
        where.program.reset();
        return {verdict::bad, name_of(error.cause()), error.what(), {}, {error.advice(), "ldd " + path}};
    }
    return {verdict::good, "", path + " starts, prints a port and accepts"};
}

} // namespace tarvik::tvkctl
