// A plugin that lets a C++ exception out.
#include <tarvik/interpreter.h>

#include <stdexcept>

int interpreter_ctor(tarvik_transfer, tarvik_transfer)
{
    throw std::runtime_error("no scanner today");
}

void interpreter_dtor(void) {}

int interpreter_reader(void*, int)
{
    return 0;
}

int interpreter_writer(void*, int)
{
    return 0;
}
