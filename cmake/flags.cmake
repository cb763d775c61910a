# A plain "cmake -S . -B build" makes what is shipped.
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()

# The flags that every target of the project is built with.
add_library(zorvik_flags INTERFACE)
target_compile_features(zorvik_flags INTERFACE cxx_std_20)
set(CMAKE_CXX_EXTENSIONS ON) # the kernel's and libc's interfaces are GNU's
set(CMAKE_CXX_SCAN_FOR_MODULES OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

target_compile_options(zorvik_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Werror
    -fstack-protector-strong -fstack-clash-protection -fcf-protection)
target_link_options(zorvik_flags INTERFACE
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:--as-needed)

if(ZORVIK_SANITIZE)
    set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all)
    target_compile_options(zorvik_flags INTERFACE ${sanitizers} -fno-omit-frame-pointer)
    target_link_options(zorvik_flags INTERFACE ${sanitizers})
else()
    target_compile_definitions(zorvik_flags INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()
