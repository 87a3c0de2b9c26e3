# Warnings, hardening and sanitizers as interface targets, and the rule for what the library exports.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_library(zebcs_warnings INTERFACE)
target_compile_options(zebcs_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wconversion -Wsign-conversion -Wshadow -Wundef -Wcast-align -Wcast-qual
  -Wformat=2 -Wmissing-declarations -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wuseless-cast -Wduplicated-cond -Wlogical-op>
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>)

add_library(zebcs_sanitizers INTERFACE)
if(ZEBCS_SANITIZE)
  target_compile_options(zebcs_sanitizers INTERFACE
    -fsanitize=${ZEBCS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # GCC 12 warns of the standard library's own std::function when it is instrumented.
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-maybe-uninitialized>)
  target_link_options(zebcs_sanitizers INTERFACE -fsanitize=${ZEBCS_SANITIZE})
endif()

# Hardening is for what ships; sanitizers bring their own checks and do not go with _FORTIFY_SOURCE.
add_library(zebcs_hardening INTERFACE)
target_link_options(zebcs_hardening INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed)
if(NOT ZEBCS_SANITIZE)
  target_compile_options(zebcs_hardening INTERFACE
    -fstack-protector-strong -fstack-clash-protection -fcf-protection=full
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()

# Exports the names of the list and nothing else, and binds the library's own calls to its own functions: the names
# are common words, and a host program's function of the same name must not take their place.
function(zebcs_export_only target list)
  target_compile_options(${target} PRIVATE -fno-semantic-interposition -fno-plt)
  target_link_options(${target} PRIVATE -Wl,--version-script=${list} -Wl,-Bsymbolic-functions)
  if(NOT ZEBCS_SANITIZE)  # a sanitizer's runtime lives in the program
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${list})
endfunction()
