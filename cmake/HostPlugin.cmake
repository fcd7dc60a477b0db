# The plug-in that a real host loads: node/, lens/, engines/ and previews/ compiled against the
# host's own DDImage headers (never the emulation in ddimage/). The host provides every DDImage
# symbol when it loads the plug-in, so nothing of DDImage is linked here.

set(NUKE_INCLUDE_DIR "${NUKE_ROOT}/include")
set(NUKE_VERSION_HEADER "${NUKE_INCLUDE_DIR}/DDImage/ddImageVersionNumbers.h")
if(NOT EXISTS "${NUKE_VERSION_HEADER}")
  message(FATAL_ERROR "NUKE_ROOT=${NUKE_ROOT}: no DDImage/ddImageVersionNumbers.h under include/")
endif()

file(STRINGS "${NUKE_VERSION_HEADER}" major_line REGEX "define[ \t]+kDDImageVersionMajorNum[ \t]+[0-9]+")
file(STRINGS "${NUKE_VERSION_HEADER}" minor_line REGEX "define[ \t]+kDDImageVersionMinorNum[ \t]+[0-9]+")
string(REGEX MATCH "[0-9]+$" NUKE_VERSION_MAJOR "${major_line}")
string(REGEX MATCH "[0-9]+$" NUKE_VERSION_MINOR "${minor_line}")
if(NUKE_VERSION_MAJOR STREQUAL "")
  message(FATAL_ERROR "Cannot read the host's version from ${NUKE_VERSION_HEADER}")
endif()
# Hosts up to 14 are built with the old libstdc++ string ABI, 15 and later with the new one; a
# plug-in on the other ABI fails to load, or crashes on the first std::string it shares.
if(NUKE_VERSION_MAJOR LESS 15)
  set(NUKE_CXX11_ABI 0)
else()
  set(NUKE_CXX11_ABI 1)
endif()
message(STATUS "Host plug-in for DDImage ${NUKE_VERSION_MAJOR}.${NUKE_VERSION_MINOR} "
               "(_GLIBCXX_USE_CXX11_ABI=${NUKE_CXX11_ABI})")

file(GLOB_RECURSE VOREL_PLUGIN_SOURCES CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/node/*.cpp
  ${CMAKE_SOURCE_DIR}/lens/*.cpp
  ${CMAKE_SOURCE_DIR}/engines/*.cpp
  ${CMAKE_SOURCE_DIR}/previews/*.cpp)

add_library(tzVorelPlugin MODULE ${VOREL_PLUGIN_SOURCES})
set_target_properties(tzVorelPlugin PROPERTIES
  OUTPUT_NAME tzVorel
  PREFIX ""
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(tzVorelPlugin PRIVATE ${CMAKE_SOURCE_DIR})
target_include_directories(tzVorelPlugin SYSTEM PRIVATE ${NUKE_INCLUDE_DIR})
target_compile_definitions(tzVorelPlugin PRIVATE
  _GLIBCXX_USE_CXX11_ABI=${NUKE_CXX11_ABI}
  VOREL_HOST_PLUGIN=1)
# The host's headers are read as system headers, so their own warnings stay quiet; anything they
# mark deprecated that the node still calls is an error, since a later host drops it.
target_compile_options(tzVorelPlugin PRIVATE -Werror=deprecated-declarations)
target_link_libraries(tzVorelPlugin PRIVATE Threads::Threads)
# The host resolves DDImage when it loads the plug-in. Only the registration is exported: the
# library's own copies of standard templates must never stand in for the host's.
set(VOREL_PLUGIN_EXPORTS "${CMAKE_BINARY_DIR}/tzVorel.exports")
file(WRITE "${VOREL_PLUGIN_EXPORTS}" "{ global: _ZN7tzVorel11descriptionE; local: *; };\n")
target_link_options(tzVorelPlugin PRIVATE -Wl,--allow-shlib-undefined
  "-Wl,--version-script=${VOREL_PLUGIN_EXPORTS}")
set_property(TARGET tzVorelPlugin APPEND PROPERTY LINK_DEPENDS "${VOREL_PLUGIN_EXPORTS}")

set(VOREL_PLUGIN_DIR "tzVorel" CACHE STRING "Plug-in folder under the install prefix")
install(TARGETS tzVorelPlugin LIBRARY DESTINATION ${VOREL_PLUGIN_DIR})
install(FILES ${CMAKE_SOURCE_DIR}/cmake/menu.py DESTINATION ${VOREL_PLUGIN_DIR})
