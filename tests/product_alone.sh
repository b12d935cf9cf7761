#!/usr/bin/env bash
# The two houses without each other: the product builds, tests and installs with agent/ deleted, and
# the agent builds on what was installed. Usage: tests/product_alone.sh FOLDER, which is made anew.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mkdir -p "$1"
folder=$(cd "$1" && pwd)
rm -rf "${folder:?}"/*
mkdir "$folder/product" "$folder/lot"

# A copy of what is tracked; the compiler's cache knows it by its paths within the copy.
git ls-files -z -- . ':!agent' | xargs -0 cp --parents -t "$folder/product"
(
    cd "$folder/product"
    cmake --preset debug
    cmake --build --preset debug
    ctest --test-dir build/debug -L '^product\.(unit|layers)$' -j "$(nproc)" --no-tests=error
    cmake --install build/debug --prefix "$folder/tree"
    cmake --install build/debug --prefix "$folder/tree" --component dev
)

# Beside the agent lie the tests' shared helpers, and nothing else of the product's sources.
git ls-files -z -- agent tests/support | xargs -0 cp --parents -t "$folder/lot"
cmake -S "$folder/lot/agent" -B "$folder/lot/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS_DEBUG=-g1 -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    -DCMAKE_PREFIX_PATH="$folder/tree" -DKZE_AGENT_BUILD_BENCH=OFF
cmake --build "$folder/lot/build" --target agent_tree -j "$(nproc)"
"$folder/lot/build/tree/bin/kzectl" --version
