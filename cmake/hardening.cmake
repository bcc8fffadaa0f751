# A process that loads closed code and reads foreign bytes is built to fail early and to be hard to exploit.
include(CheckPIESupported)
check_pie_supported()

add_library(tvkintif_hardening INTERFACE)
target_compile_options(tvkintif_hardening INTERFACE
  -fstack-protector-strong
  -fstack-clash-protection
  -D_GLIBCXX_ASSERTIONS
  -Werror=format-security
  "$<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fcf-protection>"
  # Fortified calls need an optimising build.
  "$<$<CONFIG:RelWithDebInfo,Release,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>"
  # Assertions guard against programming errors in shipped builds too: a null context handed to libusb
  # must abort here, not crash somewhere inside it.
  -UNDEBUG)
target_link_options(tvkintif_hardening INTERFACE
  LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:--as-needed)
