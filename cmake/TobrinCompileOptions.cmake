# Project-wide compile options. Every target of ours calls tobrin_target_defaults().

add_compile_options(-ffp-contract=off)

if(TOBRIN_FUZZERS)
  # Coverage feedback from all the code the fuzz targets reach; libFuzzer's
  # own main is linked into the targets in Fuzz/ only.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(TOBRIN_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(TOBRIN_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(TOBRIN_SANITIZER STREQUAL "undefined")
  add_compile_options(-fsanitize=undefined -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=undefined)
elseif(NOT TOBRIN_SANITIZER STREQUAL "")
  message(FATAL_ERROR "TOBRIN_SANITIZER must be address, thread, undefined or empty")
endif()
if(NOT TOBRIN_SANITIZER STREQUAL "")
  # Sanitizer builds are debug builds too: the mixer's non-finite output check
  # and the vector path's reach assertions run there, whatever the build type.
  add_compile_options(-UNDEBUG)
endif()

function(tobrin_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                           -Wno-sign-conversion)
endfunction()
