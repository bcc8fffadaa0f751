/* A plugin without a device: gives back what was last sent to it, followed by zeros. It shows a test what
 * bytes the program really passes on. SILENT, it tells the test of no call. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarvik/interpreter.h>

extern void support_record_line(const char* line) __attribute__((weak));

static char* kept;
static int kept_length;

static void tell(const char* what, int length)
{
#ifdef SILENT
    (void)what;
    (void)length;
#else
    char line[64];
    snprintf(line, sizeof line, "plugin_echoing %s %d", what, length);
    if (support_record_line != NULL)
        support_record_line(line);
#endif
}

int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    return reader != NULL && writer != NULL;
}

void interpreter_dtor(void)
{
    free(kept);
    kept = NULL;
    kept_length = 0;
}

int interpreter_reader(void* buffer, int length)
{
    const int known = length < kept_length ? length : kept_length;
    tell("reader", length);
    memset(buffer, 0, (size_t)length);
    if (known > 0)
        memcpy(buffer, kept, (size_t)known);
    return length;
}

int interpreter_writer(void* buffer, int length)
{
    char* const larger = realloc(kept, (size_t)length);
    tell("writer", length);
    if (larger == NULL)
        return 0;
    kept = larger;
    kept_length = length;
    memcpy(kept, buffer, (size_t)length);
    return length;
}
