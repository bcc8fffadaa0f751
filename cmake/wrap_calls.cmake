# Has the linker hand each of these calls to __wrap_CALL in the target, which reaches the C library as __real_CALL.
function(wrap_calls target)
  list(JOIN ARGN "," calls)
  execute_process(COMMAND "${CMAKE_C_COMPILER}" ${wide_types} "-DCALLS=${calls}" -S -o - names_of_calls.c
    WORKING_DIRECTORY "${CMAKE_CURRENT_FUNCTION_LIST_DIR}" OUTPUT_VARIABLE assembly COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "\\.(quad|word)\t[a-z_0-9]+" names "${assembly}")
  list(TRANSFORM names REPLACE ".*\t" "")
  foreach(call name IN ZIP_LISTS ARGN names)
    target_link_options(${target} PUBLIC LINKER:--wrap=${name})
    target_compile_definitions(${target} PRIVATE __wrap_${call}=__wrap_${name} __real_${call}=__real_${name})
  endforeach()
endfunction()
