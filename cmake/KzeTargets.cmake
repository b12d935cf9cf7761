# Compiler settings that every target of ours takes, and where its artifact lies in the agent's tree.

# The build lays its artifacts out as an agent's tree, so that what is built can be started as it is.
set(KZE_TREE ${CMAKE_BINARY_DIR}/tree)

add_library(kze_settings INTERFACE)
target_compile_options(kze_settings INTERFACE -Wall -Wextra -Wshadow -Wconversion)
if(KZEMDLMGR_WERROR)
    target_compile_options(kze_settings INTERFACE -Werror)
endif()
if(KZEMDLMGR_SANITIZE)
    # A report names functions and lines; to describe variables as well takes a tenth of the build.
    target_compile_options(kze_settings INTERFACE
        -fsanitize=${KZEMDLMGR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
    target_link_options(kze_settings INTERFACE -fsanitize=${KZEMDLMGR_SANITIZE})
endif()

# All that lies in the tree: what has to be built in order to run the agent.
add_custom_target(agent_tree)

# kze_artifact(<target> <folder>): puts the target's file into <folder> of the tree, in the build and
# at the installation, and lets it find the agent's libraries from there. A module is named
# as the target says, a library as CMake does.
function(kze_artifact target folder)
    string(REGEX REPLACE "[^/]+" ".." up ${folder})
    set_target_properties(${target} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY ${KZE_TREE}/${folder}
        LIBRARY_OUTPUT_DIRECTORY ${KZE_TREE}/${folder}
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "$ORIGIN/${up}/lib")
    target_link_libraries(${target} PRIVATE kze_settings)
    add_dependencies(agent_tree ${target})
    install(TARGETS ${target} RUNTIME DESTINATION ${folder} LIBRARY DESTINATION ${folder})
endfunction()

# kze_platform_library(<name> SOURCES ... LIBRARIES ...): one base library, lib<name>.so, in lib/.
# Only what platform/include declares with default visibility leaves it.
function(kze_platform_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_library(${name} SHARED ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/platform/include)
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} Threads::Threads)
    kze_artifact(${name} lib)
endfunction()
