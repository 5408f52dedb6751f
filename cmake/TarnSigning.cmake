# Development signing. Every build tree gets its own Ed25519 key pair in
# ${CMAKE_BINARY_DIR}/keys (made once, by tarncore-sign, never committed), and
# the programs and libraries it builds are signed with it after linking.
#
#   TARN_DEV_PRIVATE_KEY, TARN_DEV_PUBLIC_KEY  paths of the pair (cache; point
#                                             them at existing files to sign
#                                             with another key)
#   tarn_sign_target(<target>)                sign the target's file after each link
#   tarn_use_dev_keys(<target>)               compile the key paths and the tool's
#                                             path into a target (tests)
#   tarn_install_dev_key(<name> ROOT <dir>)   custom target that installs the
#                                             public key as a maker key in a machine root
#
# At run time, the same install is
#   TARNCORE_ROOT=<root> <build>/tools/sign/tarncore-sign trust <build>/keys/tarn-dev.pub

set(TARN_DEV_PRIVATE_KEY "${CMAKE_BINARY_DIR}/keys/tarn-dev.pem" CACHE FILEPATH
    "Private key that signs what the build makes")
set(TARN_DEV_PUBLIC_KEY "${CMAKE_BINARY_DIR}/keys/tarn-dev.pub" CACHE FILEPATH
    "Public key of TARN_DEV_PRIVATE_KEY, as a trusted-keys .pub file")

get_filename_component(_tarn_key_dir "${TARN_DEV_PRIVATE_KEY}" DIRECTORY)
file(MAKE_DIRECTORY "${_tarn_key_dir}")
# No file dependency on the tool: rebuilding it must not change the key.
add_custom_command(
  OUTPUT "${TARN_DEV_PRIVATE_KEY}" "${TARN_DEV_PUBLIC_KEY}"
  COMMAND tarncore-sign keygen --force "${TARN_DEV_PRIVATE_KEY}" "${TARN_DEV_PUBLIC_KEY}"
  COMMENT "Making the development signing key"
  VERBATIM)
add_custom_target(tarn_dev_keys ALL DEPENDS "${TARN_DEV_PRIVATE_KEY}" "${TARN_DEV_PUBLIC_KEY}")

function(tarn_sign_target target)
  if(target STREQUAL "tarncore-sign")
    message(FATAL_ERROR "tarncore-sign cannot sign itself during the build")
  endif()
  add_dependencies(${target} tarn_dev_keys tarncore-sign)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND tarncore-sign sign --key "${TARN_DEV_PRIVATE_KEY}" "$<TARGET_FILE:${target}>"
    COMMENT "Signing ${target}"
    VERBATIM)
endfunction()

function(tarn_use_dev_keys target)
  add_dependencies(${target} tarn_dev_keys tarncore-sign)
  target_compile_definitions(${target} PRIVATE
    TARN_DEV_PRIVATE_KEY="${TARN_DEV_PRIVATE_KEY}"
    TARN_DEV_PUBLIC_KEY="${TARN_DEV_PUBLIC_KEY}"
    TARN_SIGN_TOOL="$<TARGET_FILE:tarncore-sign>")
endfunction()

function(tarn_install_dev_key name)
  cmake_parse_arguments(ARG "" "ROOT" "" ${ARGN})
  if(NOT ARG_ROOT)
    message(FATAL_ERROR "tarn_install_dev_key(${name} ROOT <dir>): ROOT is required")
  endif()
  add_custom_target(${name}
    COMMAND ${CMAKE_COMMAND} -E env "TARNCORE_ROOT=${ARG_ROOT}"
            $<TARGET_FILE:tarncore-sign> trust --name tarn-dev "${TARN_DEV_PUBLIC_KEY}"
    COMMENT "Trusting the development key as a maker key in ${ARG_ROOT}"
    VERBATIM)
  add_dependencies(${name} tarn_dev_keys tarncore-sign)
endfunction()
