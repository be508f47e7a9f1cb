# The tool's commands run in-process over the machine profiles; the JSON
# reports they leave behind are then checked.
target_link_libraries(${target} PRIVATE torvex_tool)
set_tests_properties(${name} PROPERTIES FIXTURES_SETUP laptop_report)
add_test(NAME laptop_json
  COMMAND /usr/bin/python3 ${dir}/check_report.py ${CMAKE_SOURCE_DIR}/docs/report.schema.json
    ${CMAKE_BINARY_DIR}/bin/laptop-report.json ${CMAKE_BINARY_DIR}/bin/desktop-report.json)
set_tests_properties(laptop_json PROPERTIES FIXTURES_REQUIRED laptop_report)
# Holds "MutexWMI" from two processes and counts overlaps: not alongside the
# channel's own tests, one of which keeps the mutex for five seconds. The three
# tests on this lock run one after another: their COST (seconds alone) starts
# them first on a fresh build, so that the others fill the second core.
set_tests_properties(${name} PROPERTIES RESOURCE_LOCK MutexWMI COST 12)
