# Debian's libraries, by their CMake packages or else their pkg-config files. Those of the i386 build lie in a
# private sysroot (packaging/install-deps --i386).
find_package(PkgConfig REQUIRED)
if(QUILL_SYSROOT)
    if(NOT IS_DIRECTORY ${QUILL_SYSROOT})
        message(FATAL_ERROR "no 32-bit libraries in ${QUILL_SYSROOT}; run packaging/install-deps --i386")
    endif()
    set(ENV{PKG_CONFIG_LIBDIR} ${QUILL_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${QUILL_SYSROOT}/usr/share/pkgconfig)
    set(ENV{PKG_CONFIG_SYSROOT_DIR} ${QUILL_SYSROOT})
    list(PREPEND CMAKE_PREFIX_PATH ${QUILL_SYSROOT}/usr)
    # Headers that differ between architectures; without this the compiler finds none, or those of the host.
    include_directories(SYSTEM ${QUILL_SYSROOT}/usr/include/i386-linux-gnu)
    # For linking and for running from the build tree; installed files do not have it.
    file(RELATIVE_PATH sysroot_from_program ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} ${QUILL_SYSROOT}/usr/lib/i386-linux-gnu)
    list(APPEND CMAKE_BUILD_RPATH "$ORIGIN/${sysroot_from_program}")
    add_link_options(-Wl,-rpath-link,${QUILL_SYSROOT}/usr/lib/i386-linux-gnu)
endif()

pkg_check_modules(libcrypto REQUIRED IMPORTED_TARGET libcrypto)
pkg_check_modules(libcrypt REQUIRED IMPORTED_TARGET libcrypt)
pkg_check_modules(sqlite3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(inih REQUIRED IMPORTED_TARGET inih)
pkg_check_modules(libevent REQUIRED IMPORTED_TARGET libevent_core)  # Libevent's CMake package requires all its components
find_library(CRACK_LIBRARY crack REQUIRED)      # has neither
find_library(DEFLATE_LIBRARY deflate REQUIRED)  # its pkg-config file names a wrong folder
find_package(CLI11 REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)

if(BUILD_TESTING)
    enable_testing()
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()
