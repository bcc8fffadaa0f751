#include "front_end/src/front_end_error.h"

namespace tarvik {

namespace {

failure cause_of(const process_error& error)
{
    switch (error.cause()) {
    case process_error::failure::start_failed:
        return failure::start_failed;
    case process_error::failure::timed_out:
        break;
    }
    return failure::timed_out;
}

} // namespace

front_end_error::front_end_error(const process_error& error)
    : front_end_error(cause_of(error), error.step(), error.expected(), error.came())
{
}

const char* front_end_error::advice() const
{
    switch (m_cause) {
    case failure::start_failed:
        return "Check that the file is there, may be executed, and is built for this machine.";
    case failure::exited_early:
        return "Run the program by hand: it must print a port number and then wait.";
    case failure::start_refused:
        return "The program could not get a port on 127.0.0.1: check that the loopback interface is up, turn "
               "logging on and start it again.";
    case failure::bad_port_line:
        return "Check that the path names the right program and that nothing else writes to its standard "
               "output.";
    case failure::timed_out:
        return "Allow more time; if that does not help, the last lines of the program's log say what it "
               "waits for.";
    case failure::connection_refused:
        return "Check the port: a program that has its front-end, or has ended, takes no further connection.";
    case failure::connect_failed:
        return "Check that the loopback interface is up.";
    case failure::end_of_stream:
    case failure::connection_lost:
        return "The program ended or was killed: its exit status and the last lines of its log say why.";
    case failure::wrong_id:
    case failure::unexpected_reply:
        break;
    }
    return "Check that the port belongs to the right program, and that every earlier reply was read.";
}

} // namespace tarvik
