// A plugin whose author forgot to include the interface: its functions have C++ names.
int interpreter_ctor(int (*reader)(void*, int), int (*writer)(void*, int));
int interpreter_ctor(int (*)(void*, int), int (*)(void*, int))
{
    return 1;
}
