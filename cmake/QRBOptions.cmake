# Warnings and sanitizer flags shared by every target.
add_compile_options(-Wall -Wextra -Wno-unused-parameter -fno-omit-frame-pointer)

if(QRB_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(QRB_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread)
  add_link_options(-fsanitize=thread)
elseif(NOT QRB_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QRB_SANITIZE must be empty, address or thread")
endif()

if(QRB_FUZZ)
  # Everything is instrumented for coverage and checked by ASan; the fuzz targets add the
  # libFuzzer driver (fuzz/CMakeLists.txt).
  add_compile_options(-fsanitize=fuzzer-no-link,address)
  add_link_options(-fsanitize=address)
endif()
