/*
 * Compiled to assembly, names CALLS as the linker knows them: with 64-bit times and offsets, the headers of
 * the C library give some functions another name, and not the same ones on every machine.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <locale.h>
#include <netdb.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

const void* const names[] = {CALLS};
