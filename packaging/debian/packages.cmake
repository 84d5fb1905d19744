# The Debian packages that cpack makes: kestro (programs, libfwutil, pages), libtmf1, libtmf-dev
# and python3-tmf.  Run it in a build folder that was configured with the prefix /usr
# (scripts/package), where libraries have Debian's folder.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestro)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Kestro maintainers <kestro@kestro.invalid>" CACHE STRING
  "Who answers for the packages")
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON) # whatever a checkout's umask was
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON) # so that files name /usr, not the folder that packages are made in

# One package for each component, as the files' install rules say.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL kestro libtmf libtmf-dev python3-tmf)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/debian/finish.cmake)
get_target_property(tmf_major tmf_shared SOVERSION)

set(CPACK_DEBIAN_KESTRO_PACKAGE_NAME kestro)
set(CPACK_DEBIAN_KESTRO_DESCRIPTION "change capture from database to capture files
Kestro follows a database's forward log and appends every insert, update and
delete of the datasets selected as a fixed-width record to capture files.

fwlog fills a forward log from a PostgreSQL server and prints changes as JSON,
CSV and SQL; capread prints capture files as data, tmf shows message files,
capship brings forward logs to other hosts.")

set(CPACK_DEBIAN_LIBTMF_PACKAGE_NAME libtmf${tmf_major})
set(CPACK_DEBIAN_LIBTMF_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBTMF_DESCRIPTION "files as queues of records that processes share
A message file is an ordinary disk file that several processes share as a
first-in-first-out queue of variable-length records.

This package holds the shared library.")

set(CPACK_DEBIAN_LIBTMF-DEV_PACKAGE_NAME libtmf-dev)
set(CPACK_DEBIAN_LIBTMF-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBTMF-DEV_DESCRIPTION "files as queues of records that processes share (development)
A message file is an ordinary disk file that several processes share as a
first-in-first-out queue of variable-length records.

This package holds the header, the static library, and what CMake and
pkg-config find them by.")
set(CPACK_DEBIAN_LIBTMF-DEV_PACKAGE_DEPENDS "libtmf${tmf_major} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_PYTHON3-TMF_PACKAGE_NAME python3-tmf)
set(CPACK_DEBIAN_PYTHON3-TMF_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON3-TMF_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON3-TMF_DESCRIPTION "files as queues of records that processes share (Python)
A message file is an ordinary disk file that several processes share as a
first-in-first-out queue of variable-length records.

This package holds the Python module.")
set(CPACK_DEBIAN_PYTHON3-TMF_PACKAGE_DEPENDS "python3 (>= 3.9), libtmf${tmf_major} (>= ${PROJECT_VERSION})")

include(CPack)
