#include <unistd.h>

#include "front_end/src/front_end_error.h"
#include "tvkctl/src/diagnosis/diagnosis.h"

namespace tarvik::tvkctl {

namespace {

cause cause_of(failure what)
{
    switch (what) {
    case failure::start_failed:
        return cause{"not_executable"};
    case failure::exited_early:
        return cause{"exited_early"};
    case failure::start_refused:
        return cause{"start_refused"};
    case failure::bad_port_line:
        return cause{"bad_port_line"};
    case failure::timed_out:
        return cause{"timed_out"};
    default:
        return cause{"not_accepting"};
    }
}

check_result not_found()
{
    return {outcome::failed,
            cause{"not_found"},
            "there is no tvkintif beside tvkctl or in PATH",
            {},
            {"install it, or say where it is with --program FILE"}};
}

void start(check_context& context)
{
    context.news.emplace(context.log.directory(), day_of(std::time(nullptr)), log_tail::start::at_the_end);
    launch how{context.machine.program};
    how.errors = launch::standard_error::capture;
    context.program = std::make_unique<front_end>(how);
    context.program->connect();
}

} // namespace

check_result check_program(check_context& context)
{
    const std::string& path = context.machine.program;
    if (path.empty())
        return not_found();
    try {
        start(context);
    } catch (const front_end_error& error) {
        context.program.reset();
        return {outcome::failed, cause_of(error.cause()), error.what(), {}, {error.advice(), "ldd " + path}};
    }
    return {outcome::ok, {}, path + " starts, prints a port and accepts"};
}

} // namespace tarvik::tvkctl
