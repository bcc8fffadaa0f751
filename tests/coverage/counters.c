// Linked into each program of a build that counts executed lines. The counters of a program are a file that
// all its processes have in their memory and add to atomically. What was counted is there however a process
// ends, a forked child counts as any other process, and nobody has anything left to write that could be cut
// off.
//
// With TVKINTIF_WRITE_COUNTS in its environment, a program does nothing but hand the sums on to gcov.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#pragma GCC visibility push(hidden) // as the linker and libgcov define them

// From counters.ld.
extern char counters_begin[];
extern char counters_end[];

// From libgcov. No object is known to it from the start, so that it writes nothing at the end of a process.
struct gcov_info;
void __gcov_init(struct gcov_info*);
void __gcov_dump(void);

// The section with a pointer for each object that counts; null in a program that has none.
extern struct gcov_info* __start_profiles[] __attribute__((weak));
extern struct gcov_info* __stop_profiles[] __attribute__((weak));

#pragma GCC visibility pop

// Puts the file in the place of the counters. Fails when it is of another build.
static int map_counters(int file, size_t size, int sharing)
{
    struct stat about;
    if (fstat(file, &about) != 0 || (about.st_size == 0 && ftruncate(file, (off_t)size) != 0))
        return 0;
    if (about.st_size != 0 && (size_t)about.st_size != size)
        return 0;
    fchmod(file,
           0666); // for other users that tests run programs as; fails where it is one of them that calls
    return mmap(counters_begin, size, PROT_READ | PROT_WRITE, sharing | MAP_FIXED, file, 0) != MAP_FAILED;
}

static void write_counts(void)
{
    for (struct gcov_info** profile = __start_profiles; profile != __stop_profiles; ++profile)
        __gcov_init(*profile);
    __gcov_dump();
}

// Called before all other constructors. What a process counts that cannot have the file is lost.
__attribute__((constructor(101))) void share_counters(void)
{
    const size_t size = (size_t)(counters_end - counters_begin);
    const char* program = (const char*)getauxval(AT_EXECFN);
    if (size == 0 || program == NULL)
        return;
    const char* slash = strrchr(program, '/');
    char path[4096];
    snprintf(path, sizeof path, "%s/%s", COUNTERS_FOLDER, slash != NULL ? slash + 1 : program);
    const int is_writing = getenv("TVKINTIF_WRITE_COUNTS") != NULL;
    const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    // libgcov adds what gcov has of other programs to the counters: not to the file.
    const int has_counters = file >= 0 && map_counters(file, size, is_writing ? MAP_PRIVATE : MAP_SHARED);
    syscall(SYS_close, file); // some tests have a close() of their own
    if (is_writing && has_counters)
        write_counts();
    if (is_writing)
        _exit(has_counters ? EXIT_SUCCESS : EXIT_FAILURE);
}
