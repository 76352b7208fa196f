# The target `headers` compiles each header of the tree by itself, so that any can be included first, and the
# public ones as C too.
file(GLOB_RECURSE headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
    base/*.h bench/*.h cli/*.h daemon/*.h fuzz/*.h include/*.h library/*.h platform/*.h tests/*.h)
set(sources)
foreach(header ${headers})
    set(languages cc)
    if(header MATCHES "^(platform/)?include/")
        list(APPEND languages c)
    endif()
    foreach(language ${languages})
        set(source ${PROJECT_BINARY_DIR}/headers/${header}.${language})
        file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${PROJECT_SOURCE_DIR}/${header}\"  // IWYU pragma: keep\n")
        list(APPEND sources ${source})
    endforeach()
endforeach()
add_library(headers OBJECT EXCLUDE_FROM_ALL ${sources})
target_link_libraries(headers PRIVATE quill_options quillsec_core quillsecurityd_core quill_world GTest::gtest)
