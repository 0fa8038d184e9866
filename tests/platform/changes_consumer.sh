#!/bin/sh
# Runs a program on a fresh registry of its own.
set -e
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
printf '[registry]\nlocation = %s/registry\n' "$directory" > "$directory/tkv.conf"
TKV_CONF=$directory/tkv.conf "$@"
