#!/usr/bin/env bash
# The include-direction check passes on the tree and fails on each kind of planted fault: an
# upward include, src/ reaching into the tests, a system header outside the platform layer, and
# an include not rooted at src/.
set -uo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

"$here/scripts/check-includes.sh" "$here" || fail "the tree itself does not pass"

plant() {  # plant FILE LINE EXPECTED-TEXT
  rm -rf "$work/tree" && mkdir -p "$work/tree" && cp -r "$here/src" "$work/tree/"
  echo "$2" >>"$work/tree/$1"
  local out
  out=$("$here/scripts/check-includes.sh" "$work/tree" 2>&1) && fail "planted '$2' in $1 passed"
  grep -qF "$3" <<<"$out" || fail "planted '$2' in $1: no line naming it in: $out"
}

plant src/platform/Clock.h '#include "foundation/CDebug.h"' 'src/platform/Clock.h:'
plant src/foundation/UM_Util.cpp '#include "config/UM_Config.h"' 'foundation may not include "config/UM_Config.h"'
plant src/base/WString.h '#include "platform/FileIo.h"' 'base may not include'
plant src/config/CIniFile.cpp '#include "module/IModuleHost.h"' 'config may not include'
plant src/module/ModuleRouting.cpp '#include "tests/unit/TestRegistry.h"' 'module may not include "tests/'
plant src/config/CIniFile.cpp '#include <unistd.h>' 'only src/platform/ includes the system headers'
plant src/config/CIniFile.cpp '#include "CIniFile.h"' 'must be rooted at src/'
echo "include check: tree passes, 7 planted faults refused"
