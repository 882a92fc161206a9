#!/usr/bin/env bash
# Installs the library from a build folder into a place of its own, builds the consumer against it, by the CMake package
# and by pkg-config, and runs both; so too the program in the README.
set -euo pipefail
build=$1
sources=$(cd "$(dirname "$0")" && pwd)
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT

cmake --install "$build" --prefix "$place/usr" >/dev/null
if find "$place/usr/include" -name '*_p.h' | grep -q .; then
  echo "private headers were installed" >&2
  exit 1
fi
# No header needs one that is not installed.
headers=$place/usr/include/reflectorb
(cd "$headers" && find . -name '*.h' | sort | sed 's|^\./\(.*\)|#include "\1"|') >"$place/headers.cpp"
g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$headers" "$place/headers.cpp"

mkdir -p "$place/root/ffs/run/logs"
echo 10 >"$place/root/ffs/run/logs/orbWaitDuration"
export REFLECTORB_UNIT_DIR=$place/unit REFLECTORB_ROOT=$place/root

cmake -S "$sources" -B "$place/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$place/usr" >/dev/null
cmake --build "$place/cmake" >/dev/null
"$place/cmake/consumer"

PKG_CONFIG_PATH=$(dirname "$(find "$place/usr" -name reflectorb.pc)")
export PKG_CONFIG_PATH
read -ra flags <<<"$(pkg-config --cflags --libs reflectorb)"
g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$sources/consumer.cpp" "${flags[@]}" \
  -Wl,-rpath,"$(pkg-config --variable=libdir reflectorb)" -o "$place/plain"

# The program that the README shows, as a reader would try it.
awk '/^```cpp/ {inside = 1; next} /^```/ {inside = 0} inside' "$sources/../../README.md" >"$place/readme.cpp"
g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$place/readme.cpp" "${flags[@]}" \
  -Wl,-rpath,"$(pkg-config --variable=libdir reflectorb)" -o "$place/readme"
mkfifo "$place/enter"
"$place/readme" <"$place/enter" >"$place/output" &
exec {enter}>"$place/enter"
for _ in $(seq 600); do
  grep -qE '^broker 0x[0-9A-F]*01 serves$' "$place/output" && break
  sleep 0.1
done
[ "$("$place/readme" reader)" = "hello reader" ]
exec {enter}>&-
wait $!
"$place/plain"
