# Another architecture, with Debian's compiler. The libraries are in a directory of their own, which ./dev cross fills,
# so that the machine's own packages stay as they are.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${compiler})
add_compile_options(-Wno-psabi)  # remarks on what older compilers did

get_filename_component(
    CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/${ZEL_HTTP_DEBIAN_ARCHITECTURE}-root ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${libraries})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${libraries}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})

set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator} -L ${CMAKE_SYSROOT})
