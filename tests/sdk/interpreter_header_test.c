/* Compiled only: a plugin of one line per function, in strict C, that includes nothing but the interface. */
#include <tarvik/interpreter.h>

int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    return reader != writer;
}

void interpreter_dtor(void) {}

int interpreter_reader(void* buffer, int length)
{
    return buffer == 0 || length == 0;
}

int interpreter_writer(void* buffer, int length)
{
    return buffer == 0 || length == 0;
}
