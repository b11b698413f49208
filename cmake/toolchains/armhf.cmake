# Cross build for 32-bit ARM (Debian armhf); tests run through qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /usr/lib/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
# Debian's armhf packages (libcjson1:armhf for the tests) bring libc6:armhf, a glibc other than the
# cross compiler's, into the loader's cache; a program mixing the cross loader with that C
# library crashes at its first thread. Programs look in the cross compiler's directory first.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath,/usr/arm-linux-gnueabihf/lib")
