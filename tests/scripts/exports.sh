#!/usr/bin/env bash
# The module file's export table holds the host's eight entry points by name and nothing else; on
# Windows it depends on no library beyond the base services it uses (no user interface, no shell, no
# runtime DLL of the compiler that a server would lack).
source "$(dirname "$0")/script_lib.bash" "$@"

if [ -n "$RUN" ]; then
  names=$(x86_64-w64-mingw32-objdump -p "$MODULE" |
    sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | sed -En 's/^[[:space:]]*\[ *[0-9]+\] //p')
else
  names=$(nm -D --defined-only "$MODULE" | awk '{print $3}')
fi
names=$(sort <<<"$names")

expected=$(sort <<'NAMES'
EM_Create
EM_Delete
EM_GetModuleName
EM_SetupAction
checkWebConnection
deleteBinary
download
updateTree
NAMES
)
[ "$names" = "$expected" ] || fail "export table differs:"$'\n'"$(diff <(echo "$expected") <(echo "$names"))"

if [ -n "$RUN" ]; then
  imports=$(x86_64-w64-mingw32-objdump -p "$MODULE" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr 'a-z' 'A-Z' | sort)
  allowed='ADVAPI32.DLL BCRYPT.DLL KERNEL32.DLL MPR.DLL MSVCRT.DLL VERSION.DLL'
  for dll in $imports; do
    [[ " $allowed " == *" $dll "* ]] || fail "the module file imports $dll"
  done
  grep -qx 'KERNEL32.DLL' <<<"$imports" || fail "import table not read: $imports"
fi

finish
