# Every external dependency, looked up once for the whole tree. Folders link the imported targets
# named here and never look a package up themselves.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(GTest REQUIRED)
find_package(OpenSSL REQUIRED)                                   # OpenSSL::SSL, OpenSSL::Crypto

pkg_check_modules(TIRPC REQUIRED IMPORTED_TARGET libtirpc)       # PkgConfig::TIRPC   XDR memory streams
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)         # PkgConfig::CURL    WAN client
pkg_check_modules(XERCES REQUIRED IMPORTED_TARGET xerces-c)      # PkgConfig::XERCES  XML layer
pkg_check_modules(ICU_UC REQUIRED IMPORTED_TARGET icu-uc)        # PkgConfig::ICU_UC  XML layer
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)      # PkgConfig::SQLITE3 reference server, bench
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)  # PkgConfig::HTTPLIB reference server, tests
pkg_check_modules(FUSE3 IMPORTED_TARGET fuse3)                   # PkgConfig::FUSE3   module daemon (optional)
if(NOT FUSE3_FOUND)
  message(STATUS "fuse3 not found: tavrel_kfsmd and the tests that mount are not built")
endif()
