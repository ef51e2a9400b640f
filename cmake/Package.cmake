# What `cmake --install` installs, and the Debian package that `cpack` makes of it.
install(TARGETS Dirwarden RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES man/Dirwarden.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# Named as the package is, which is not how the project is spelled.
set(documentation ${CMAKE_INSTALL_DATAROOTDIR}/doc/dirwarden)
install(FILES README.md CHANGELOG.md DESTINATION ${documentation})
# The clients go along as they are: pip and npm install them from there. What an installation from the tree leaves does not.
install(DIRECTORY docs examples clients DESTINATION ${documentation} USE_SOURCE_PERMISSIONS
  PATTERN build EXCLUDE PATTERN *.egg-info EXCLUDE PATTERN __pycache__ EXCLUDE PATTERN node_modules EXCLUDE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dirwarden)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The Dirwarden developers <dirwarden@localhost>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "report the changes in a folder tree
Dirwarden watches one folder with everything below it and writes each change as
one line on standard output: what was created, deleted, renamed or changed, with
inode number, times and size. It is for programs that keep a picture of a folder
tree up to date, such as an index, a backup or a sync service.")
find_program(DIRWARDEN_SHLIBDEPS dpkg-shlibdeps)
if(DIRWARDEN_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
