# The module file's export table holds the host's eight entry points by name and nothing else.
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

finish
