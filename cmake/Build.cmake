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
elseif(NOT CMAKE_BUILD_TYPE STREQUAL Debug)
  # As distributions harden what they ship. A build's own flags (CXXFLAGS) come first and may take it back.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
endif()
if(NOT WIN32)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
endif()

# What waits for the network or the kernel most of the time is made small, what decodes and encodes is made fast.
macro(tarn_prefer_size)
  add_compile_options("$<$<CONFIG:Release>:-Os>")
endmacro()
