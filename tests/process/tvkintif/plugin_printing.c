/* A plugin that prints to both streams at each of its entry points. */
#include <string.h>
#include <unistd.h>

#include <tarvik/interpreter.h>

static int print(void)
{
    return write(STDOUT_FILENO, "out\n", 4) == 4 && write(STDERR_FILENO, "err\n", 4) == 4;
}

int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    return reader != NULL && writer != NULL && print();
}

void interpreter_dtor(void)
{
    (void)print();
}

int interpreter_reader(void* buffer, int length)
{
    memset(buffer, 'x', (size_t)length);
    return print();
}

int interpreter_writer(void* buffer, int length)
{
    return buffer != NULL && length > 0 && print();
}
