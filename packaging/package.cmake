# Installation beyond the binary and the product tree, and the Debian package.
#
# cmake --install <build> --prefix <prefix> adds the manual page
# (<prefix>/share/man/man1/vantrel.1) and an example configuration file that
# names <prefix> as the product root (<prefix>/etc/kva.conf.example); it never
# writes /etc/kva/kva.conf.
#
# cmake --build <build> --target package makes the Debian package: the product
# under /opt/vantrel, the command /usr/bin/vantrel, the manual page in
# /usr/share/man and /etc/kva/kva.conf (a configuration file dpkg keeps on
# upgrade); its maintainer scripts create the account kvaadm.

set(VANTREL_PACKAGE_PREFIX /opt/vantrel)
set(VANTREL_MANUAL ${CMAKE_SOURCE_DIR}/doc/vantrel.1)
set(packaging_in ${CMAKE_CURRENT_LIST_DIR})
set(packaging_out ${CMAKE_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${packaging_out})

# A plain install: the prefix is known only when the install runs.
install(FILES ${VANTREL_MANUAL} DESTINATION share/man/man1 COMPONENT standalone)
install(CODE "
  set(VANTREL_ROOT \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${packaging_in}/kva.conf.in\" \"${packaging_out}/kva.conf.example\" @ONLY)
  file(INSTALL \"${packaging_out}/kva.conf.example\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/etc\")
" COMPONENT standalone)

# What only the package installs, outside its prefix.
set(VANTREL_ROOT ${VANTREL_PACKAGE_PREFIX})
configure_file(${packaging_in}/kva.conf.in ${packaging_out}/kva.conf @ONLY)
configure_file(${packaging_in}/postinst ${packaging_out}/postinst COPYONLY)
configure_file(${packaging_in}/postrm.in ${packaging_out}/postrm @ONLY)
configure_file(${packaging_in}/conffiles ${packaging_out}/conffiles COPYONLY)
file(CREATE_LINK ${VANTREL_PACKAGE_PREFIX}/bin/vantrel ${packaging_out}/vantrel SYMBOLIC)
install(FILES ${packaging_out}/kva.conf DESTINATION /etc/kva COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES ${packaging_out}/vantrel DESTINATION /usr/bin COMPONENT debian EXCLUDE_FROM_ALL)
install(CODE "
  execute_process(COMMAND gzip -9n -c \"${VANTREL_MANUAL}\" OUTPUT_FILE \"${packaging_out}/vantrel.1.gz\"
                  COMMAND_ERROR_IS_FATAL ANY)
  file(INSTALL \"${packaging_out}/vantrel.1.gz\" DESTINATION /usr/share/man/man1)
" COMPONENT debian EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantrel)
set(CPACK_PACKAGE_CONTACT "vantrel maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "drives the source host of a hosting-panel migration over SSH")
set(CPACK_PACKAGE_DESCRIPTION "vantrel runs on the destination server of a hosting-panel migration: it
probes the source host with a scout, deploys an agent there, runs it as root
to dump accounts and streams the content archives back, all over SSH.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${VANTREL_PACKAGE_PREFIX})
set(CPACK_STRIP_FILES ON)
# One package of the shared install and the package's own files; the plain
# install's manual page and example stay out.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified debian)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# useradd and groupadd for postinst.
set(CPACK_DEBIAN_PACKAGE_DEPENDS passwd)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${packaging_out}/postinst ${packaging_out}/postrm ${packaging_out}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
