# Cross build for 32-bit ARM against musl, the C library of the devices: Debian's
# arm-linux-gnueabihf compilers driven by the specs file of musl-dev:armhf. There is no musl
# build of the C++ standard library, and the shipped libraries need none, but its headers
# (<atomic>, <cstring>, ...) still serve the C++ sources. Programs run through qemu-arm, which
# finds musl's loader /lib/ld-musl-armhf.so.1 (from musl:armhf) on the host.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(musl_specs /usr/lib/arm-linux-musleabihf/musl-gcc.specs)
if(NOT EXISTS ${musl_specs})
    message(FATAL_ERROR "${musl_specs} is missing: install musl-dev:armhf")
endif()

# The specs replace every standard include directory by musl's (-nostdinc), libstdc++'s with
# them. Put libstdc++'s back as -I, ahead of musl's: its <cstdlib> and the like #include_next the
# C headers behind them. Its headers declare themselves system headers, so they raise no
# warnings all the same.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -x c++ -E -v /dev/null
    OUTPUT_QUIET ERROR_VARIABLE cxx_search_list)
string(REGEX MATCHALL "\n [^\n]*/c\\+\\+/[^\n]*" libstdcxx_dirs "${cxx_search_list}")
if(NOT libstdcxx_dirs)
    message(FATAL_ERROR "no libstdc++ include directory in the search list of ${CMAKE_CXX_COMPILER}")
endif()
set(libstdcxx_includes "")
foreach(dir IN LISTS libstdcxx_dirs)
    string(STRIP "${dir}" dir)
    cmake_path(NORMAL_PATH dir)
    string(APPEND libstdcxx_includes " -I${dir}")
endforeach()

# The C flags also drive the links, which go through the C driver.
set(CMAKE_C_FLAGS_INIT "-specs=${musl_specs}")
# libstdc++ was configured for glibc and tests its version with __GLIBC_PREREQ, which musl lacks.
set(CMAKE_CXX_FLAGS_INIT "-specs=${musl_specs}${libstdcxx_includes} '-D__GLIBC_PREREQ(a,b)=0'")
# Without a musl libstdc++ a C++ program cannot be linked, so compiler checks stop at objects.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# Nothing the host has installed is built for musl.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
