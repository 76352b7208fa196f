# Debian's libraries. For the i386 build they come from a private sysroot (see packaging/install-deps), whose
# pkg-config files say where everything lies.
find_package(PkgConfig REQUIRED)
if(QUILL_SYSROOT)
    if(NOT IS_DIRECTORY ${QUILL_SYSROOT})
        message(FATAL_ERROR "no 32-bit libraries in ${QUILL_SYSROOT}; run packaging/install-deps --i386")
    endif()
    set(ENV{PKG_CONFIG_LIBDIR} ${QUILL_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${QUILL_SYSROOT}/usr/share/pkgconfig)
    set(ENV{PKG_CONFIG_SYSROOT_DIR} ${QUILL_SYSROOT})
    # Headers that differ between architectures; without this the compiler finds none, or the machine's own.
    include_directories(SYSTEM ${QUILL_SYSROOT}/usr/include/i386-linux-gnu)
    # Found while linking and when run from the build tree; installed files do not keep it.
    list(APPEND CMAKE_BUILD_RPATH ${QUILL_SYSROOT}/usr/lib/i386-linux-gnu)
    add_link_options(-Wl,-rpath-link,${QUILL_SYSROOT}/usr/lib/i386-linux-gnu)
endif()

pkg_check_modules(libcrypto REQUIRED IMPORTED_TARGET libcrypto)
pkg_check_modules(sqlite3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(inih REQUIRED IMPORTED_TARGET inih)
pkg_check_modules(libevent REQUIRED IMPORTED_TARGET libevent_core)
if(QUILL_SYSROOT)
    set(only_sysroot PATHS ${QUILL_SYSROOT}/usr/lib/i386-linux-gnu NO_DEFAULT_PATH)
endif()
find_library(CRACK_LIBRARY crack ${only_sysroot} REQUIRED)      # has no pkg-config file
find_library(DEFLATE_LIBRARY deflate ${only_sysroot} REQUIRED)  # has one that names another folder
find_path(CLI11_INCLUDE_DIR CLI/CLI.hpp REQUIRED)
find_path(FMT_INCLUDE_DIR fmt/format.h REQUIRED)
find_path(NLOHMANN_INCLUDE_DIR nlohmann/json.hpp REQUIRED)

if(BUILD_TESTING)
    enable_testing()
    # Built from Debian's sources, so that every target and sanitizer gets one of its own kind.
    add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    target_compile_options(gtest PRIVATE -w)  # not ours to mend
    include(GoogleTest)
endif()
