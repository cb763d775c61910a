# Read by CPack before it has dpkg-shlibdeps find the dependencies. The hypervisor's library asks
# for the very build it comes from, a security update as a rule, which a server without that source
# of packages cannot install; but its SONAME, which the package's name has, holds its interface.
execute_process(COMMAND dpkg-query --search */libxenctrl.so.*
    OUTPUT_VARIABLE owners COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "^[^:, ]+" owner "${owners}")
execute_process(COMMAND dpkg-query --control-show ${owner} shlibs
    OUTPUT_VARIABLE shlibs COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE " \\([^)]*\\)" "" shlibs "${shlibs}")
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    file(WRITE "${CPACK_TEMPORARY_DIRECTORY}/${component}/debian/shlibs.local" "${shlibs}")
endforeach()
