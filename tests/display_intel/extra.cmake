# The Intel Graphics Control Library stand-in. It is not named ControlLib.dll
# so that no other program finds it; the test hands it out by redirection.
add_library(igcl_stand_in SHARED ${dir}/igcl_stand_in.c)
set_target_properties(igcl_stand_in PROPERTIES PREFIX "" OUTPUT_NAME igcl_stand_in)
target_link_options(igcl_stand_in PRIVATE ${TORVEX_STATIC_RUNTIME})
add_dependencies(${target} igcl_stand_in)
