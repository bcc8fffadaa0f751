#include <csignal>
#include <string>
#include <vector>

#include "tvkctl/src/commands/cli.h"

int main(int argc, char** argv)
{
    // Whoever started this may ignore it, and then nobody could tell how the children of this process ended.
    std::signal(SIGCHLD, SIG_DFL);
    tarvik::tvkctl::console io(tarvik::tvkctl::standard_output(), tarvik::tvkctl::standard_error());
    return static_cast<int>(
        tarvik::tvkctl::run_cli({argv + 1, argv + argc}, io, tarvik::tvkctl::this_host()));
}
