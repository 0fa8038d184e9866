#!/usr/bin/env bash
# Installs into an empty prefix and uses what is there as its users do: pkg-config and the CMake package for C, the jar
# for Java, the command for people. Then removes it. usage: install_test.sh CMAKE BUILD ROOT JAVA_HOME
set -euo pipefail
cmake=$1 build=$2 root=$3 java_home=$4
source=$root/tests/install
unset DESTDIR LD_LIBRARY_PATH

work=$(mktemp -d)
# The manifest of a real installation from this build is kept, so that it can still be removed.
manifests=("$build"/install_manifest*.txt)
[ ! -e "${manifests[0]}" ] || mv "${manifests[@]}" "$work"
end() {
  rm -f "$build"/install_manifest*.txt
  find "$work" -maxdepth 1 -name 'install_manifest*.txt' -exec mv {} "$build" \;
  rm -rf "$work"
}
trap end EXIT
prefix=$work/prefix
fail() { echo "FAILED: $*" >&2; exit 1; }
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; fail "$*"; }; }

quietly "$cmake" --install "$build" --strip --prefix "$prefix"
libdir=$(dirname "$(find "$prefix" -name libtkv.so)")
for file in "$prefix/bin/tkv" "$prefix/share/java/tkv.jar" "$prefix/include/tkv/prtkv.h" "$prefix/include/tkv/tkv.h" \
            "$libdir/libprtkv.so" "$libdir/pkgconfig/tkv.pc" "$libdir/cmake/tkv/tkvConfig.cmake" \
            "$prefix/share/man/man1/tkv.1"; do
  [ -e "$file" ] || fail "not installed: ${file#"$prefix"/}"
done

mapfile -t binaries < <(find "$prefix/bin" "$libdir" -type f \( -name tkv -o -name '*.so*' \))
mkdir "$work/jar"
(cd "$work/jar" && "$java_home/bin/jar" --extract --file "$prefix/share/java/tkv.jar")
mapfile -t -O ${#binaries[@]} binaries < <(find "$work/jar" -name '*.so')
[ ${#binaries[@]} -ge 4 ] || fail "too few: ${binaries[*]}"
for file in "${binaries[@]}"; do
  sections=$(readelf -SW "$file")
  ! grep -qE '\.(debug_info|symtab) ' <<<"$sections" || fail "not stripped: $file"
done

mkdir "$work/registry"
printf '[registry]\nlocation = %s\n' "$work/registry" >"$work/tkv.conf"
export TKV_CONF=$work/tkv.conf

# Neither program is told where the library is: they find it where it was linked from.
export PKG_CONFIG_PATH=$libdir/pkgconfig
cc "$source/consumer.c" $(pkg-config --cflags --libs tkv) -o "$work/consumer"
[ "$("$work/consumer")" = "hello 3 6" ] || fail "the C program built with pkg-config"

mkdir "$work/cmake"
cp "$source/consumer.c" "$work/cmake/"
cp "$source/consumer.cmake" "$work/cmake/CMakeLists.txt"
quietly "$cmake" -S "$work/cmake" -B "$work/cmake/build" -DCMAKE_PREFIX_PATH="$prefix"
quietly "$cmake" --build "$work/cmake/build"
quietly "$cmake" --install "$work/cmake/build" --prefix "$work/site"
for program in "$work/cmake/build/consumer" "$work/site/bin/consumer"; do
  [ "$("$program" 2>&1 || true)" = "create: 55" ] || fail "$program finds what the first program wrote"
done

[ "$("$prefix/bin/tkv" get greeting)" = hello ] || fail "the command reads what the C program wrote"

"$java_home/bin/javac" -cp "$prefix/share/java/tkv.jar" -d "$work/classes" "$source/Consumer.java"
# From the jar's own copy of the library, and from the installed one.
[ "$("$java_home/bin/java" -cp "$prefix/share/java/tkv.jar:$work/classes" Consumer)" = hello ] || fail "Java, jar alone"
[ "$("$java_home/bin/java" -Dtkv.library.path="$libdir" -cp "$prefix/share/java/tkv.jar:$work/classes" Consumer)" = hello ] ||
  fail "Java, installed library"

# Debug information is installed on request, where each stripped file expects it. The second time replaces the first.
quietly "$cmake" --install "$build" --component debug --prefix "$prefix"
quietly "$cmake" --install "$build" --component debug --prefix "$prefix"
for file in "$prefix/bin/tkv" "$libdir/libtkv.so" "$libdir/libprtkv.so.1"; do
  debug=$(dirname "$file")/.debug/$(basename "$file").debug
  # Read to the end: a reader that stops early would end readelf with SIGPIPE.
  grep -qF "$(basename "$debug")" <<<"$(readelf --string-dump=.gnu_debuglink "$file")" || fail "no link to $debug"
  grep -q '\.debug_info ' <<<"$(readelf -SW "$debug")" || fail "no debug information: $debug"
done
[ "$("$prefix/bin/tkv" get greeting)" = hello ] || fail "the command works with its debug information beside it"

quietly "$cmake" -DBUILD="$build" -P "$root/cmake/TkvUninstall.cmake"
left=$(find "$prefix" ! -type d -o -name tkv -o -name .debug)
[ -z "$left" ] || fail "left behind: $left"
! "$cmake" -DBUILD="$build" -P "$root/cmake/TkvUninstall.cmake" >"$work/log" 2>&1 || fail "nothing was left to remove"
echo "installed, compiled, ran and removed"
