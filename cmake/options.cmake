# Compiler and linker options of all targets, as the target quill_options, and the output folders.
option(BUILD_TESTING "build the tests" ON)
option(QUILL_WERROR "treat warnings as errors" OFF)
option(QUILL_HARDEN "checked C library calls, stack protector, read-only relocations (off with sanitizers)" ON)
option(QUILL_SANITIZE "address and undefined-behaviour sanitizers" OFF)
option(QUILL_THREAD_SANITIZER "thread sanitizer" OFF)
option(QUILL_BENCH "benchmarks; needs Google Benchmark" OFF)
option(QUILL_FUZZ "fuzz harnesses for libFuzzer; needs clang" OFF)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)    # so that a build does not depend on the path of the tree

set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

# Separate from quill_options for the one target that is compiled without sanitizers.
add_library(quill_warnings INTERFACE)
target_compile_options(quill_warnings INTERFACE
    -Wall -Wextra -Wconversion -Wshadow $<$<BOOL:${QUILL_WERROR}>:-Werror>)

add_library(quill_options INTERFACE)
target_link_libraries(quill_options INTERFACE quill_warnings)
target_compile_options(quill_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)

if(QUILL_SANITIZE)
    target_compile_options(quill_options INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(quill_options INTERFACE -fsanitize=address,undefined)
    if(QUILL_FUZZ)
        # Coverage of our own code only: most of what is compiled is templates of libraries.
        target_compile_options(quill_options INTERFACE
            -fsanitize=fuzzer-no-link -fsanitize-coverage-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/not_followed)
    endif()
elseif(QUILL_THREAD_SANITIZER)
    target_compile_options(quill_options INTERFACE -fsanitize=thread)
    target_link_options(quill_options INTERFACE -fsanitize=thread)
elseif(QUILL_HARDEN)
    target_compile_options(quill_options INTERFACE -fstack-protector-strong)
    target_link_options(quill_options INTERFACE -Wl,-z,relro,-z,now)
    # The builder's own choice takes precedence; without optimisation it would only cause a warning.
    if(NOT "${CMAKE_CXX_FLAGS} ${CMAKE_C_FLAGS}" MATCHES "_FORTIFY_SOURCE")
        target_compile_definitions(quill_options INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
    endif()
endif()
