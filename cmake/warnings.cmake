add_library(tvkintif_warnings INTERFACE)

set(common_warnings
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-align -Wcast-qual
  -Wformat=2 -Wnull-dereference -Wdouble-promotion -Wundef -Wduplicated-cond -Wduplicated-branches
  -Wlogical-op)
# Not -Wuseless-cast: a cast that 32-bit ARM could do without is needed on a 64-bit machine.
set(cxx_warnings
  -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi
  -Wsuggest-override -Wzero-as-null-pointer-constant)

# GCC's are the ones that the tree is kept free of. Clang, which builds the fuzz targets, knows others by these names.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(common_warnings -Wall -Wextra)
  set(cxx_warnings "")
endif()

target_compile_options(tvkintif_warnings INTERFACE
  ${common_warnings}
  "$<$<COMPILE_LANGUAGE:CXX>:${cxx_warnings}>"
  "$<$<BOOL:${TVKINTIF_WERROR}>:-Werror>"
  # GCC's note that an ABI detail changed in version 7.1 concerns nobody who builds with one compiler.
  -Wno-psabi
  # Several sources compiled as one look to GCC as if they were headers.
  "$<$<AND:$<BOOL:${CMAKE_UNITY_BUILD}>,$<COMPILE_LANG_AND_ID:CXX,GNU>>:-Wno-subobject-linkage>")
