# One test keeps "MutexWMI" for five seconds; see tests/laptop/extra.cmake.
set_tests_properties(${name} PROPERTIES RESOURCE_LOCK MutexWMI COST 8)
