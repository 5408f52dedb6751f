# Writes the installed files that name the key the build signs with, once
# that key exists: the scope policy (the tarncore client is known by the key's
# fingerprint) and the signing note.
# Run as: cmake -DTOOL=<tarncore-sign> -DPUBLIC_KEY=<.pub> -DRELEASE=<ON|OFF>
#               -DPOLICY=<policy template> -DVERSION=<x.y.z> -DOUT=<dir> -P signed_files.cmake
execute_process(COMMAND "${TOOL}" fingerprint "${PUBLIC_KEY}"
  OUTPUT_VARIABLE fingerprint OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

file(READ "${POLICY}" policy)
string(REPLACE "@TARN_DEV_FINGERPRINT@" "${fingerprint}" policy "${policy}")
file(WRITE "${OUT}/scope-policy.json" "${policy}")

if(RELEASE)
  set(who "the maker's release key")
  set(meaning "That key is trusted as a maker key (/etc/tarncore/trusted-keys/maker/tarncore.pub).")
else()
  set(who "the development key of the build tree it was made in, not with a maker's release key")
  set(meaning "That key is trusted as a maker key (/etc/tarncore/trusted-keys/maker/tarncore.pub):
whoever holds that build tree's keys/tarn-dev.pem can sign programs and kits
that this machine runs as the maker's. Packages for other machines are built
with the maker's key:  ./scripts/package -DTARN_SIGNING_KEY=<private key>")
endif()
file(WRITE "${OUT}/SIGNING" "TarnCore ${VERSION} was signed with ${who}:
  fingerprint ${fingerprint}
${meaning}
")
