# How the programs are made, beyond what CMAKE_BUILD_TYPE says.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)  # executables that load anywhere; libraries that plug-ins may link
if(WIN32)
  add_link_options(-static -fstack-protector-strong $<$<CONFIG:Release>:-s>)  # no PC has the libraries of this compiler
elseif(TARN_STATIC)
  set(CMAKE_CXX_LINK_OPTIONS_PIE -static-pie)
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)

# What no program needs is left out of it.
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections)

if(TARN_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(NOT CMAKE_BUILD_TYPE MATCHES "^(Debug|MinSizeRel)$")
  # As distributions harden what they ship, but for what the build's own flags (CXXFLAGS) say of it: ours stand behind those
  # and would win over a higher level, too. Not what is to be as small as it gets: there it would take 6 KB of 150.
  if(NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  if(NOT CMAKE_CXX_FLAGS MATCHES "stack-protector")
    add_compile_options(-fstack-protector-strong)
  endif()
endif()
if(NOT WIN32)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
endif()

# Smaller files: constants and unwinding tables lie in the pages of the code instead of pages of their own, and the places
# that a program corrects when it is loaded are listed as bits. The C library on the device must know the latter, as glibc
# does from 2.36 on, which the linker notes in the program.
if(CMAKE_BUILD_TYPE STREQUAL MinSizeRel AND NOT TARN_STATIC)
  include(CheckLinkerFlag)
  foreach(option noseparate-code pack-relative-relocs)
    string(MAKE_C_IDENTIFIER "TARN_HAS_${option}" has)
    check_linker_flag(CXX "-Wl,--fatal-warnings,-z,${option}" ${has})
    if(${has})
      add_link_options("-Wl,-z,${option}")
    endif()
  endforeach()
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    add_compile_options(-fno-plt)  # all addresses are found at the start anyway; on other machines such calls are longer
  endif()
endif()

# What waits for the network or the kernel most of the time is made small, what decodes and encodes is made fast.
macro(tarn_prefer_size)
  add_compile_options("$<$<CONFIG:Release>:-Os>")
endmacro()
