# The loader's refusals and the replay of whatever it accepts run the tool's
# own queries.
target_link_libraries(${target} PRIVATE torvex_tool)
