/* A plugin whose entry points are each wrong in a way of its own: a variable, a hidden function, one that is
 * used but not defined. Only the reader is right. */
int interpreter_ctor = 1;

void interpreter_dtor(void);
int interpreter_writer(void* buffer, int length);
int interpreter_reader(void* buffer, int length);

__attribute__((visibility("hidden"))) void interpreter_dtor(void) {}

int interpreter_reader(void* buffer, int length)
{
    return interpreter_writer(buffer, length);
}
