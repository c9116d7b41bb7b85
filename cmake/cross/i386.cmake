set(ZEL_HTTP_DEBIAN_ARCHITECTURE i386)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(compiler i686-linux-gnu-g++)
set(libraries i386-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)

# A 64-bit x86 machine runs these programs itself, by the dynamic linker of that directory. Not qemu (7.2): a signal leaves
# a thread there with the thread-local variables of another.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_SYSROOT}/lib/ld-linux.so.2
    --library-path ${CMAKE_SYSROOT}/lib/${libraries}:${CMAKE_SYSROOT}/usr/lib/${libraries})
execute_process(COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --version RESULT_VARIABLE refused OUTPUT_QUIET)
if(NOT refused EQUAL 0)
    message(FATAL_ERROR "This machine does not run 32-bit x86 programs: ${refused}")
endif()
