# pnx_add_sources(SOURCES ... [TESTS ...] [PUBLIC_HEADERS ...])
#
# Each folder lists its files explicitly (a glob would silently miss a new file in a
# subfolder). Paths are relative to the calling folder; the lists are collected in global
# properties that the top-level CMakeLists.txt turns into targets.
function(pnx_add_sources)
  cmake_parse_arguments(ARG "" "" "SOURCES;TESTS;PUBLIC_HEADERS" ${ARGN})
  foreach(kind SOURCES TESTS PUBLIC_HEADERS)
    foreach(file IN LISTS ARG_${kind})
      set_property(GLOBAL APPEND PROPERTY PNX_${kind} "${CMAKE_CURRENT_SOURCE_DIR}/${file}")
    endforeach()
  endforeach()
endfunction()
