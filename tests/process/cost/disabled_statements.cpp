// Makes as many log statements as it is told while the log is off.

#include <cstdlib>

#include "common/log/logger.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

int main(int, char** arguments)
{
    const int count = std::atoi(arguments[1]);
    for (int i = 0; i < count; ++i)
        Logger("main", __LINE__, ESeveryLevel::info)("transferred %d bytes of %d", i, count);
}
