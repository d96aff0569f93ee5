# Install layout and the Debian package (cpack -G DEB in the build directory):
#   /usr/bin/korvo, /usr/share/korvo/{html,sounds,examples}, /lib/systemd/system/korvo.service,
#   /etc/korvo/korvo.conf (conffile), the polkit rule of the service user.
# The package's maintainer scripts (packaging/postinst, prerm, postrm) create the korvo user
# and its groups, keep /var/lib/korvo across upgrade and removal and start the service.

install(TARGETS korvo RUNTIME DESTINATION bin)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/sounds/ DESTINATION share/korvo/sounds FILES_MATCHING PATTERN "*.ogg")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/demo/ DESTINATION share/korvo/examples/demo)
install(FILES ${PROJECT_SOURCE_DIR}/docs/install.md DESTINATION share/doc/korvo)
# Absolute destinations: these belong where the system looks for them, whatever the prefix.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/korvo.service DESTINATION /lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/korvo.conf DESTINATION /etc/korvo)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/korvo-polkit.rules
        DESTINATION /usr/share/polkit-1/rules.d RENAME 50-korvo.rules)

# Debian orders "1.30~rc24" before "1.30", so a release candidate upgrades to its release.
string(REPLACE "rc" "~rc" KORVO_DEB_VERSION "${KORVO_VERSION_STRING}")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvo)
set(CPACK_PACKAGE_VERSION "${KORVO_DEB_VERSION}")
set(CPACK_PACKAGE_CONTACT "VELT!Audio <support@velt-audio.invalid>")
set(CPACK_PACKAGE_VENDOR "VELT!Audio")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "sound board daemon for solid-state pinball machines")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# useradd/groupadd (passwd) and systemctl are used by the maintainer scripts.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "passwd")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd, alsa-utils")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/prerm
    ${PROJECT_SOURCE_DIR}/packaging/postrm ${PROJECT_SOURCE_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

# The package test installs into this machine (CI runs as root) and skips otherwise; only
# the normal build packages, never a sanitizer or fuzzing build.
if(KORVO_TESTS AND KORVO_SANITIZE STREQUAL "" AND NOT KORVO_FUZZ)
  add_test(NAME package COMMAND bash ${PROJECT_SOURCE_DIR}/tests/package/package_test.sh ${PROJECT_BINARY_DIR})
  set_tests_properties(package PROPERTIES LABELS package SKIP_RETURN_CODE 77 RUN_SERIAL ON TIMEOUT 600)
endif()
