# The product's CMake package, with which the agent, or any other program, is built on an installed
# tree: cmake --install <build> --prefix <tree>, and the same with --component dev.
include(CMakePackageConfigHelpers)

# The headers that the product shares with who stands on the other side: nothing else of it.
add_library(kzemdlmgr_contracts INTERFACE)
add_library(kzemdlmgr::contracts ALIAS kzemdlmgr_contracts)
set_target_properties(kzemdlmgr_contracts PROPERTIES EXPORT_NAME contracts)
target_include_directories(kzemdlmgr_contracts INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:include/kzemdlmgr>)

set(package lib/cmake/kzemdlmgr)
set(include include/kzemdlmgr)
set(dev COMPONENT dev EXCLUDE_FROM_ALL)
install(TARGETS kzemdlmgr_contracts EXPORT kzemdlmgr-targets ${dev})
install(DIRECTORY platform/include/ DESTINATION ${include}/platform ${dev}
    FILES_MATCHING PATTERN *.h)
foreach(header IN ITEMS engine/qd_client.h engine/module_header.h datapath/mbframe.h
        config/kzacfgc_api.h platform/common/descriptor.h)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${header} DESTINATION ${include}/${folder} ${dev})
endforeach()
install(EXPORT kzemdlmgr-targets NAMESPACE kzemdlmgr:: DESTINATION ${package} ${dev})
install(FILES cmake/KzeTargets.cmake cmake/KzeTest.cmake DESTINATION ${package} ${dev})
set(message_sources ${include}/messages/trace.pb.cc ${include}/messages/new/kzerespdsppl_re.pb.cc)
configure_package_config_file(cmake/kzemdlmgr-config.cmake.in
    ${PROJECT_BINARY_DIR}/kzemdlmgr-config.cmake INSTALL_DESTINATION ${package}
    PATH_VARS message_sources)
install(FILES ${PROJECT_BINARY_DIR}/kzemdlmgr-config.cmake DESTINATION ${package} ${dev})
