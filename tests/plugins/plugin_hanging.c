/* A plugin that never comes to an end of being loaded, and leaves a process behind that holds on to whatever
 * was open. */
#include <unistd.h>

__attribute__((constructor)) static void loaded(void)
{
    if (fork() == 0)
        alarm(60); /* ends that process, should nobody else */
    for (;;)
        pause();
}
