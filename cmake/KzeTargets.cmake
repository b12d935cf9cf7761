# Compiler settings that every target of ours takes, and where its artifact lies in an agent's tree.
# For the product and, by its CMake package, for what is built on it.

option(KZEMDLMGR_WERROR "Treat compiler warnings as errors" OFF)
set(KZEMDLMGR_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# The build lays its artifacts out as an agent's tree, so that what is built can be started as it is.
set(KZE_TREE ${CMAKE_BINARY_DIR}/tree)

add_library(kze_settings INTERFACE)
target_compile_options(kze_settings INTERFACE -Wall -Wextra -Wshadow -Wconversion)
if(KZEMDLMGR_WERROR)
    target_compile_options(kze_settings INTERFACE -Werror)
endif()
if(KZEMDLMGR_SANITIZE)
    target_compile_options(kze_settings INTERFACE
        -fsanitize=${KZEMDLMGR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(kze_settings INTERFACE -fsanitize=${KZEMDLMGR_SANITIZE})
endif()

# All that lies in the tree: what has to be built in order to run the agent.
add_custom_target(agent_tree)

# kze_artifact(<target> <folder> [EXPORT set]): puts the target's file into <folder> of the tree, in
# the build and at the installation, and lets it find the agent's libraries from there. A module is
# named as the target says, a library as CMake does.
function(kze_artifact target folder)
    cmake_parse_arguments(ARG "" "EXPORT" "" ${ARGN})
    string(REGEX REPLACE "[^/]+" ".." up ${folder})
    set_target_properties(${target} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY ${KZE_TREE}/${folder}
        LIBRARY_OUTPUT_DIRECTORY ${KZE_TREE}/${folder}
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "$ORIGIN/${up}/lib")
    target_link_libraries(${target} PRIVATE kze_settings)
    add_dependencies(agent_tree ${target})
    set(export)
    if(ARG_EXPORT)
        set(export EXPORT ${ARG_EXPORT})
    endif()
    install(TARGETS ${target} ${export} RUNTIME DESTINATION ${folder} LIBRARY DESTINATION ${folder})
endfunction()
