# Where the parts of an installation are, relative to its prefix; the program finds them from where it runs.

include(GNUInstallDirs)

set(TAVREL_INSTALL_LIBDIR "${CMAKE_INSTALL_LIBDIR}/tavrel")
set(TAVREL_INSTALL_DATADIR "${CMAKE_INSTALL_DATADIR}/tavrel")
set(TAVREL_INSTALL_DOCDIR "${CMAKE_INSTALL_DATADIR}/doc/tavrel")
# The last place where data is searched for.
set(TAVREL_DATA_DIR "${CMAKE_INSTALL_FULL_DATADIR}/tavrel")
