# Options shared by every room, as interface libraries:
#   navox_options  warnings as errors, sanitizers, 16-bit wchar_t as on the platform
option(NAVOX_WERROR "Treat warnings as errors" ON)
set(NAVOX_SANITIZE "" CACHE STRING "Sanitizers, as given to -fsanitize= (address,undefined or thread)")

add_library(navox_options INTERFACE)
target_compile_options(navox_options INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
                                               -Wimplicit-fallthrough -Wvla)
if(NAVOX_WERROR)
  target_compile_options(navox_options INTERFACE -Werror)
endif()
if(NOT CMAKE_SYSTEM_NAME STREQUAL "Windows")
  # The platform's characters are 16 bits wide.
  target_compile_options(navox_options INTERFACE -fshort-wchar)
  find_package(Threads REQUIRED)
  target_link_libraries(navox_options INTERFACE Threads::Threads)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(navox_options INTERFACE -Wthread-safety)
endif()
if(NAVOX_SANITIZE)
  target_compile_options(navox_options INTERFACE -fsanitize=${NAVOX_SANITIZE} -fno-sanitize-recover=all
                                                 -fno-omit-frame-pointer)
  target_link_options(navox_options INTERFACE -fsanitize=${NAVOX_SANITIZE})
endif()
