# The event loops that oru/glib_executor.h and oru/qt_executor.h post to, for the tests and examples
# of these headers. The library needs neither.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
    pkg_check_modules(GLIB QUIET IMPORTED_TARGET glib-2.0>=2.74)
endif()
find_package(Qt6 6.4 QUIET COMPONENTS Core)

foreach(loop GLIB Qt6)
    if(${loop}_FOUND)
        message(STATUS "Executor of ${loop}: tested against ${${loop}_VERSION}")
    elseif(ZEL_HTTP_ALL_EXECUTORS)
        message(FATAL_ERROR "Executor of ${loop}: the library is missing")
    else()
        message(STATUS "Executor of ${loop}: the library is missing; no test and no example")
    endif()
endforeach()
