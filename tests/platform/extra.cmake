# The CPU and battery tests call the firmware channel and check that "MutexWMI"
# is free after each call: not beside the channel's five-second holder.
set_tests_properties(${name} PROPERTIES RESOURCE_LOCK MutexWMI COST 2)
