# The kit SDK's build function.
#
#   tarn_add_kit(<target> PACKAGE <package> MANIFEST <kitManifest.json>
#                SOURCES <file>... [DEPS <library>...] [OUTPUT_DIRECTORY <dir>])
#
# Builds the kit library (visibility hidden but for TARN_KIT_API exports,
# runpath $ORIGIN so the kit's own folder is searched for its dependencies),
# writes the SHA-256 of the manifest into the library's string table (id 199)
# from a source generated at build time, signs the library with
# TARN_SIGNING_KEY (TarnSign.cmake), and lays out <OUTPUT_DIRECTORY>/<package>/
# with the library and kitManifest.json. OUTPUT_DIRECTORY defaults to
# <build>/kits. Installing the kit is copying that folder into the
# platform's kits/.
#
# The library's file name is the manifest's "fileName" when the manifest is
# plain JSON (no comments); otherwise lib<target>.so, which the manifest must name.
include_guard(GLOBAL)

set(TARN_KIT_SDK_DIR "${CMAKE_CURRENT_LIST_DIR}" CACHE INTERNAL "Folder of the kit SDK")
include(${CMAKE_CURRENT_LIST_DIR}/TarnSign.cmake)

function(tarn_add_kit target)
  cmake_parse_arguments(ARG "" "PACKAGE;MANIFEST;OUTPUT_DIRECTORY" "SOURCES;DEPS" ${ARGN})
  if(NOT ARG_PACKAGE OR NOT ARG_MANIFEST OR NOT ARG_SOURCES)
    message(FATAL_ERROR "tarn_add_kit(${target}): PACKAGE, MANIFEST and SOURCES are required")
  endif()
  get_filename_component(manifest "${ARG_MANIFEST}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
  if(NOT EXISTS "${manifest}")
    message(FATAL_ERROR "tarn_add_kit(${target}): no manifest at ${manifest}")
  endif()
  if(ARG_OUTPUT_DIRECTORY)
    set(kit_dir "${ARG_OUTPUT_DIRECTORY}/${ARG_PACKAGE}")
  else()
    set(kit_dir "${CMAKE_BINARY_DIR}/kits/${ARG_PACKAGE}")
  endif()

  # The digest is taken when the manifest changes, not at configure time.
  set(strings_source "${CMAKE_CURRENT_BINARY_DIR}/CMakeFiles/${target}.dir/kit_strings.cpp")
  add_custom_command(
    OUTPUT "${strings_source}"
    COMMAND "${CMAKE_COMMAND}" "-DMANIFEST=${manifest}" "-DOUTPUT=${strings_source}"
            -P "${TARN_KIT_SDK_DIR}/TarnKitStrings.cmake"
    DEPENDS "${manifest}" "${TARN_KIT_SDK_DIR}/TarnKitStrings.cmake"
    COMMENT "Manifest digest of ${ARG_PACKAGE}"
    VERBATIM)

  add_library(${target} SHARED ${ARG_SOURCES} "${strings_source}")
  target_link_libraries(${target} PRIVATE TarnKit::headers ${ARG_DEPS})
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY "${kit_dir}"
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    BUILD_WITH_INSTALL_RPATH ON
    INSTALL_RPATH "$ORIGIN")

  file(READ "${manifest}" manifest_text)
  string(JSON file_name ERROR_VARIABLE json_error GET "${manifest_text}" fileName)
  if(NOT json_error AND file_name)
    set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX "" OUTPUT_NAME "${file_name}")
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${manifest}")

  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND "${CMAKE_COMMAND}" -E copy_if_different "${manifest}" "${kit_dir}/kitManifest.json"
    COMMENT "Laying out ${ARG_PACKAGE}"
    VERBATIM)
  tarn_sign_target(${target})
endfunction()
