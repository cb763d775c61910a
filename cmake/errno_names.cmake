# errno_names.h, the names of the errno values as the system's header has them: the C library tells
# them from glibc 2.32 on alone. What is another name for the same value is left out.
execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} -x c++ -dM -E -include cerrno /dev/null
    OUTPUT_VARIABLE macros)
string(REGEX MATCHALL "#define E[A-Z0-9]+ [0-9]+" names "${macros}")
if(NOT names)
    message(FATAL_ERROR "${CMAKE_CXX_COMPILER} does not tell the errno values.")
endif()
list(TRANSFORM names REPLACE "#define (E[A-Z0-9]+) [0-9]+" "    {\\1, \"\\1\"},")
list(JOIN names "\n" names)
configure_file(${CMAKE_CURRENT_LIST_DIR}/errno_names.h.in errno_names/errno_names.h @ONLY)
add_library(errno_names INTERFACE)
target_include_directories(errno_names INTERFACE ${CMAKE_CURRENT_BINARY_DIR}/errno_names)
