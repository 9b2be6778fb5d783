# Settings and warnings as interface targets; the product, its kit and its tests link maintenance_settings.
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

option(MAINTENANCE_WERROR "Treat warnings as errors" OFF)
option(MAINTENANCE_SANITIZE "Build with the address and undefined-behaviour sanitizers" OFF)
option(MAINTENANCE_COVERAGE "Count how often each line of the product is executed" OFF)

add_library(maintenance_warnings INTERFACE)
target_compile_options(maintenance_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wcast-qual -Wformat=2 -Wundef
    $<$<BOOL:${MAINTENANCE_WERROR}>:-Werror>)

# Hardening of the release build; the sanitizers bring their own checks and clash with fortify.
add_library(maintenance_hardening INTERFACE)
if(NOT MAINTENANCE_SANITIZE)
    # Which works on optimized code only.
    set(fortified $<NOT:$<OR:$<CONFIG:Debug>,$<BOOL:$<TARGET_PROPERTY:COMPILED_QUICKLY>>>>)
    target_compile_options(maintenance_hardening INTERFACE
        -fstack-protector-strong
        $<${fortified}:-U_FORTIFY_SOURCE>
        $<${fortified}:-D_FORTIFY_SOURCE=2>)
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    target_link_options(maintenance_hardening INTERFACE
        -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()

# What stands around the product; a sanitizer's own system calls would get into the way of what is traced there.
add_library(maintenance_plain_settings INTERFACE)
target_compile_features(maintenance_plain_settings INTERFACE cxx_std_20)
target_link_libraries(maintenance_plain_settings INTERFACE maintenance_warnings maintenance_hardening)

add_library(maintenance_settings INTERFACE)
target_link_libraries(maintenance_settings INTERFACE maintenance_plain_settings)
if(MAINTENANCE_SANITIZE)
    target_compile_options(maintenance_settings INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(maintenance_settings INTERFACE -fsanitize=address,undefined)
endif()

include(CheckPIESupported)
check_pie_supported()
