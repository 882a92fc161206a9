# Flags that every target of the project shares.
find_package(Threads REQUIRED)

add_library(reflectorb_flags INTERFACE)
target_compile_options(reflectorb_flags INTERFACE
  -Wall -Wextra -Wpedantic -Woverloaded-virtual -Wshadow -fno-omit-frame-pointer -funwind-tables)
# Nobody replaces single functions of the library, so calls inside it need not go through tables.
target_compile_options(reflectorb_flags INTERFACE -fno-semantic-interposition)
target_compile_definitions(reflectorb_flags INTERFACE _FILE_OFFSET_BITS=64)
target_link_libraries(reflectorb_flags INTERFACE Threads::Threads)
if(REFLECTORB_WERROR)
  target_compile_options(reflectorb_flags INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(reflectorb_flags INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(REFLECTORB_SANITIZE)
  target_compile_options(reflectorb_flags INTERFACE -fsanitize=${REFLECTORB_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(reflectorb_flags INTERFACE -fsanitize=${REFLECTORB_SANITIZE})
  target_compile_definitions(reflectorb_flags INTERFACE REFLECTORB_SANITIZED=1)
endif()
if(REFLECTORB_FUZZ)
  target_compile_options(reflectorb_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
