# navox_driver_options: how kernel code is compiled and linked by the cross-compiler. No runtime library, no
# exceptions, no guarded statics; a constructor of a global would link and never run, so there is none.
add_library(navox_driver_options INTERFACE)
target_link_libraries(navox_driver_options INTERFACE navox_options)
target_include_directories(navox_driver_options SYSTEM INTERFACE "${NAVOX_DDK_INCLUDE}")
target_compile_definitions(
  navox_driver_options
  INTERFACE WINVER=0x0A00 _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000 DBG=0
            # The headers define these two over the compiler's own.
            __INTRINSIC_DEFINED_InterlockedBitTestAndSet __INTRINSIC_DEFINED_InterlockedBitTestAndReset)
target_compile_options(
  navox_driver_options
  INTERFACE -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector
            -mno-stack-arg-probe -fno-strict-aliasing -Wframe-larger-than=2048
            # The symbols are given away: they say nothing about the machine that built them.
            "-fdebug-prefix-map=${PROJECT_SOURCE_DIR}=navox"
            # LONG is long here and int on the host, both 32 bits: formats are checked there.
            -Wno-format)
target_link_options(
  navox_driver_options
  INTERFACE
  -nostdlib
  -nostartfiles
  LINKER:--subsystem,native
  LINKER:--entry,DriverEntry
  LINKER:--image-base,0x140000000
  LINKER:--dynamicbase
  LINKER:--nxcompat
  LINKER:--high-entropy-va
  LINKER:--disable-auto-import
  LINKER:--disable-runtime-pseudo-reloc
  LINKER:--no-insert-timestamp
  LINKER:--major-os-version,10
  LINKER:--minor-os-version,0
  LINKER:--major-subsystem-version,10
  LINKER:--minor-subsystem-version,0
  LINKER:--major-image-version,${PROJECT_VERSION_MAJOR}
  LINKER:--minor-image-version,${PROJECT_VERSION_MINOR})
target_link_libraries(navox_driver_options INTERFACE ntoskrnl hal usbd wmilib)
# What CMake would add for an application.
set(CMAKE_CXX_STANDARD_LIBRARIES "")
