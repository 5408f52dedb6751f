# What `cmake --install` lays out, by component. The platform goes where the
# platform layer and the systemd unit look for it, whatever the prefix; the kit
# SDK and the command-line programs go under CMAKE_INSTALL_PREFIX. With
# DESTDIR=<folder> the whole machine is laid out below <folder>, which then runs
# as a machine root (TARNCORE_ROOT=<folder>).
#
#   platform  /opt/tarncore/: the programs, kits/ (the scope service package and
#             the sample kits), config/remoteConfig.json, keys/maker.pub (the
#             key that signed them) and tarncore-setup; the systemd unit;
#             /etc/tarncore/scope-policy.json; bin/tarncore; the signing note
#   dev       the kit SDK (include/tarnkit/, lib/cmake/TarnKit/) and tarncore-sign
#   machine   runs tarncore-setup on the installed root: the registry key with
#             its values and the trusted maker key. The Debian package's
#             postinst does this instead, so no package holds this component.
# The client library installs itself (sdk/client): components client and
# client-dev.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TARN_INSTALL_DIR /opt/tarncore)
set(TARN_ETC_DIR /etc/tarncore)
set(TARN_UNIT_DIR /lib/systemd/system)
set(TARN_UNIT TarnCoreService.service)
set(TARN_KIT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TarnKit)
set(tarn_generated ${PROJECT_BINARY_DIR}/install)

configure_file(packaging/tarncore-setup.in ${tarn_generated}/tarncore-setup @ONLY)
add_custom_command(
  OUTPUT ${tarn_generated}/scope-policy.json ${tarn_generated}/SIGNING
  COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:tarncore-sign> -DPUBLIC_KEY=${TARN_SIGNING_PUBLIC_KEY}
          -DRELEASE=${TARN_RELEASE_SIGNED} -DVERSION=${PROJECT_VERSION} -DOUT=${tarn_generated}
          -DPOLICY=${PROJECT_SOURCE_DIR}/demo/root-template/etc/tarncore/scope-policy.json
          -P ${PROJECT_SOURCE_DIR}/packaging/signed_files.cmake
  DEPENDS tarncore-sign ${TARN_SIGNING_PUBLIC_KEY} ${PROJECT_SOURCE_DIR}/packaging/signed_files.cmake
          ${PROJECT_SOURCE_DIR}/demo/root-template/etc/tarncore/scope-policy.json
  COMMENT "Scope policy and signing note for the signing key"
  VERBATIM)
add_custom_target(tarn_install_files ALL DEPENDS ${tarn_generated}/scope-policy.json ${tarn_generated}/SIGNING)

# platform. Signed files are copied as built: install(TARGETS) may rewrite an
# ELF file, which would break its signature.
install(PROGRAMS
    $<TARGET_FILE:TarnCoreContainer> $<TARGET_FILE:TarnCoreService>
    $<TARGET_FILE:TarnCoreUI> $<TARGET_FILE:TarnCoreUpdater> $<TARGET_FILE:TarnCoreNotice>
    ${tarn_generated}/tarncore-setup
  DESTINATION ${TARN_INSTALL_DIR} COMPONENT platform)
foreach(package com.vantrel.scopeservice com.vantrel.demo com.vantrel.demo.lazy com.vantrel.sample)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/kits/${package} DESTINATION ${TARN_INSTALL_DIR}/kits
    USE_SOURCE_PERMISSIONS COMPONENT platform)
endforeach()
install(FILES demo/install/config/remoteConfig.json DESTINATION ${TARN_INSTALL_DIR}/config COMPONENT platform)
install(FILES ${TARN_SIGNING_PUBLIC_KEY} DESTINATION ${TARN_INSTALL_DIR}/keys RENAME maker.pub
  COMPONENT platform)
install(FILES packaging/systemd/${TARN_UNIT} DESTINATION ${TARN_UNIT_DIR} COMPONENT platform)
install(FILES ${tarn_generated}/scope-policy.json DESTINATION ${TARN_ETC_DIR} COMPONENT platform)
install(PROGRAMS $<TARGET_FILE:tarncore> DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT platform)
install(FILES ${tarn_generated}/SIGNING DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tarncore COMPONENT platform)

# dev
install(DIRECTORY sdk/include/tarnkit DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(TARGETS tarn_kit_headers EXPORT TarnKitTargets INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS tarncore-sign EXPORT TarnKitTargets RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dev)
install(EXPORT TarnKitTargets NAMESPACE TarnKit:: DESTINATION ${TARN_KIT_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(sdk/TarnKitConfig.cmake.in ${tarn_generated}/TarnKitConfig.cmake
  INSTALL_DESTINATION ${TARN_KIT_CMAKE_DIR})
# Kits share std::function with the container: same major version, same compiler.
write_basic_package_version_file(${tarn_generated}/TarnKitConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${tarn_generated}/TarnKitConfig.cmake ${tarn_generated}/TarnKitConfigVersion.cmake
    sdk/TarnKit.cmake sdk/TarnKitStrings.cmake sdk/TarnSign.cmake
  DESTINATION ${TARN_KIT_CMAKE_DIR} COMPONENT dev)

# machine, after the platform's files are in place.
install(CODE "execute_process(COMMAND sh \"\$ENV{DESTDIR}${TARN_INSTALL_DIR}/tarncore-setup\" \"\$ENV{DESTDIR}\"
                              COMMAND_ERROR_IS_FATAL ANY)"
  COMPONENT machine)
