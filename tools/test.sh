#!/usr/bin/env bash
# Builds and runs every test: the host build, an AddressSanitizer + UBSan build, a
# ThreadSanitizer build of the concurrency suite, libFuzzer runs of the fuzz targets, the
# 32-bit ARM cross build under qemu-user, and an install of the library used from CMake
# and pkg-config.
# Installs what a fresh Debian machine lacks. Usage: tools/test.sh [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
jobs=$(nproc 2>/dev/null || echo 2)
quick=${1:-}

need=()
for pair in cmake:cmake g++:g++ pkg-config:pkg-config ffmpeg:ffmpeg ffprobe:ffmpeg \
            qemu-arm:qemu-user arm-linux-gnueabihf-g++:g++-arm-linux-gnueabihf \
            chromium:chromium python3:python3 clang:clang; do
  command -v "${pair%%:*}" >/dev/null 2>&1 || need+=("${pair#*:}")
done
[ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
# ringrec serve: the HTTP library, and npm for the browser test's driver (playwright-core).
[ -f /usr/include/httplib.h ] || need+=(libcpp-httplib-dev)
command -v npm >/dev/null 2>&1 || need+=(npm)
ls /usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a >/dev/null 2>&1 ||
  need+=(libclang-rt-14-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "== installing: ${need[*]}"
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${need[@]}" >/dev/null
fi

build() {  # build DIR [cmake args...]
  local dir=$1; shift
  echo "== build $dir"
  cmake -S "$top" -B "$top/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$top/$dir" -j "$jobs" -- --no-print-directory >/dev/null
}

run() {  # run DIR [ctest args...]
  local dir=$1; shift
  echo "== test $dir"
  (cd "$top/$dir" && ctest --output-on-failure -j "$jobs" "$@")
}

build out/host -DRINGREC_BENCH=ON
run out/host
[ "$quick" = "--quick" ] && exit 0

build out/asan -DRINGREC_SANITIZE=address,undefined -DRINGREC_TOOLS=OFF
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 run out/asan

# libFuzzer targets (clang): replay the seed corpora in fuzz/corpus, then fuzz each target
# for a bounded time on a scratch copy, so that new inputs stay out of the repository.
CC=clang CXX=clang++ build out/fuzz -DRINGREC_FUZZ=ON -DRINGREC_SANITIZE=address,undefined \
  -DRINGREC_TESTS=OFF -DRINGREC_TOOLS=OFF
echo "== fuzz"
# The reader target lays its input out as the volume target does and shares its seeds.
for t in volume minute reader recover; do
  seeds=fuzz/corpus/$t; [ "$t" = reader ] && seeds=fuzz/corpus/volume
  out/fuzz/fuzz/fuzz_$t -runs=0 -close_fd_mask=2 $seeds
  rm -rf out/fuzz/work/$t && mkdir -p out/fuzz/work/$t
  out/fuzz/fuzz/fuzz_$t -max_total_time="${RINGREC_FUZZ_SECONDS:-60}" -close_fd_mask=2 \
    -max_len=300000 -print_final_stats=1 -artifact_prefix=out/fuzz/ out/fuzz/work/$t $seeds
done

build out/tsan -DRINGREC_SANITIZE=thread -DRINGREC_TOOLS=OFF
# ThreadSanitizer needs the low-entropy address layout that setarch -R gives.
(cd out/tsan && TSAN_OPTIONS=halt_on_error=1 setarch "$(uname -m)" -R \
   ctest --output-on-failure -R concurrency)

build out/arm -DCMAKE_TOOLCHAIN_FILE="$top/cmake/arm-linux-gnueabihf.cmake"
run out/arm

echo "== install and use from CMake and pkg-config"
prefix=$top/out/prefix
rm -rf "$prefix"
cmake --install out/host --prefix "$prefix" >/dev/null
cmake -S tests/install -B out/consumer -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build out/consumer >/dev/null
LD_LIBRARY_PATH=$prefix/lib out/consumer/consumer
PKG_CONFIG_PATH=$prefix/lib/pkgconfig
export PKG_CONFIG_PATH
g++ -std=c++14 tests/install/consumer.cc $(pkg-config --cflags --libs ringrec) -o out/consumer/pc
LD_LIBRARY_PATH=$prefix/lib out/consumer/pc
# The installed tool runs from its prefix alone (its run path names ../lib).
installed=$(mktemp -d /tmp/ringrec-installed-XXXXXX)
env -u LD_LIBRARY_PATH "$prefix/bin/ringrec" help >"$installed/help"
env -u LD_LIBRARY_PATH "$prefix/bin/ringrec" sim create "$installed/b" --disks 1 --size 64M >/dev/null
env -u LD_LIBRARY_PATH "$prefix/bin/ringrec" --root "$installed/b" format sda >/dev/null
env -u LD_LIBRARY_PATH "$prefix/bin/ringrec" --root "$installed/b" info sda >/dev/null
rm -rf "$installed"
echo "== all tests passed"
