# Read by CPack as it begins. The day in the packages is that of the version, as the changelog has it.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../CHANGELOG.md day REGEX "^## [0-9.]+ - " LIMIT_COUNT 1)
    string(REGEX REPLACE ".* - " "" day "${day}")
    execute_process(COMMAND date --utc --date=${day} +%s OUTPUT_VARIABLE day OUTPUT_STRIP_TRAILING_WHITESPACE)
    set(ENV{SOURCE_DATE_EPOCH} ${day})
endif()
