/* A library that a plugin is linked to and that is not there when the plugin is loaded. */
int absent_library(void);
int absent_library(void)
{
    return 1;
}
