# A process that loads closed code and reads foreign bytes is built to fail early and to be hard to bend.
include(CheckPIESupported)
check_pie_supported()

set(TVKINTIF_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined")
option(TVKINTIF_COVERAGE "Count executed lines and branches" OFF)

add_library(tvkintif_hardening INTERFACE)

target_compile_options(tvkintif_hardening INTERFACE
  -fstack-protector-strong
  -fstack-clash-protection)
# Fortified calls need an optimising build, and the sanitizers bring checks of their own.
if(NOT TVKINTIF_SANITIZE)
  target_compile_options(tvkintif_hardening INTERFACE
    "$<$<CONFIG:RelWithDebInfo,Release,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
endif()
target_link_options(tvkintif_hardening INTERFACE
  LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:--as-needed)

# Assertions guard against programming errors in shipped builds too: a null context handed to libusb
# must abort here, not crash somewhere inside it.
foreach(config RELEASE RELWITHDEBINFO MINSIZEREL)
  foreach(language C CXX)
    string(REPLACE "-DNDEBUG" "" CMAKE_${language}_FLAGS_${config} "${CMAKE_${language}_FLAGS_${config}}")
  endforeach()
endforeach()

# The tests' own code is watched for what it does to memory alone.
if(TVKINTIF_SANITIZE)
  target_compile_options(tvkintif_hardening INTERFACE
    -fsanitize=${TVKINTIF_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    "$<$<PATH:IS_PREFIX,${PROJECT_SOURCE_DIR}/tests,$<TARGET_PROPERTY:SOURCE_DIR>>:-fno-sanitize=undefined>")
  target_link_options(tvkintif_hardening INTERFACE -fsanitize=${TVKINTIF_SANITIZE})
endif()

# How processes count together: tests/coverage/counters.c.
if(TVKINTIF_COVERAGE)
  set(counting_options --coverage -fprofile-update=atomic -fprofile-info-section=profiles -fdata-sections)
  target_compile_options(tvkintif_hardening INTERFACE
    "$<$<PATH:IS_PREFIX,${PROJECT_SOURCE_DIR}/src,$<TARGET_PROPERTY:SOURCE_DIR>>:${counting_options}>")
  target_link_options(tvkintif_hardening INTERFACE
    "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:--coverage;-T${PROJECT_SOURCE_DIR}/tests/coverage/counters.ld>")
  add_library(tvkintif_counters STATIC tests/coverage/counters.c)
  target_compile_definitions(tvkintif_counters PRIVATE "COUNTERS_FOLDER=\"${PROJECT_BINARY_DIR}/counters\"")
  target_link_libraries(tvkintif_counters PRIVATE tvkintif_warnings)
  target_link_libraries(tvkintif_hardening INTERFACE tvkintif_counters)
  file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/counters")
endif()
