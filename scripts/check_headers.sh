#!/usr/bin/env bash
# Every public header stands alone, as C11 and as C++, without a warning.
set -euo pipefail
cd "$(dirname "$0")/.."
for header in include/*.h; do
    name=$(basename "$header")
    printf '#include "%s"\nextern int unused;\n' "$name" | gcc -std=c11 -Wall -Wextra -pedantic -Werror -Iinclude -fsyntax-only -x c -
    printf '#include "%s"\nextern int unused;\n' "$name" | g++ -std=c++11 -Wall -Wextra -Werror -Iinclude -fsyntax-only -x c++ -
done
echo "headers: $(ls include/*.h | wc -l) stand alone as C and C++"
