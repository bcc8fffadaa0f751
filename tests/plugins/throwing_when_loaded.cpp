// A plugin that lets an exception out while it is loaded.
#include <stdexcept>

[[gnu::constructor]] static void loaded()
{
    throw std::runtime_error("not today");
}
