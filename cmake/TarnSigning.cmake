# Signing. Everything the build makes is signed after linking with
# TARN_SIGNING_KEY (tarn_sign_target, sdk/TarnSign.cmake). A release build is
# given the maker's private key:  -DTARN_SIGNING_KEY=<path>. Without one, every
# build tree gets its own development key pair in ${CMAKE_BINARY_DIR}/keys (made
# once, by tarncore-sign, never committed), and that key signs.
#
#   TARN_SIGNING_KEY          the private key that signs (given, or the development key)
#   TARN_SIGNING_PUBLIC_KEY   its public key, as a trusted-keys .pub file
#   TARN_RELEASE_SIGNED       whether a maker's key was given
#   tarn_use_dev_keys(<target>)  compile the key paths and the tool's path into
#                                a target (tests)
#
# A machine root trusts the key as a maker key with
#   TARNCORE_ROOT=<root> <build>/tools/sign/tarncore-sign trust <build>/keys/tarn-dev.pub
include(${PROJECT_SOURCE_DIR}/sdk/TarnSign.cmake)

file(MAKE_DIRECTORY "${CMAKE_BINARY_DIR}/keys")
# No file dependency on the tool: rebuilding it must not change the key.
if(TARN_SIGNING_KEY)
  set(TARN_RELEASE_SIGNED ON)
  set(TARN_SIGNING_PUBLIC_KEY "${CMAKE_BINARY_DIR}/keys/maker.pub")
  add_custom_command(
    OUTPUT "${TARN_SIGNING_PUBLIC_KEY}"
    COMMAND tarncore-sign pubkey "${TARN_SIGNING_KEY}" "${TARN_SIGNING_PUBLIC_KEY}"
    DEPENDS "${TARN_SIGNING_KEY}"
    COMMENT "Public key of the maker's signing key"
    VERBATIM)
  add_custom_target(tarn_signing_keys ALL DEPENDS "${TARN_SIGNING_PUBLIC_KEY}")
else()
  set(TARN_RELEASE_SIGNED OFF)
  set(TARN_SIGNING_PUBLIC_KEY "${CMAKE_BINARY_DIR}/keys/tarn-dev.pub")
  # A normal variable: it hides the empty cache entry in this tree only.
  set(TARN_SIGNING_KEY "${CMAKE_BINARY_DIR}/keys/tarn-dev.pem")
  add_custom_command(
    OUTPUT "${TARN_SIGNING_KEY}" "${TARN_SIGNING_PUBLIC_KEY}"
    COMMAND tarncore-sign keygen --force "${TARN_SIGNING_KEY}" "${TARN_SIGNING_PUBLIC_KEY}"
    COMMENT "Making the development signing key"
    VERBATIM)
  add_custom_target(tarn_signing_keys ALL DEPENDS "${TARN_SIGNING_KEY}" "${TARN_SIGNING_PUBLIC_KEY}")
endif()

function(tarn_use_dev_keys target)
  add_dependencies(${target} tarn_signing_keys tarncore-sign)
  target_compile_definitions(${target} PRIVATE
    TARN_DEV_PRIVATE_KEY="${TARN_SIGNING_KEY}"
    TARN_DEV_PUBLIC_KEY="${TARN_SIGNING_PUBLIC_KEY}"
    TARN_SIGN_TOOL="$<TARGET_FILE:tarncore-sign>")
endfunction()
