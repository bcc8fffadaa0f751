/* A scanner plugin for tests. It moves bytes between the program and the device unchanged and tells, line by
 * line, what is asked of it. What makes one plugin differ from the next is defined in "variants":
 *
 *   NAME                 what it calls itself
 *   AT_LOAD, AT_UNLOAD, IN_CTOR, IN_DTOR, IN_READER, IN_WRITER   a statement for that moment
 *   CTOR_RESULT          what the start answers instead of 1
 *   READER_RESULT, WRITER_RESULT   what those answer instead of the result of one transfer
 *   MOVES_ALL            those transfer until everything is moved and answer whether that went well
 *   WITHOUT_CTOR, WITHOUT_DTOR, WITHOUT_READER, WITHOUT_WRITER   lacks that entry point
 *   WITH_TEXT_RELOCATION puts an address into the code
 */
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarvik/interpreter.h>
#include <unistd.h>

/* Both are there when the process that loads the plugin is prepared for it. */
extern void support_record_line(const char* line) __attribute__((weak));
extern void support_plugin_callbacks(tarvik_transfer reader, tarvik_transfer writer) __attribute__((weak));

#ifndef AT_LOAD
#define AT_LOAD
#endif
#ifndef AT_UNLOAD
#define AT_UNLOAD
#endif
#ifndef IN_CTOR
#define IN_CTOR
#endif
#ifndef IN_DTOR
#define IN_DTOR
#endif
#ifndef IN_READER
#define IN_READER
#endif
#ifndef IN_WRITER
#define IN_WRITER
#endif
#ifndef CTOR_RESULT
#define CTOR_RESULT 1
#endif
#ifdef MOVES_ALL
#define MOVED(transfer) transfer_all(transfer, buffer, length)
#else
#define MOVED(transfer) transfer(buffer, length)
#endif
#ifndef READER_RESULT
#define READER_RESULT MOVED(read_device)
#endif
#ifndef WRITER_RESULT
#define WRITER_RESULT MOVED(write_device)
#endif

#define ACTION __attribute__((unused, noinline)) static

static tarvik_transfer read_device;
static tarvik_transfer write_device;
/* Volatile, so that the compiler does not see through them. */
static unsigned char* volatile kept_buffer;
static void (*volatile nowhere)(void);

/* In no library at all. */
extern void defined_nowhere(void);

/* In a library beside this one. */
extern int other_library_function(void);

static void tell(const char* what, const char* detail)
{
    char line[512];
    snprintf(line, sizeof line, "%s %s%s", NAME, what, detail);
    if (support_record_line != NULL)
        support_record_line(line);
}

ACTION void tell_number(const char* what, int number)
{
    char detail[16];
    snprintf(detail, sizeof detail, " %d", number);
    tell(what, detail);
}

ACTION int transfer_all(tarvik_transfer transfer, void* buffer, int length)
{
    unsigned char* next = buffer;
    for (int left = length; left > 0;) {
        const int moved = transfer(next, left);
        if (moved <= 0)
            return 0;
        next += moved;
        left -= moved;
    }
    return 1;
}

ACTION void crash(void)
{
    *kept_buffer = 1; /* null: nothing was kept */
}

ACTION void keep(unsigned char* buffer)
{
    kept_buffer = buffer;
}

ACTION void overrun(unsigned char* buffer, int length)
{
    *(volatile unsigned char*)(buffer + length) = 1;
}

ACTION void underrun(unsigned char* buffer)
{
    *(volatile unsigned char*)(buffer - 1) = 1;
}

ACTION void jump_nowhere(void)
{
    nowhere();
}

ACTION int overflow_stack(int depth)
{
    volatile char page[4096];
    page[0] = 1;
    return depth < 0 ? page[0] : overflow_stack(depth + page[0]) + page[0];
}

ACTION void hang(void)
{
    for (;;)
        pause();
}

ACTION void hang_deaf(void)
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, NULL);
    hang();
}

ACTION void insist_on_bytes(void* buffer, int length)
{
    while (transfer_all(read_device, buffer, length) == 0) {
    }
}

ACTION int transfer_in_vain(tarvik_transfer transfer, void* buffer, int length)
{
    transfer_all(transfer, buffer, length);
    return 1;
}

ACTION void ask_for_nothing(void)
{
    read_device(NULL, 0);
}

ACTION void send_byte(unsigned char byte)
{
    tell_number("sent", write_device(&byte, 1));
}

ACTION int has_firmware_directory(const char* variable)
{
    const char* value = getenv(variable);
    return value != NULL && strcmp(value, TARVIK_FIRMWARE_DIR) == 0;
}

ACTION int has_firmware_directories(void)
{
    return has_firmware_directory("GLIMMERON_FIRMWARE_DIR") && has_firmware_directory("QUBAN_FIRMWARE_DIR") &&
           has_firmware_directory("MORA_FIRMWARE_DIR") && has_firmware_directory("QUBAN_FW_DIR");
}

ACTION void tell_variable(const char* name)
{
    const char* value = getenv(name);
    char detail[256];
    snprintf(detail, sizeof detail, " %s=%s", name, value != NULL ? value : "(unset)");
    tell("finds", detail);
}

ACTION void tell_environment(void)
{
    tell_variable("GLIMMERON_FIRMWARE_DIR");
    tell_variable("QUBAN_FIRMWARE_DIR");
    tell_variable("MORA_FIRMWARE_DIR");
    tell_variable("QUBAN_FW_DIR");
}

ACTION void print_hello(void)
{
    printf("hello");
}

ACTION void complain(void)
{
    fputs("oh", stderr);
}

ACTION void print_without_end(void)
{
    for (;;)
        puts("one more line");
}

ACTION void* wait_for_ever(void* unused)
{
    hang();
    return unused;
}

ACTION void leave_thread(void)
{
    pthread_t thread;
    if (pthread_create(&thread, NULL, wait_for_ever, NULL) == 0)
        pthread_setname_np(thread, "poller");
}

static pthread_mutex_t one_at_a_time = PTHREAD_MUTEX_INITIALIZER;
static pthread_t poller;
static int is_polling;

ACTION int transfer_alone(tarvik_transfer transfer, void* buffer, int length)
{
    pthread_mutex_lock(&one_at_a_time);
    const int moved = transfer(buffer, length);
    pthread_mutex_unlock(&one_at_a_time);
    return moved;
}

ACTION int set_polling(int value)
{
    pthread_mutex_lock(&one_at_a_time);
    const int before = is_polling;
    if (value >= 0)
        is_polling = value;
    pthread_mutex_unlock(&one_at_a_time);
    return before;
}

ACTION void* poll_device(void* unused)
{
    unsigned char byte = 0;
    while (set_polling(-1) == 1) {
        transfer_alone(read_device, &byte, 1);
        usleep(100); /* lets others have their turn */
    }
    return unused;
}

ACTION void start_polling(void)
{
    set_polling(1);
    if (pthread_create(&poller, NULL, poll_device, NULL) != 0)
        abort();
}

ACTION void stop_polling(void)
{
    set_polling(0);
    pthread_join(poller, NULL);
}

ACTION void leave_process(void)
{
    if (fork() == 0) {
        alarm(60); /* ends it, should nobody else */
        hang();
    }
}

ACTION void leave_descriptor(void)
{
    if (open("/dev/zero", O_RDONLY) < 0)
        abort();
}

__attribute__((constructor)) static void loaded(void)
{
    tell("loaded", "");
    AT_LOAD;
}

__attribute__((destructor)) static void unloaded(void)
{
    tell("unloaded", "");
    AT_UNLOAD;
}

#ifndef WITHOUT_CTOR
int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    tell("ctor", "");
    read_device = reader;
    write_device = writer;
    if (support_plugin_callbacks != NULL)
        support_plugin_callbacks(reader, writer);
    IN_CTOR;
    return CTOR_RESULT;
}
#endif

#ifndef WITHOUT_DTOR
void interpreter_dtor(void)
{
    tell("dtor", "");
    IN_DTOR;
}
#endif

#ifndef WITHOUT_READER
int interpreter_reader(void* buffer, int length)
{
    (void)buffer;
    tell_number("reader", length);
    IN_READER;
    return READER_RESULT;
}
#endif

#ifndef WITHOUT_WRITER
int interpreter_writer(void* buffer, int length)
{
    (void)buffer;
    tell_number("writer", length);
    IN_WRITER;
    return WRITER_RESULT;
}
#endif

#ifdef WITH_TEXT_RELOCATION
__asm__(".text\n.balign 8\n.dc.a interpreter_dtor\n");
#endif
