# Shared by the commands in this folder: where the checkout is, how they speak, and how they build.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

say() { printf '%s\n' "$*"; }
fail() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

# Prints the opening comment of the calling script, which is its help.
usage() { sed -n '2,/^[^#]/{s/^# \{0,1\}//p}' "$0"; }

# Runs a command with its output in the file $1, and shows the output only when the command fails.
quietly() {
    local output=$1
    shift
    mkdir -p "$(dirname "$output")"
    "$@" >"$output" 2>&1 || { tail -n 100 "$output" >&2; fail "failed: $* (all of its output: $output)"; }
}

# Configures and builds a preset; further arguments name the targets (all of them when there are none).
build_preset() {
    local preset=$1
    shift
    quietly "build/$preset-configure.log" cmake --preset "$preset"
    quietly "build/$preset-build.log" cmake --build --preset "$preset" --parallel "$(nproc)" ${1+--target "$@"}
}
