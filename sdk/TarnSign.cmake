# Signing what a build makes, in TarnCore's own tree and in kits built against
# the installed SDK.
#
#   TARN_SIGNING_KEY            the private key that signs: a PEM file, or a
#                               32-byte seed as 64 hex digits. Make a pair with
#                               tarncore-sign keygen my-key.pem my-key.pub
#   tarn_sign_target(<target>)  signs the target's file after each link, with
#                               TarnKit::sign (tarncore-sign)
include_guard(GLOBAL)

set(TARN_SIGNING_KEY "" CACHE FILEPATH "Private key that signs the programs and kits this build makes")

function(tarn_sign_target target)
  if(target STREQUAL "tarncore-sign")
    message(FATAL_ERROR "tarncore-sign cannot sign itself during the build")
  endif()
  if(NOT TARN_SIGNING_KEY)
    message(FATAL_ERROR "Signing ${target} needs a private key: make a pair with\n"
                        "  tarncore-sign keygen my-key.pem my-key.pub\n"
                        "and configure with -DTARN_SIGNING_KEY=<path of my-key.pem>")
  endif()
  # Inside TarnCore's tree the build makes its key and its signing tool first.
  foreach(maker tarn_signing_keys tarncore-sign)
    if(TARGET ${maker})
      add_dependencies(${target} ${maker})
    endif()
  endforeach()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND TarnKit::sign sign --key "${TARN_SIGNING_KEY}" "$<TARGET_FILE:${target}>"
    COMMENT "Signing ${target}"
    VERBATIM)
endfunction()
