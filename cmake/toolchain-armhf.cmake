# 32-bit ARM, hard float, built with Debian's cross compiler against the libraries that scripts/sysroot fetches.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_STRIP ${triplet}-strip)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/sysroot" --path
  OUTPUT_VARIABLE TVKINTIF_SYSROOT OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
if(NOT EXISTS "${TVKINTIF_SYSROOT}/.complete")
  message(FATAL_ERROR "No complete armhf sysroot at ${TVKINTIF_SYSROOT}: run scripts/sysroot first.")
endif()

# Not CMAKE_SYSROOT: the C library's headers and start files are the cross compiler's own.
set(CMAKE_FIND_ROOT_PATH "${TVKINTIF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR}
  "${TVKINTIF_SYSROOT}/usr/lib/${triplet}/pkgconfig:${TVKINTIF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TVKINTIF_SYSROOT}")

# Lets the linker see what the shared libraries themselves need (libudev behind libusb, say).
set(rpath_link "-Wl,-rpath-link,${TVKINTIF_SYSROOT}/usr/lib/${triplet}:${TVKINTIF_SYSROOT}/lib/${triplet}")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "${rpath_link}")
endforeach()

# The libraries stand in the loader's own folders on the target; a path of this machine must not ship.
set(CMAKE_SKIP_RPATH TRUE)

find_program(TVKINTIF_QEMU_USER NAMES qemu-arm-static qemu-arm DOC "Runs armhf programs on this machine")
if(TVKINTIF_QEMU_USER)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${TVKINTIF_QEMU_USER};-L;${TVKINTIF_SYSROOT}")
else()
  message(WARNING "qemu-arm-static not found: armhf tests cannot run here; install qemu-user-static.")
endif()
