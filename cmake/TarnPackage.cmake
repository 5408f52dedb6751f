# Debian packages of the install components (cmake/TarnInstall.cmake and the
# client library's in sdk/client), made by CPack (scripts/package):
#   tarncore      the platform (component platform) and the client library
#                 (client), with maintainer scripts that do what the machine
#                 component does and keep the service enabled and running
#                 where systemd runs
#   tarncore-dev  the kit SDK and tarncore-sign (dev), and what building a
#                 client application needs (client-dev)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarncore)
set(CPACK_PACKAGE_VENDOR Vantrel)
set(CPACK_PACKAGE_CONTACT "TarnCore maintainers <tarncore@vantrel.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL platform client dev client-dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The client library's shlibs file lets applications' packages depend on it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Debian 12's dpkg and apt read zstd, which packs and unpacks several times
# faster than the default gzip.
set(CPACK_DEBIAN_COMPRESSION_TYPE zstd)
# Stripping would cut the signatures off the end of the files.
set(CPACK_STRIP_FILES OFF)

if(TARN_RELEASE_SIGNED)
  set(tarn_signing_text "Its programs and kits are signed with the maker's key.")
else()
  set(tarn_signing_text "This build is signed with the development key of the build tree it was made
in, not with a maker's release key (see /usr/share/doc/tarncore/SIGNING).")
endif()

# Package settings go by group name.
set(CPACK_DEBIAN_TARNCORE_PACKAGE_NAME tarncore)
set(CPACK_DEBIAN_TARNCORE_PACKAGE_SECTION admin)
# The windows speak Chinese to a Chinese locale, which needs a font that has it.
set(CPACK_DEBIAN_TARNCORE_PACKAGE_RECOMMENDS "fonts-noto-cjk")
set(CPACK_DEBIAN_TARNCORE_DESCRIPTION "TarnCore plug-in service host
TarnCoreContainer hosts plug-in service kits that local client applications
call over a Unix socket; TarnCoreService (a systemd service) keeps it running.
The client library libtarncore-client is part of it.
${tarn_signing_text}")
set(tarn_debian ${PROJECT_BINARY_DIR}/install/debian)
foreach(script postinst prerm postrm)
  configure_file(packaging/debian/${script}.in ${tarn_debian}/${script} @ONLY)
endforeach()
# Configuration an administrator edits survives upgrades.
file(WRITE ${tarn_debian}/conffiles "${TARN_ETC_DIR}/scope-policy.json
${TARN_INSTALL_DIR}/config/remoteConfig.json
")
# The linker cache learns of the client library (our own postinst stands in
# for the one CPack would write with that call).
file(WRITE ${tarn_debian}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_TARNCORE_PACKAGE_CONTROL_EXTRA ${tarn_debian}/postinst ${tarn_debian}/prerm
  ${tarn_debian}/postrm ${tarn_debian}/conffiles ${tarn_debian}/triggers)

set(CPACK_DEBIAN_TARNCORE-DEV_PACKAGE_NAME tarncore-dev)
set(CPACK_DEBIAN_TARNCORE-DEV_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TARNCORE-DEV_DESCRIPTION "TarnCore kit SDK, client library headers and signing tool
The kit SDK (find_package(TarnKit) in CMake: tarn_add_kit and the kit header),
the client library's header, CMake package (find_package(TarnCoreClient)) and
pkg-config file (tarncore-client), and tarncore-sign, which makes keys, signs
kits and programs and checks them.")
# The client library's link name points into tarncore.
set(CPACK_DEBIAN_TARNCORE-DEV_PACKAGE_DEPENDS "tarncore (= ${PROJECT_VERSION})")

include(CPack)
cpack_add_component_group(tarncore)
cpack_add_component_group(tarncore-dev)
cpack_add_component(platform GROUP tarncore)
cpack_add_component(client GROUP tarncore)
cpack_add_component(dev GROUP tarncore-dev)
cpack_add_component(client-dev GROUP tarncore-dev)
