# How everything in this project is compiled: language level, warnings, hardening, and the interface target vantric_flags. What the
# project merely prefers stands before the flags of whoever builds, so that theirs win; what it prefers of optimisation stands in
# CMakePresets.json alone.

include(CheckCXXCompilerFlag)
include(CheckPIESupported)

function(set_default name value)
  if("${${name}}" STREQUAL "")
    set(${name} "${value}" PARENT_SCOPE)
  endif()
endfunction()

set_default(CMAKE_CXX_STANDARD 20)
set_default(CMAKE_CXX_EXTENSIONS OFF)
set_default(CMAKE_POSITION_INDEPENDENT_CODE ON)
set_default(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
check_pie_supported()

# Before whatever flags have been given
macro(prepend_flags variable)
  string(JOIN " " ${variable} ${ARGN} ${${variable}})
endmacro()

string(TOUPPER "CMAKE_CXX_FLAGS_${CMAKE_BUILD_TYPE}" flags_of_build_type)
if("${CMAKE_CXX_FLAGS} ${${flags_of_build_type}}" MATCHES "_FORTIFY_SOURCE")
  set(is_fortified ON)
endif()

if(VANTRIC_HARDENED AND NOT VANTRIC_SANITIZE)
  # What distributions harden their packages with, as far as the compiler knows it for this machine
  foreach(flag IN ITEMS -fcf-protection -fstack-clash-protection -fstack-protector-strong)
    string(MAKE_C_IDENTIFIER "HAS${flag}" has_flag)
    check_cxx_compiler_flag(${flag} ${has_flag})
    if(${has_flag})
      prepend_flags(CMAKE_CXX_FLAGS ${flag})
    endif()
  endforeach()
  prepend_flags(CMAKE_EXE_LINKER_FLAGS -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
endif()

prepend_flags(CMAKE_CXX_FLAGS
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-align -Wcast-qual
  -Wnon-virtual-dtor -Woverloaded-virtual -Wunused -Wundef -Wvla -Wdouble-promotion -Wimplicit-fallthrough
  -Wformat=2
  -Wno-format-nonliteral            # the formats of translated texts come from the language tables
  -Wno-missing-field-initializers)  # records are initialised by name, and the rest has its defaults
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  prepend_flags(CMAKE_CXX_FLAGS -Wduplicated-cond -Wduplicated-branches -Wlogical-op)
endif()

add_library(vantric_flags INTERFACE)
target_compile_options(vantric_flags INTERFACE $<$<BOOL:${VANTRIC_WERROR}>:-Werror>)
# No path of the build machine in the program: two builds in different folders are equal
target_compile_options(vantric_flags INTERFACE "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")

if(VANTRIC_SANITIZE)
  target_compile_options(vantric_flags INTERFACE "-fsanitize=${VANTRIC_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(vantric_flags INTERFACE "-fsanitize=${VANTRIC_SANITIZE}")
  target_compile_definitions(vantric_flags INTERFACE _GLIBCXX_ASSERTIONS)  # subscripts, too, are looked at
elseif(VANTRIC_HARDENED AND NOT is_fortified)
  # It needs an optimised build, and some compilers have a level of their own
  target_compile_options(vantric_flags INTERFACE $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
