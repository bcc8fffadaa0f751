/* A plugin that costs what every plugin costs: it fills what it was asked for, and does nothing else. */
#include <string.h>
#include <tarvik/interpreter.h>

int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    (void)reader;
    (void)writer;
    return 1;
}

void interpreter_dtor(void) {}

int interpreter_reader(void* buffer, int length)
{
    memset(buffer, 7, (size_t)length);
    return 1;
}

int interpreter_writer(void* buffer, int length)
{
    (void)buffer;
    (void)length;
    return 1;
}
