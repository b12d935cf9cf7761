# The product's libraries, beside the agent's own in the build's tree, which can be started then.
foreach(library IN ITEMS vrdbase vrdcl_ev vrdipc vrdaux kzautil kzabase)
    list(APPEND libraries $<TARGET_FILE:kzemdlmgr::${library}>)
endforeach()
add_custom_target(product_tree
    COMMAND ${CMAKE_COMMAND} -E make_directory ${KZE_TREE}/lib ${KZE_TREE}/agent_plugins
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${libraries} ${KZE_TREE}/lib
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:kzemdlmgr::kzemdlmgr>
        ${KZE_TREE}/agent_plugins
    VERBATIM)
add_dependencies(agent_tree product_tree)
