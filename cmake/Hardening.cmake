# What the programs and libkel are hardened with: a guard below each return address, string and memory functions that know
# how much there is room for, every symbol bound before the first line runs and read-only from then on, and code at an
# address that nobody can foretell. Builds with sanitizers leave it out: they check more, and with it less.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

if(NOT KEL_SANITIZERS)
    add_compile_options(-fstack-protector-strong)
    # The functions need the optimiser to know what there is room for.
    add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
    add_link_options(LINKER:-z,relro LINKER:-z,now)
endif()
