# Cross build for the 32-bit ARM target (Debian: apt-get install g++-arm-linux-gnueabihf):
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=packaging/arm-linux-gnueabihf.cmake \
#         -DZUNTA_BUILD_TESTS=OFF -DZUNTA_BUILD_BENCH=OFF
#   cmake --build build-arm --target zunta-coord
# scripts/test.sh --arm uses it through the "arm" preset and runs every test under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Every object is built by this one compiler, so the notes on argument passing that changed in
# GCC 7.1 say nothing here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
