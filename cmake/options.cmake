# One way of compiling for everything below, and one place where the results go.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

option(BUILD_TESTING "build the tests" ON)
option(QUILL_WERROR "treat warnings as errors" OFF)
option(QUILL_SANITIZE "address and undefined-behaviour sanitizers" OFF)
option(QUILL_THREAD_SANITIZER "thread sanitizer" OFF)
option(QUILL_BENCH "benchmarks; needs Google Benchmark" OFF)
option(QUILL_FUZZ "fuzz harnesses for libFuzzer; needs clang" OFF)

# Ours alone: third-party sources are compiled without these.
add_library(quill_warnings INTERFACE)
target_compile_options(quill_warnings INTERFACE -Wall -Wextra -Wconversion -Wshadow)
if(QUILL_WERROR)
    target_compile_options(quill_warnings INTERFACE -Werror)
endif()

if(QUILL_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
    if(QUILL_FUZZ)
        # What is followed is our own code: the templates of others are most of what is compiled.
        add_compile_options(
            -fsanitize=fuzzer-no-link -fsanitize-coverage-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/not_followed)
    endif()
elseif(QUILL_THREAD_SANITIZER)
    add_compile_options(-fsanitize=thread)
    add_link_options(-fsanitize=thread)
else()
    add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
    add_compile_options(-fstack-protector-strong)
    add_link_options(-Wl,-z,relro,-z,now)
endif()
