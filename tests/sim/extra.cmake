# The loader's refusals and the replay of whatever it accepts run the tool's
# own queries.
target_link_libraries(${target} PRIVATE torvex_tool)
# The redaction policy's table in docs/machine-profile.md is held to the code's.
configure_file(${CMAKE_SOURCE_DIR}/docs/machine-profile.md ${CMAKE_BINARY_DIR}/bin/docs/machine-profile.md COPYONLY)
