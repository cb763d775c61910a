# Read by CPack as it begins. The day in the packages is that of what they are made from.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND git -C ${CMAKE_CURRENT_LIST_DIR} log -1 --format=%ct
        OUTPUT_VARIABLE day OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(day)
        set(ENV{SOURCE_DATE_EPOCH} ${day})
    endif()
endif()
