# kze_platform_library(<name> SOURCES ... LIBRARIES ...): one base library, lib<name>.so, in lib/.
# Only what platform/include declares with default visibility leaves it.
function(kze_platform_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_library(${name} SHARED ${ARG_SOURCES})
    add_library(kzemdlmgr::${name} ALIAS ${name})
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/include>
        $<INSTALL_INTERFACE:include/kzemdlmgr/platform>)
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} Threads::Threads)
    kze_artifact(${name} lib EXPORT kzemdlmgr-targets)
endfunction()
