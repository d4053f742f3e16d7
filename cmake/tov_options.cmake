# One interface target that carries the compiler's options for everything we build.
add_library(tov_options INTERFACE)
target_compile_options(tov_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef
  -Wno-format-nonliteral # announcement texts come from tables; the callers' formats are checked
  # Fields have fixed sizes; snprintf cutting to them is the rule here. (clang knows no such flag.)
  $<$<COMPILE_LANG_AND_ID:C,GNU>:-Wno-format-truncation>
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-format-truncation>
  -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>
  -fno-omit-frame-pointer -fstack-protector-strong)
target_compile_definitions(tov_options INTERFACE _GNU_SOURCE)

if(TOV_SANITIZE)
  string(REPLACE "," ";" sanitizers "${TOV_SANITIZE}")
  target_compile_options(tov_options INTERFACE
    -fsanitize=${TOV_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(tov_options INTERFACE -fsanitize=${TOV_SANITIZE})
  foreach(sanitizer IN LISTS sanitizers)
    string(TOUPPER ${sanitizer} name)
    target_compile_definitions(tov_options INTERFACE TOV_SANITIZE_${name}=1)
  endforeach()
endif()
if(TOV_COVERAGE)
  target_compile_options(tov_options INTERFACE --coverage -O0)
  target_link_options(tov_options INTERFACE --coverage)
  target_compile_definitions(tov_options INTERFACE TOV_COVERAGE=1)
endif()
