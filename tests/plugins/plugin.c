/* A scanner plugin for tests. It moves bytes between the program and the device unchanged and tells, line by
 * line, what is asked of it. What makes one plugin differ from the next is defined by CMakeLists.txt:
 *
 *   NAME                 what it calls itself
 *   WITHOUT_CTOR, WITHOUT_DTOR, WITHOUT_READER, WITHOUT_WRITER   lacks that entry point
 *   CTOR_RESULT N        what the start answers; 0 refuses (default 1)
 *   READER_RESULT N, WRITER_RESULT N   answers that without touching the device (default: what was moved)
 *   TALKS_AT_START, TALKS_AT_END       sends a byte to the device from its constructor or destructor entry
 *   TELLS_ENVIRONMENT    tells the firmware directories that it finds in its environment when it is loaded
 *   CALLS_NOBODY         calls a function that exists nowhere, should it be asked for 0 bytes
 *   CRASHES_IN ENTRY     ends the process by abort() in "ctor", "dtor", "reader" or "writer"
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarvik/interpreter.h>

/* Both are there when the process that loads the plugin is prepared for it. */
extern void support_record_line(const char* line) __attribute__((weak));
extern void support_plugin_callbacks(tarvik_transfer reader, tarvik_transfer writer) __attribute__((weak));

#ifndef CTOR_RESULT
#define CTOR_RESULT 1
#endif
#ifndef CRASHES_IN
#define CRASHES_IN ""
#endif

#ifdef CALLS_NOBODY
extern void defined_nowhere(void);
#endif

static tarvik_transfer read_device;
static tarvik_transfer write_device;

static void tell(const char* what, const char* detail)
{
    char line[512];
    snprintf(line, sizeof line, "%s %s%s", NAME, what, detail);
    if (support_record_line != NULL)
        support_record_line(line);
    if (strcmp(what, CRASHES_IN) == 0)
        abort();
}

static void tell_number(const char* what, int number)
{
    char detail[16];
    snprintf(detail, sizeof detail, " %d", number);
    tell(what, detail);
}

#ifdef TELLS_ENVIRONMENT
static void tell_variable(const char* name)
{
    const char* value = getenv(name);
    char detail[256];
    snprintf(detail, sizeof detail, " %s=%s", name, value != NULL ? value : "(unset)");
    tell("finds", detail);
}

static void tell_environment(void)
{
    tell_variable("GLIMMERON_FIRMWARE_DIR");
    tell_variable("QUBAN_FIRMWARE_DIR");
    tell_variable("MORA_FIRMWARE_DIR");
    tell_variable("QUBAN_FW_DIR");
}
#endif

__attribute__((constructor)) static void loaded(void)
{
    tell("loaded", "");
#ifdef TELLS_ENVIRONMENT
    tell_environment();
#endif
}

__attribute__((destructor)) static void unloaded(void)
{
    tell("unloaded", "");
}

#if defined(TALKS_AT_START) || defined(TALKS_AT_END)
static void greet(unsigned char greeting)
{
    tell_number("sent", write_device(&greeting, 1));
}
#endif

#ifndef WITHOUT_CTOR
int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    tell("ctor", "");
    read_device = reader;
    write_device = writer;
    if (support_plugin_callbacks != NULL)
        support_plugin_callbacks(reader, writer);
#ifdef TALKS_AT_START
    greet(0x01);
#endif
    return CTOR_RESULT;
}
#endif

#ifndef WITHOUT_DTOR
void interpreter_dtor(void)
{
    tell("dtor", "");
#ifdef TALKS_AT_END
    greet(0x04);
#endif
}
#endif

#ifndef WITHOUT_READER
int interpreter_reader(void* buffer, int length)
{
    tell_number("reader", length);
#ifdef CALLS_NOBODY
    if (length == 0)
        defined_nowhere();
#endif
#ifdef READER_RESULT
    (void)buffer;
    return READER_RESULT;
#else
    return read_device(buffer, length);
#endif
}
#endif

#ifndef WITHOUT_WRITER
int interpreter_writer(void* buffer, int length)
{
    tell_number("writer", length);
#ifdef WRITER_RESULT
    (void)buffer;
    return WRITER_RESULT;
#else
    return write_device(buffer, length);
#endif
}
#endif
