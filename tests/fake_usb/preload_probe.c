/* A program linked to the real libusb, to be run with the fake one preloaded. Forgets what its argument
 * names. */
#include <libusb.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

extern void support_record_line(const char* line) __attribute__((weak));

int main(int argument_count, char** arguments)
{
    const char* forgotten = argument_count > 1 ? arguments[1] : "";
    libusb_context* context = NULL;
    libusb_device_handle* handle = NULL;
    int moved = 0;
    unsigned char data[4] = {0};
    if (libusb_init(&context) != 0)
        return 1;
    while ((handle = libusb_open_device_with_vid_pid(context, 0x1a2b, 0x3c4d)) == NULL)
        sleep(3);
    usleep(100);
    libusb_claim_interface(handle, 0);
    libusb_bulk_transfer(handle, 0x81, data, 4, &moved, 60000);
    printf("%d %02x%02x%02x%02x\n", moved, data[0], data[1], data[2], data[3]);
    if (support_record_line != NULL)
        support_record_line("a line from elsewhere");
    libusb_release_interface(handle, 0);
    if (strcmp(forgotten, "handle") == 0)
        return 0;
    libusb_close(handle);
    libusb_exit(context);
    return 0;
}
