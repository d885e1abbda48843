#!/usr/bin/env bash
# Fails when an include runs against the layers of src/:
#   module -> jobs -> check -> mirror -> config -> foundation -> platform -> base
# (the engine stand-in sits on foundation, platform and base), when src/ reaches into tools/ or
# tests/, or when a folder other than src/platform/ includes a system's own headers.
# Usage: scripts/check-includes.sh [SOURCE_ROOT]   (the build runs it before the layer libraries)
set -uo pipefail
root=${1:-$(dirname "$0")/..}
cd "$root" || exit 2

# What each layer may include, besides the standard library and third-party headers.
allowed='base=base
platform=base platform
foundation=base platform foundation
config=base platform foundation config
mirror=base platform foundation config mirror
check=base platform foundation config mirror check engine
jobs=base platform foundation config mirror check jobs engine
module=base platform foundation config mirror check jobs module engine
engine=base platform foundation engine'
system_headers='windows\.h|winhttp\.h|unistd\.h|pthread\.h|fcntl\.h|dlfcn\.h|spawn\.h|sys/[a-z_]+\.h|io\.h|process\.h|direct\.h|archive(_entry)?\.h|curl/curl\.h|aclapi\.h'

mapfile -t files < <(find src -type f \( -name '*.h' -o -name '*.cpp' -o -name '*.inc' \) | sort)
[ ${#files[@]} -gt 0 ] || exit 0
grep -HnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]' "${files[@]}" |
  awk -v allowed="$allowed" -v sys="^($system_headers)$" '
    BEGIN {
      n = split(allowed, rows, "\n")
      for (i = 1; i <= n; i++) { split(rows[i], kv, "="); may[kv[1]] = " " kv[2] " " }
      bad = 0
    }
    {
      file = $0; sub(/:.*/, "", file)
      rest = substr($0, length(file) + 2); line = rest; sub(/:.*/, "", line)
      text = substr(rest, length(line) + 2)
      layer = file; sub(/^src\//, "", layer); sub(/\/.*/, "", layer)
      if (!(layer in may)) { print file ": src/" layer " is not a layer of the module" > "/dev/stderr"; bad = 1; next }
      if (match(text, /"[^"]*"/)) {
        inc = substr(text, RSTART + 1, RLENGTH - 2); top = inc; sub(/\/.*/, "", top)
        if (top == inc) { print file ":" line ": include \"" inc "\" must be rooted at src/" > "/dev/stderr"; bad = 1 }
        else if (index(may[layer], " " top " ") == 0) {
          print file ":" line ": " layer " may not include \"" inc "\" (upward or sideways across the layers)" > "/dev/stderr"; bad = 1
        }
      } else if (layer != "platform" && match(text, /<[^>]*>/)) {
        inc = substr(text, RSTART + 1, RLENGTH - 2)
        if (inc ~ sys) { print file ":" line ": only src/platform/ includes the system headers: <" inc ">" > "/dev/stderr"; bad = 1 }
      }
    }
    END { exit bad }'
