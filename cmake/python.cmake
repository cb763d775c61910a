# The headers of Debian's own interpreters, whatever others stand in PATH.
execute_process(
    COMMAND /usr/bin/python3 -c "import sysconfig; print(sysconfig.get_path('include'))"
    OUTPUT_VARIABLE PYTHON3_INCLUDE_DIR OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT EXISTS "${PYTHON3_INCLUDE_DIR}/Python.h")
    message(FATAL_ERROR "The headers of /usr/bin/python3 are missing: install python3-dev.")
endif()
# Looked for anew each time, with no cached answer: python2.7-dev may be purged between two builds.
set(PYTHON2_INCLUDE_DIR /usr/include/python2.7)

# add_extension_module(TARGET FILE INCLUDE_DIR): FILE.so in a folder named like the target. The
# interpreter's headers count as the system's: Python 2's still say "register".
function(add_extension_module target file include_dir)
    add_library(${target} MODULE linux_xen/extensions/agent_extension.cpp)
    target_link_libraries(${target} PRIVATE core)
    target_include_directories(${target} SYSTEM PRIVATE ${include_dir})
    target_compile_options(${target} PRIVATE -fno-exceptions -fno-rtti)
    target_link_options(${target} PRIVATE LINKER:--exclude-libs,ALL
        LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/module.map)
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/module.map)
    set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME ${file}
        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/${target})
endfunction()
