# How every target of this project is compiled: one interface target, so that
# nothing is set globally.
add_library(flags INTERFACE)
target_compile_options(flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wmissing-declarations
  -Wimplicit-fallthrough -Wnon-virtual-dtor -Woverloaded-virtual
  $<$<BOOL:${TUNNEL_MNGR_WERROR}>:-Werror>)
set_target_properties(flags PROPERTIES INTERFACE_POSITION_INDEPENDENT_CODE ON)

# Hardening is for what ships; the sanitizers bring checks of their own.
target_compile_options(flags INTERFACE $<$<CONFIG:Release>:
  -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection>)
target_link_options(flags INTERFACE $<$<CONFIG:Release>:LINKER:-z,relro,-z,now,--as-needed>
  $<$<AND:$<CONFIG:Release>,$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>>:-pie>)

# Sanitizers and coverage come from the presets as plain lists of options. The second one is for
# what takes long to compile and says little about a test.
set(TUNNEL_MNGR_INSTRUMENTATION "" CACHE STRING "Extra options for compiler and linker (sanitizers)")
set(TUNNEL_MNGR_PRODUCT_INSTRUMENTATION "" CACHE STRING
  "The same for the product's own code; its tests only link it")
target_compile_options(flags INTERFACE ${TUNNEL_MNGR_INSTRUMENTATION})
target_link_options(flags INTERFACE
  ${TUNNEL_MNGR_INSTRUMENTATION} ${TUNNEL_MNGR_PRODUCT_INSTRUMENTATION})
add_library(product_flags INTERFACE)
target_link_libraries(product_flags INTERFACE flags)
target_compile_options(product_flags INTERFACE ${TUNNEL_MNGR_PRODUCT_INSTRUMENTATION})

# room(NAME SOURCES... [USES NEIGHBOURS...]): a folder of src/ as a library.
function(room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;USES;PRIVATELY" ${ARGN})
  add_library(${name} STATIC ${ROOM_SOURCES})
  target_link_libraries(${name} PUBLIC platform ${ROOM_USES}
                        PRIVATE product_flags ${ROOM_PRIVATELY})
endfunction()
