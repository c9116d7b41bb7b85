# Flags against the use of memory faults by an attacker, for everything of this project that is compiled. None of them
# is part of the interface.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)  # CMAKE_POSITION_INDEPENDENT_CODE then links programs accordingly, too

target_compile_options(zel_http_build INTERFACE
    -fstack-protector-strong
    # Checks of buffer sizes in the C library, which need the optimizer.
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
target_link_options(zel_http_build INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
