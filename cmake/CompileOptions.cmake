# Options that every target of the project is built with.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Werror)
# gcc 12 takes "text" + std::string for overlapping copies.
add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>)
# Calls from one exported function to another stay replaceable by a preloaded library, whichever compiler is used.
add_compile_options(-fsemantic-interposition)
add_compile_definitions(_GNU_SOURCE)
add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)

if(ZEVOTUNED_SANITIZE)
  add_compile_options(-fsanitize=${ZEVOTUNED_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZEVOTUNED_SANITIZE})
else()
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2> -fstack-protector-strong)
  add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:-Wl,-z,defs>)
endif()

option(ZEVOTUNED_COVERAGE "Count what the tests reach (gcc)" OFF)
if(ZEVOTUNED_COVERAGE)
  # Atomic, as threads count; written by processes that are killed or leave with _exit only as far as they got.
  add_compile_options(--coverage -fprofile-update=atomic -fno-inline)
  add_link_options(-Wl,--undefined=__gcov_dump)
  add_link_options(--coverage)
endif()
