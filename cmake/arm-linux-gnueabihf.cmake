# Cross build for 32-bit ARM hard-float (the product's ABI). Tests run under qemu-arm.
# OXA_ARMHF_SYSROOT holds the armhf libraries the build needs (libuuid, and glibc's gconv
# modules for iconv), unpacked from Debian's armhf packages by scripts/armhf-sysroot.sh; it is
# passed on the command line.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(OXA_ARMHF_SYSROOT "" CACHE PATH "Folder with the unpacked armhf packages")
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${OXA_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
if(OXA_ARMHF_SYSROOT)
  # Let the test programs find liboxa's own dependencies at run time under the emulator, and
  # iconv the armhf character-set modules of the sysroot (the target's default gconv folder
  # does not exist on the build host).
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf;-E;LD_LIBRARY_PATH=${OXA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf:${OXA_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf;-E;GCONV_PATH=${OXA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/gconv)
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${OXA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf:${OXA_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${OXA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf:${OXA_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf)
endif()
