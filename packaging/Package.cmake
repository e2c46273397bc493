# `make package`: a Debian package built by CPack from the install rules in this folder. Its
# Depends are worked out by dpkg-shlibdeps from the libraries the programs link, so they name
# exactly the Debian packages that provide them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sparrowdeck)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Sparrowdeck")
set(CPACK_PACKAGE_CONTACT "Sparrowdeck developers <developers@sparrowdeck.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "see what fills your disk and give space back safely")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "Sparrowdeck shows what fills your disk, explains it in plain language, and
gives space back safely. It never deletes anything: what it reclaims goes to
the Trash, every move is written to a journal, and each item can be put back
exactly where it was. It comes as a command, sparrowdeck, and a desktop app,
sparrowdeck-app.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Emptying the Trash is gio's job, and the vault asks git whether a file is tracked.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libglib2.0-bin, git")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
# The package holds the two programs only; `make package` builds them (and the man pages) first,
# so installing need not build every test and benchmark before it.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
include(CPack)
