# The AMD Display Library stand-in, built as atiadlxx.dll beside the tests.
add_library(adl_stand_in SHARED ${dir}/adl_stand_in.c)
set_target_properties(adl_stand_in PROPERTIES PREFIX "" OUTPUT_NAME atiadlxx)
target_link_options(adl_stand_in PRIVATE ${TORVEX_STATIC_RUNTIME})
add_dependencies(${target} adl_stand_in igcl_stand_in)  # the second: an ADL without its entry points
