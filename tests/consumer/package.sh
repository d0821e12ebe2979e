#!/bin/sh
# Builds the Debian packages of a build with cpack, checks their names,
# unpacks them with dpkg-deb -x into a scratch root, then builds and runs the
# consumer against that root through the CMake package and through
# pkg-config, and runs the packaged korvel-lock. Runs lintian on the packages
# when it is installed and fails on its errors.
#   package.sh BUILD_DIR SOURCE_DIR WORK_DIR
set -eu
build=$1
source=$2
work=$3
rm -rf "$work"
mkdir -p "$work/root"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/debs" >"$work/cpack.log" 2>&1

version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
soname=${version%%.*}  # the library package and its SONAME carry the major version
for package in "libkorvel$soname" libkorvel-dev korvel-lock; do
  deb="$work/debs/${package}_${version}_amd64.deb"
  test "$(dpkg-deb -f "$deb" Package)" = "$package"
  dpkg-deb -x "$deb" "$work/root"
done
test "$(find "$work/debs" -maxdepth 1 -name '*.deb' | wc -l)" -eq 3
prefix="$work/root/usr"
objdump -p "$prefix/lib/libkorvel.so.$soname" | grep -q "SONAME *libkorvel\\.so\\.$soname\$"
library=$(dpkg-deb -c "$work/debs/libkorvel${soname}_${version}_amd64.deb")
echo "$library" | grep -q "libkorvel\\.so\\.$soname ->"
if echo "$library" | grep -q 'libkorvel\.so '; then
  echo "the unversioned link belongs in libkorvel-dev" >&2
  exit 1
fi
test -s "$prefix/share/man/man1/korvel-lock.1.gz"
"$prefix/bin/korvel-lock" --version | grep -q "^korvel-lock $version "

cmake -S "$source" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log"
cmake --build "$work/cmake" >>"$work/cmake.log"
"$work/cmake/consumer" "$work/run-cmake"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046 # the flags are meant to split
g++ -std=c++17 -o "$work/pkg-consumer" "$source/main.cpp" $(pkg-config --cflags --libs korvel) \
  -Wl,-rpath,"$prefix/lib"
"$work/pkg-consumer" "$work/run-pkg-config"

if command -v lintian >/dev/null; then
  lintian --fail-on error "$work"/debs/*.deb
else
  echo "lintian is not installed: packages not checked"
fi
echo "packages ok"
