# Writes the string table of a kit: id 199 is the upper-case SHA-256 of its
# manifest. Run as: cmake -DMANIFEST=<file> -DOUTPUT=<source> -P TarnKitStrings.cmake
file(SHA256 "${MANIFEST}" digest)
string(TOUPPER "${digest}" digest)
set(text "// Generated from ${MANIFEST}; rebuilt whenever the manifest changes.
#include \"tarnkit/tarn_kit.h\"

extern \"C\" TARN_KIT_EXPORT const TarnKitString TarnKitStrings[] = {
    {kTarnKitVerifyStringId, u\"${digest}\"},
    {0, nullptr},
};
")
file(WRITE "${OUTPUT}.tmp" "${text}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
