# test_msvc checks the boundary types module on its own (compiled in). Beside
# it: the Microsoft-ABI host (host/, built with clang in Microsoft mode and
# lld-link, no C runtime) and its GCC-built twin (twin/), run as msvc_host.
target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/src/msvc/msvc_layout.cpp)

add_library(msvc_twin SHARED ${dir}/twin/twin.cpp)
set_target_properties(msvc_twin PROPERTIES PREFIX "")
target_link_libraries(msvc_twin PRIVATE torvex_test_support)
target_link_options(msvc_twin PRIVATE ${TORVEX_STATIC_RUNTIME})

find_program(TORVEX_CLANG NAMES clang clang-14)
find_program(TORVEX_LLD_LINK NAMES lld-link lld-link-14)
find_program(TORVEX_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
if(NOT TORVEX_CLANG OR NOT TORVEX_LLD_LINK OR NOT TORVEX_LLVM_DLLTOOL)
  add_test(NAME msvc_host COMMAND sh -c "echo 'msvc_host needs clang, lld and llvm: run scripts/setup.sh'; exit 1")
  return()
endif()

set(host_out ${CMAKE_BINARY_DIR}/msvc_host)
file(MAKE_DIRECTORY ${host_out})
execute_process(COMMAND ${TORVEX_CLANG} -print-resource-dir OUTPUT_VARIABLE clang_resource
  OUTPUT_STRIP_TRAILING_WHITESPACE)
set(host_flags --target=x86_64-pc-windows-msvc -std=c++20 -O2 -Wall -Wextra -Werror
  -ffreestanding -fno-builtin -fno-exceptions -fno-rtti -fno-threadsafe-statics -mno-stack-arg-probe
  -nostdinc -isystem ${clang_resource}/include -I${dir}/host/include -I${dir}/host
  -I${CMAKE_SOURCE_DIR}/tests -I${CMAKE_SOURCE_DIR}/include)
file(GLOB host_headers ${dir}/host/include/* ${dir}/host/*.h ${dir}/*.h ${CMAKE_SOURCE_DIR}/include/torvex.h)

set(host_objects)
foreach(source host runtime)
  add_custom_command(OUTPUT ${host_out}/${source}.obj
    COMMAND ${TORVEX_CLANG} ${host_flags} -c ${dir}/host/${source}.cpp -o ${host_out}/${source}.obj
    DEPENDS ${dir}/host/${source}.cpp ${host_headers} VERBATIM)
  list(APPEND host_objects ${host_out}/${source}.obj)
endforeach()

# Torvex.dll's and the twin's import libraries come from their export tables.
set(host_libraries)
foreach(library Torvex msvc_twin)
  add_custom_command(OUTPUT ${host_out}/${library}.lib
    COMMAND bash ${dir}/host/import_library.sh ${CMAKE_OBJDUMP} ${TORVEX_LLVM_DLLTOOL}
      $<TARGET_FILE:${library}> ${host_out}/${library}.lib
    DEPENDS ${library} ${dir}/host/import_library.sh VERBATIM)
  list(APPEND host_libraries ${host_out}/${library}.lib)
endforeach()
foreach(library kernel32 ucrtbase)
  add_custom_command(OUTPUT ${host_out}/${library}.lib
    COMMAND ${TORVEX_LLVM_DLLTOOL} -m i386:x86-64 -d ${dir}/host/${library}.def -l ${host_out}/${library}.lib
    DEPENDS ${dir}/host/${library}.def VERBATIM)
  list(APPEND host_libraries ${host_out}/${library}.lib)
endforeach()

add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/bin/msvc_host.exe
  COMMAND ${TORVEX_LLD_LINK} /nologo /nodefaultlib /entry:HostMain /subsystem:console /stack:0x200000,0x200000
    /out:${CMAKE_BINARY_DIR}/bin/msvc_host.exe ${host_objects} ${host_libraries}
  DEPENDS ${host_objects} ${host_libraries} VERBATIM)
add_custom_target(msvc_host ALL DEPENDS ${CMAKE_BINARY_DIR}/bin/msvc_host.exe)

# The host calls the firmware channel through the flat API (CPU and battery).
add_test(NAME msvc_host COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${CMAKE_BINARY_DIR}/bin/msvc_host.exe)
set_tests_properties(msvc_host PROPERTIES ENVIRONMENT "${TORVEX_TEST_ENV}" TIMEOUT 300 RESOURCE_LOCK MutexWMI)
