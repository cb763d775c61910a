# The schemas of the documents in the XML form that validators read, and the page made from them.
# Debian's python3-rnc2rng converts; where it is missing, the modules build without.
find_program(RNC2RNG rnc2rng PATHS /usr/bin NO_DEFAULT_PATH)
if(NOT RNC2RNG)
    message(NOTICE "No rnc2rng here: not making the schemas and their reference page.")
    add_custom_target(schema)
    return()
endif()

set(schema_sources ${PROJECT_SOURCE_DIR}/share/zorvik)
set(schema_directory ${CMAKE_BINARY_DIR}/share/zorvik)
file(MAKE_DIRECTORY ${schema_directory})
file(GLOB schema_parts CONFIGURE_DEPENDS ${schema_sources}/*.rnc) # they include one another
foreach(document hardware network status)
    set(schema ${schema_directory}/${document}.rng)
    add_custom_command(OUTPUT ${schema}
        COMMAND ${RNC2RNG} ${schema_sources}/${document}.rnc ${schema}
        DEPENDS ${schema_parts} VERBATIM)
    list(APPEND schemas ${schema})
endforeach()

set(schema_reader ${PROJECT_SOURCE_DIR}/tools/zorvik_schema.py)
set(status_line ${schema_sources}/status-line.txt)
set(reference ${schema_directory}/reference.html)
add_custom_command(OUTPUT ${reference}
    COMMAND /usr/bin/python3 ${schema_reader} ${reference} ${schemas} ${status_line}
    DEPENDS ${schemas} ${schema_reader} ${status_line} VERBATIM)
add_custom_target(schema ALL DEPENDS ${reference})
install(FILES ${schemas} ${schema_parts} ${status_line} DESTINATION share/zorvik-discover COMPONENT tools)
install(FILES ${reference} DESTINATION share/doc/zorvik-discover-tools COMPONENT tools)
