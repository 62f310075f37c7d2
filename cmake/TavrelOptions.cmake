# Language level, warnings, sanitizers and compiler cache, the same for every target.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# The filter library exports its four entry points and nothing else.
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Woverloaded-virtual -Wsuggest-override -Werror)
# Floating-point results are part of what is drawn: no fused or reordered arithmetic.
add_compile_options(-ffp-contract=off)

set(TAVREL_SANITIZE "" CACHE STRING "Sanitizers, separated by commas (address,undefined or thread)")
if(TAVREL_SANITIZE)
  add_compile_options(-fsanitize=${TAVREL_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TAVREL_SANITIZE})
endif()

# Several sources are compiled together: with sanitizers most of the time is spent on headers that all
# of them read. Names in unnamed namespaces must then be unique within a library.
if(CMAKE_UNITY_BUILD)
  # Warnings of one source about another; the preset dev compiles each alone.
  add_compile_options(-Wno-shadow $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
