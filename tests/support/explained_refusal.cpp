#include "support/explained_refusal.h"

namespace support {

std::string explained_refusal(const std::string& plugin_path)
{
    return "        - the log tells:\n"
           "        -     port = 0\n"
           "        -     open usb:1a2b:3c4d\n"
           "        -     open usb:1a2b:3c4d\n"
           "        -     interpName libryo-mora-hk-t210.so\n"
           "        -     interpreter load " +
           plugin_path +
           "\n"
           "        -     usb_transceiver start\n"
           "        -     usb_transceiver open start\n"
           "        -     usb_transceiver open \n"
           "        -     usb_transceiver set_bulk_endpoints\n"
           "        -     connection open isSuccess = 1\n"
           "        -     break\n"
           "        -     usb ctor failer.\n"
           "        -     send ng\n"
           "        -     Leave do_cleanup 1\n"
           "        -     End Run\n"
           "        -     --- Leave int interface ---\n"
           "      Next:\n"
           "        the plugin itself refused to start: see that its firmware files are in "
           "/usr/share/tarvik/ and "
           "that lid and transport lock of the scanner are open\n";
}

} // namespace support
