#!/usr/bin/env bash
# Installs into an empty prefix and uses what is there the way its users do: pkg-config and the CMake package for C,
# the jar for Java, the command for people. usage: install_test.sh CMAKE BUILD SOURCE JAVA_HOME
set -euo pipefail
cmake=$1 build=$2 source=$3 java_home=$4

work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "FAILED: $*" >&2; exit 1; }

DESTDIR= "$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name libtkv.so)")
for file in "$prefix/bin/tkv" "$prefix/share/java/tkv.jar" "$prefix/include/tkv/prtkv.h" "$prefix/include/tkv/tkv.h" \
            "$libdir/libprtkv.so" "$libdir/pkgconfig/tkv.pc" "$libdir/cmake/tkv/tkvConfig.cmake" \
            "$prefix/share/man/man1/tkv.1"; do
  [ -e "$file" ] || fail "not installed: ${file#"$prefix"/}"
done

mkdir "$work/registry"
printf '[registry]\nlocation = %s\n' "$work/registry" >"$work/tkv.conf"
export TKV_CONF=$work/tkv.conf

export PKG_CONFIG_PATH=$libdir/pkgconfig
cc "$source/consumer.c" $(pkg-config --cflags --libs tkv) -Wl,-rpath,"$libdir" -o "$work/consumer"
[ "$("$work/consumer")" = "hello 3 6" ] || fail "the C program built with pkg-config"

mkdir "$work/cmake"
cp "$source/consumer.c" "$work/cmake/"
cp "$source/consumer.cmake" "$work/cmake/CMakeLists.txt"
"$cmake" -S "$work/cmake" -B "$work/cmake/build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" &&
  "$cmake" --build "$work/cmake/build" >>"$work/cmake.log" || { cat "$work/cmake.log"; fail "the CMake package"; }
[ "$("$work/cmake/build/consumer" 2>&1 || true)" = "create: 55" ] || fail "the second program finds what the first wrote"

[ "$("$prefix/bin/tkv" get greeting)" = hello ] || fail "the command reads what the C program wrote"

"$java_home/bin/javac" -cp "$prefix/share/java/tkv.jar" -d "$work/classes" "$source/Consumer.java"
# From the jar's own copy of the library, and from the installed one.
[ "$("$java_home/bin/java" -cp "$prefix/share/java/tkv.jar:$work/classes" Consumer)" = hello ] || fail "Java, jar alone"
[ "$("$java_home/bin/java" -Dtkv.library.path="$libdir" -cp "$prefix/share/java/tkv.jar:$work/classes" Consumer)" = hello ] ||
  fail "Java, installed library"
echo "installed, compiled and ran"
