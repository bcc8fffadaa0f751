// Puts the fake bus under a program that is linked to the real libusb:
//
//     LD_PRELOAD=.../libfake_usb_preload.so FAKE_USB_BUS=bus.txt FAKE_USB_DIALOGUE=dialogue.txt tvkintif
//
// FAKE_USB_BUS names a script (see script.h). Each line of the dialogue is appended to FAKE_USB_DIALOGUE as
// it happens, so that it outlives a killed process; at exit follow "LEFT BEHIND: ..." for each thing not
// given back, and "end of process".

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "fake_usb/bus.h"
#include "fake_usb/script.h"
#include "support/dialogue.h"

namespace {

fake_usb::bus* made_bus = nullptr; // never destroyed: the program calls until its last moment
fake_usb::script_options options;

[[noreturn]] void give_up(const std::string& reason)
{
    std::fprintf(stderr, "fake_usb: %s\n", reason.c_str());
    std::abort();
}

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr)
        give_up(std::string(name) + " is not set; preload.cpp says what it is for");
    return value;
}

void append_to_file(const std::string& line)
{
    static const std::string* const path = new std::string(environment("FAKE_USB_DIALOGUE"));
    const int file = open(path->c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const std::string text = line + "\n";
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        give_up("cannot write the dialogue to " + *path);
    close(file);
}

void make_bus()
{
    const std::string path = environment("FAKE_USB_BUS");
    std::ifstream script(path);
    if (!script)
        give_up("cannot read the bus from " + path);
    made_bus = new fake_usb::bus;
    try {
        options = fake_usb::load_script(script, path, *made_bus);
    } catch (const std::invalid_argument& problem) {
        give_up(problem.what());
    }
}

/// Not before the first call, so that a shell between the test and the program has no part in it.
__attribute__((constructor)) void prepare()
{
    support::set_dialogue_sink(append_to_file);
    fake_usb::bus::set_provider(make_bus);
}

/// Runs after everything that the program destroys at exit.
__attribute__((destructor)) void conclude()
{
    if (made_bus != nullptr)
        for (const std::string& thing : made_bus->leftovers())
            support::record("LEFT BEHIND: " + thing);
    if (!support::dialogue().empty())
        support::record("end of process");
}

template <typename Function>
Function the_real(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name)); // how the loader hands functions out
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) unsigned int sleep(unsigned int seconds)
{
    if (!options.is_clock_recorded)
        return the_real<unsigned int (*)(unsigned int)>("sleep")(options.is_clock_slow ? seconds * 1000
                                                                                       : seconds);
    support::record("sleep " + std::to_string(seconds));
    return 0;
}

__attribute__((visibility("default"))) int usleep(useconds_t microseconds)
{
    if (!options.is_clock_recorded)
        return the_real<int (*)(useconds_t)>("usleep")(microseconds);
    support::record("usleep " + std::to_string(microseconds));
    return 0;
}
}
