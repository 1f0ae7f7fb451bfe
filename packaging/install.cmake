# SPDX-License-Identifier: GPL-3.0-or-later
# What an installation has, and the Debian package of it.
include(GNUInstallDirs)
# Without the symbols, as in a package; build/ keeps them.
install(CODE "set(CMAKE_INSTALL_DO_STRIP TRUE)")
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
  GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
install(TARGETS dbsweep objdb RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
function(install_zipped file directory)
  get_filename_component(name ${file} NAME)
  install(FILES ${file} DESTINATION ${directory})
  set(installed "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}/${name}")
  install(CODE "execute_process(COMMAND gzip -9nf \"${installed}\" COMMAND_ERROR_IS_FATAL ANY)")
endfunction()
install_zipped(man/dbsweep.8 ${CMAKE_INSTALL_MANDIR}/man8)
install_zipped(man/objdb.8 ${CMAKE_INSTALL_MANDIR}/man8)
install_zipped(packaging/changelog ${CMAKE_INSTALL_DOCDIR})
install(FILES completion/dbsweep completion/objdb
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)  # the tests need not be built for a package

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(DBSWEEP_MAINTAINER "dbsweep developers <dbsweep@corvane.invalid>" CACHE STRING
  "Who builds the package: name and mail address")
set(CPACK_PACKAGE_CONTACT "${DBSWEEP_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "offline maintenance of the Corvane object database")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "dbsweep deletes the objects of a retired protocol, or single ones, from the
object database of the Corvane network-management platform and writes its
tables again. objdb checks, compares, dumps, loads, archives, restores and
salvages such databases.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS procps)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion, jq")
include(CPack)
