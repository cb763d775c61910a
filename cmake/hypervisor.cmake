# How the hypervisor's control library here is asked for a domain.
include(CheckCXXSourceCompiles)

option(ZORVIK_LIST_DOMAINS "Ask for domains by the list call, as beside newer libraries" OFF)

find_path(XENCTRL_INCLUDE_DIR xenctrl.h)
find_library(XENCTRL_LIBRARY xenctrl)
if(NOT XENCTRL_INCLUDE_DIR OR NOT XENCTRL_LIBRARY)
    message(FATAL_ERROR "libxenctrl and its header are missing: install libxen-dev.")
endif()

# Asked anew each time: the library here may have become another one.
unset(HAVE_DOMAIN_GETINFO CACHE)
set(CMAKE_REQUIRED_LIBRARIES xenctrl)
check_cxx_source_compiles([[
    extern "C" {
    #include <xenctrl.h>
    }
    int main() { xc_dominfo_t info; return xc_domain_getinfo(nullptr, 0, 1, &info); }
    ]] HAVE_DOMAIN_GETINFO)
unset(CMAKE_REQUIRED_LIBRARIES)

# use_domain_getinfo(SOURCE): this one file of its target is to know which calls there are.
function(use_domain_getinfo source)
    if(HAVE_DOMAIN_GETINFO)
        set_source_files_properties(${source} PROPERTIES
            COMPILE_DEFINITIONS ZORVIK_HAVE_DOMAIN_GETINFO)
    endif()
endfunction()
