# The interface target vantric_flags: language level, warnings, hardening and sanitizers, for everything that this project compiles.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

include(CheckPIESupported)
check_pie_supported()

add_library(vantric_flags INTERFACE)

target_compile_options(vantric_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-align -Wcast-qual
  -Wnon-virtual-dtor -Woverloaded-virtual -Wunused -Wundef -Wvla -Wdouble-promotion -Wimplicit-fallthrough
  -Wformat=2
  -Wno-format-nonliteral            # the formats of translated texts come from the language tables
  -Wno-missing-field-initializers)  # records are initialised by name, and the rest has its defaults
target_compile_options(vantric_flags INTERFACE
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op>)
target_compile_options(vantric_flags INTERFACE $<$<BOOL:${VANTRIC_WERROR}>:-Werror>)

# No path of the build machine in the program: two builds in different folders are equal
target_compile_options(vantric_flags INTERFACE "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")

if(VANTRIC_SANITIZE)
  target_compile_options(vantric_flags INTERFACE "-fsanitize=${VANTRIC_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(vantric_flags INTERFACE "-fsanitize=${VANTRIC_SANITIZE}")
  target_compile_definitions(vantric_flags INTERFACE _GLIBCXX_ASSERTIONS)  # subscripts, too, are looked at
else()
  # What distributions harden their packages with. FORTIFY needs an optimised build.
  target_compile_options(vantric_flags INTERFACE -fstack-protector-strong -fstack-clash-protection)
  target_compile_options(vantric_flags INTERFACE $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fcf-protection>)
  target_compile_options(vantric_flags INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
  target_link_options(vantric_flags INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
target_link_options(vantric_flags INTERFACE -Wl,--as-needed)
