#!/bin/bash
# headers_alone_test.sh FLAG...: every header of the library and of the platform's interface compiles on its own, with
# both compilers, with no definition from the build and the include paths of the root and of platform/ (FLAG: those of
# the JSON library). The interface's may also be named without their folder.
set -u
cd "$(dirname "$0")/../.." || exit 1
failed=0
skipped=

for compiler in g++ clang++; do
    command=$(command -v $compiler-12 || command -v $compiler-14 || command -v $compiler) || {
        skipped="$skipped $compiler"
        continue
    }
    for header in otp/*.h platform/*.h $(basename -a platform/*.h); do
        if ! echo "#include \"$header\"" | "$command" -std=c++20 -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion \
            -Werror -fsyntax-only -I. -Iplatform "$@" -x c++ -; then
            echo "$compiler: $header does not compile alone"
            failed=1
        fi
    done
    for source in otp/*.cpp; do
        if ! "$command" -std=c++20 -fsyntax-only -I. -Iplatform "$@" "$source"; then
            echo "$compiler: $source needs more than the root's and platform's include paths"
            failed=1
        fi
    done
done
[ $failed = 0 ] || exit 1
[ -z "$skipped" ] || { echo "not installed:$skipped"; exit 77; }
