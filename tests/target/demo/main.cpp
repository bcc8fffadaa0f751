// Parts of the demonstration that demo/show plays:
//
//   target_demo session     a session of the real program with the virtual scanner, told on the terminal
//                           as it happens: every frame that is shown was on the wire, every figure was
//                           measured
//   target_demo log COPY    what the program's log has of it and of the sessions behind it; all of it to COPY
//
// Exit status: 0 when all went as it must.
#include <sys/utsname.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/log_reader.h"
#include "target/demo/frame_printer.h"
#include "target/scanner/command_set.h"
#include "target/scenarios/conversation.h"

namespace {

using tarvik::reply;
using tarvik::request_code;
using virtual_scanner::bytes;
using virtual_scanner::command_code;
using virtual_scanner::fault_kind;
using virtual_scanner::text_at;

constexpr const char* kProgram = "/usr/bin/tvkintif";
constexpr const char* kAddress = "usb:1a2b:3c4d:SN0042";
constexpr std::uint32_t kMebibyte = 1024 * 1024;

void say(const std::string& text)
{
    std::printf("\n\033[1m%s\033[0m\n", text.c_str());
}

void note(const std::string& text)
{
    std::printf("      \033[2m%s\033[0m\n", text.c_str());
}

void demand(bool condition, const std::string& what)
{
    if (!condition)
        throw std::runtime_error("the demonstration went wrong: " + what);
}

void demand(const reply& came, reply::verdict expected)
{
    demand(came.kind == expected,
           std::string("expected ") + tarvik::name_of(expected) + ", got " + tarvik::name_of(came.kind));
}

void command(target::conversation& program, command_code code, std::uint32_t argument = 0,
             const bytes& payload = {})
{
    demand(program.ask(request_code::send, 0,
                       virtual_scanner::encode_with_payload({code, 1, argument, 0}, payload)),
           reply::verdict::ok);
}

bytes take(target::conversation& program, std::uint32_t count)
{
    const reply came = program.ask(request_code::recv, count);
    demand(came, reply::verdict::ok);
    return came.payload;
}

bytes answer(target::conversation& program)
{
    const virtual_scanner::block block =
        virtual_scanner::first_block(take(program, virtual_scanner::kBlockSize));
    virtual_scanner::answer decoded{};
    demand(decode(block, decoded) && decoded.status == virtual_scanner::answer_status::ok,
           "the scanner's answer");
    return decoded.data_length == 0 ? bytes() : take(program, decoded.data_length);
}

void show_identity(target::conversation& program)
{
    say("Ask the scanner who it is: a command of its own, passed through the plugin");
    command(program, command_code::identify);
    const bytes identity = answer(program);
    note("\"" + text_at(identity, 0, 32) + "\", firmware " + text_at(identity, 32, 16) + ", serial number " +
         text_at(identity, 48, 16));
}

void show_both_ways(target::conversation& program)
{
    say("Bytes to the scanner, and the same bytes back");
    const std::string text = "Everything in its own words.";
    const bytes payload(text.begin(), text.end());
    command(program, command_code::echo, 0, payload);
    const bytes echoed = answer(program);
    demand(echoed == payload, "the scanner gave other bytes back");
    note("it gave back \"" + std::string(echoed.begin(), echoed.end()) + "\"");
}

void show_large_receive(target::conversation& program)
{
    say("1 MiB from the scanner in one receive");
    command(program, command_code::read_pattern, kMebibyte);
    const auto start = std::chrono::steady_clock::now();
    const bytes data = answer(program);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    demand(data == virtual_scanner::pattern(kMebibyte), "the bytes are not the ones of the pattern");
    char text[100];
    std::snprintf(text, sizeof text, "all %u bytes are right, in %.0f ms: %.1f MB/s (emulated, both ends)",
                  kMebibyte, time.count() * 1000, kMebibyte / time.count() / 1e6);
    note(text);
}

void show_stall(target::conversation& program)
{
    say("The scanner stalls once: that receive is refused, the next one works");
    command(program, command_code::fault, static_cast<std::uint32_t>(fault_kind::stall_in));
    answer(program);
    command(program, command_code::identify);
    demand(program.ask(request_code::recv, virtual_scanner::kBlockSize), reply::verdict::ng);
    demand(answer(program).size() == 64, "no identity after the stall");
}

void show_session()
{
    utsname machine{};
    ::uname(&machine);
    say(std::string("Start tvkintif on ") + machine.sysname + " " + machine.release + ", " + machine.machine);
    target::conversation program(tarvik::launch{kProgram});
    note("it waits on port " + std::to_string(program.port()));
    program.observe(target::frame_printer());
    program.connect();
    say("Open the scanner by its serial number");
    demand(program.ask(request_code::open, 0, kAddress), reply::verdict::ok);
    show_identity(program);
    show_both_ways(program);
    show_large_receive(program);
    show_stall(program);
    say("Close");
    program.put(request_code::close);
    const auto status = program.process().wait_for_exit(support::kPatience);
    demand(status == tarvik::exit_status::exited(0), "the program's end");
    note("it ended with " + status.text());
}

/// Whether a line tells of a single read or write on the connection, of which there are three for each frame.
bool is_transfer_line(const std::string& line)
{
    return line.find("]ipc connection ") != std::string::npos ||
           line.find("]transferred ") != std::string::npos;
}

void show_log(const char* copy)
{
    const std::string whole = support::raw_log();
    std::ofstream(copy) << whole;
    std::istringstream lines(whole);
    std::string shown;
    int left_out = 0;
    for (std::string line; std::getline(lines, line);) {
        if (is_transfer_line(line))
            ++left_out;
        else
            shown += "  " + line + "\n";
    }
    say("The log that it left, but for " + std::to_string(left_out) + " lines about single reads and writes");
    std::fputs(shown.c_str(), stdout);
}

} // namespace

int main(int argc, char** argv)
{
    const std::string part = argc > 1 ? argv[1] : "";
    try {
        if (part == "session" && argc == 2)
            show_session();
        else if (part == "log" && argc == 3)
            show_log(argv[2]);
        else
            throw std::invalid_argument("usage: target_demo session | log COPY");
        return EXIT_SUCCESS;
    } catch (const std::exception& reason) {
        std::printf("\n%s\n", reason.what());
        return EXIT_FAILURE;
    }
}
