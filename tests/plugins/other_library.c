/* A library that a plugin needs. */
int other_library_function(void);
int other_library_function(void)
{
    return 1;
}
