# The shared library exports exactly the names listed in tests/exports/*.txt
# (one name a line; '#' comments and blank lines aside): the lists become a
# linker version script with one anonymous node, so the exports carry no
# symbol version and programs bind to them as to any unversioned name.
# Changing, adding or removing a list re-runs the configuration.
file(GLOB KAVRO_EXPORT_LISTS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/exports/*.txt)
list(SORT KAVRO_EXPORT_LISTS)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KAVRO_EXPORT_LISTS})
set(KAVRO_EXPORT_NAMES "")
foreach(list_file ${KAVRO_EXPORT_LISTS})
  file(STRINGS ${list_file} lines)
  foreach(line ${lines})
    string(STRIP "${line}" line)
    if(line STREQUAL "" OR line MATCHES "^#")
      continue()
    endif()
    if(NOT line MATCHES "^[A-Za-z_][A-Za-z0-9_]*$")
      message(FATAL_ERROR "${list_file}: '${line}' is not a symbol name")
    endif()
    list(APPEND KAVRO_EXPORT_NAMES ${line})
  endforeach()
endforeach()
list(REMOVE_DUPLICATES KAVRO_EXPORT_NAMES)
list(JOIN KAVRO_EXPORT_NAMES ";\n    " KAVRO_EXPORT_BODY)
set(KAVRO_VERSION_SCRIPT ${PROJECT_BINARY_DIR}/kavro_rt.map)
# Rewritten only when the content changes, so an unchanged list relinks nothing.
file(CONFIGURE OUTPUT ${KAVRO_VERSION_SCRIPT} @ONLY
  CONTENT "/* Generated from tests/exports/*.txt; do not edit. */\n{\n  global:\n    @KAVRO_EXPORT_BODY@;\n  local: *;\n};\n")
