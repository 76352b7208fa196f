# export_only(TARGET LIST [NODE]): the shared library exports the names in the file LIST, one a line, and nothing
# else; with NODE as their symbol version, or without a version.
function(export_only target list node)
    cmake_path(ABSOLUTE_PATH list)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
    file(STRINGS ${list} names)
    list(JOIN names ";\n    " names)
    set(map ${CMAKE_CURRENT_BINARY_DIR}/lib${target}.map)
    file(CONFIGURE OUTPUT ${map} CONTENT "@node@ {\nglobal:\n    @names@;\nlocal:\n    *;\n};\n" @ONLY)
    target_link_options(${target} PRIVATE -Wl,--version-script=${map})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()
