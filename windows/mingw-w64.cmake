# Cross-compiler for 64-bit Windows. The driver model's headers live in a folder of their own.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(triplet x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_RC_COMPILER ${triplet}-windres)
set(CMAKE_OBJCOPY ${triplet}-objcopy)
set(CMAKE_STRIP ${triplet}-strip)

set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

set(NAVOX_DDK_INCLUDE /usr/${triplet}/include/ddk)
