#include <csignal>
#include <string>
#include <vector>

#include "tvkctl/src/cli.h"

int main(int argc, char** argv)
{
    // Whoever started this may ignore it, and then nobody could tell how the children of this process ended.
    std::signal(SIGCHLD, SIG_DFL);
    tvkctl::console io(tvkctl::standard_output(), tvkctl::standard_error());
    return static_cast<int>(tvkctl::run_cli({argv + 1, argv + argc}, io, tvkctl::this_host()));
}
