#!/usr/bin/env bash
# The tree builder and the archive stub. A sample leaves folder built into a server tree whose
# files carry the numbers the client checks; the commands that change the tree keep it
# consistent, the break variants break exactly what they name; the stub (a Windows program on
# both builds, run under Wine) unpacks a package as the leaf's payload, honours -o -q -l, refuses
# hostile archives as a whole and leaves no half file behind.
source "$(dirname "$0")/script_lib.bash" "$@"

REPOTOOL=${EM_REPOTOOL:?EM_REPOTOOL names the tree builder}
STUB=${EM_SFX_STUB:?EM_SFX_STUB names the archive stub}
if [ -n "$RUN" ]; then
  WINE=$RUN
elif command -v wine >/dev/null; then
  WINE=$(cd "$(dirname "$0")/../../scripts" && pwd)/wine-run
else
  WINE=''
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
cp "$STUB" sfx.exe

# Relative paths read the same natively and under Wine.
rt() { if [ -n "$RUN" ]; then "$RUN" "$REPOTOOL" "$@"; else "$REPOTOOL" "$@"; fi; }
size() { stat -c %s "$1"; }
# line TREE REL — the leaf's line of versionAll.txt, CR LF removed
line() { unzip -p "$1/versionAll.exe" versionAll.txt | tr -d '\r' | grep -P "^\Q$2\E\t"; }
field() { cut -f "$1" <<<"$2"; }
# tree_numbers TREE VERSION — versionTree.txt is the six lines with the real sizes, twins equal
tree_numbers() {
  local va zt
  va=$(size "$1/versionAll.exe")
  zt=$(size "$1/ZT_par_tree.exe")
  printf '# Version of ZT-Zip-Tree : %s\r\n# VERSIONALLEXE_FILESIZE=%s\r\n# ZTPAR_FILESIZE=%s\r\n# Check_VERSIONALLEXE_FILESIZE=%s\r\n# Check_ZTPAR_FILESIZE=%s\r\n# Check_Version=%s\r\n' \
    "$2" "$va" "$zt" "$va" "$zt" "$2" | cmp -s - "$1/versionTree.txt" ||
    fail "$1/versionTree.txt does not hold version $2 and the real sizes ($va, $zt): $(cat -A "$1/versionTree.txt")"
}

# --- build: the sample as a server tree ------------------------------------------------------
rt sample --leaves leaves --count 30 >/dev/null || fail "sample failed"
rt build --leaves leaves --out srv --stub sfx.exe --tree-version 7 --client client >/dev/null || fail "build failed"
tree_numbers srv 7

all=$(unzip -p srv/versionAll.exe versionAll.txt)
[ "$(grep -c $'\r$' <<<"$all")" -eq "$(wc -l <<<"$all")" ] || fail "versionAll.txt has lines without CR LF"
[ "$(head -c1 <<<"$all")" = '#' ] || fail "versionAll.txt does not start with a comment"
leaves=$(grep -v '^#' <<<"$all" | tr -d '\r')
expect_count "$leaves" 30
bad=$(awk -F'\t' 'NF != 8 || $2 !~ /^-?[0-9]+$/ || $4 !~ /^[0-9]+$/ || $5 !~ /^[FCL]$/ || $7 !~ /^-?[0-9]+$/ || $8 !~ /^-?[0-9]+$/' <<<"$leaves")
[ -z "$bad" ] || fail "versionAll.txt lines that are not 8 TAB-separated fields: $bad"
for t in F C L; do
  [ "$(cut -f5 <<<"$leaves" | grep -c "^$t$")" -gt 0 ] || fail "the sample has no leaf of type $t"
done

ztlist=$(unzip -Z1 srv/ZT_par_tree.exe)
while IFS=$'\t' read -r rel ver exe bytes type common cver _; do
  vl=$(unzip -p srv/ZT_par_tree.exe "$rel/versionLeaf.txt")
  [ "$vl" = "$(grep -P "^\Q$rel\E\t" <<<"$all")" ] || fail "$rel: ZT_par_tree's versionLeaf.txt is not its versionAll line: $vl"
  if [ "$type" = L ]; then
    [ "$exe $bytes" = "none.exe 0" ] || fail "$rel: a link leaf names a package: $exe $bytes"
    grep -qx "$rel/ztlink.par" <<<"$ztlist" || fail "$rel: no ztlink.par"
    grep -qx "$rel/0" <<<"$ztlist" && fail "$rel: a link leaf has the marker 0"
    [ -e "srv/$rel" ] && fail "$rel: a link leaf has a directory on the server"
    continue
  fi
  [ "$(size "srv/$rel/$exe" 2>/dev/null)" = "$bytes" ] || fail "$rel: $exe is not $bytes bytes"
  grep -qx "$rel/zt.par" <<<"$ztlist" || fail "$rel: no zt.par in ZT_par_tree"
  grep -qx "$rel/0" <<<"$ztlist" && [ -z "$(unzip -p srv/ZT_par_tree.exe "$rel/0")" ] || fail "$rel: no empty marker 0"
  # unzip tests every entry's CRC and warns (exit 1) about offsets that do not count from the file's start.
  unzip -tq "srv/$rel/$exe" >/dev/null || fail "$rel: unzip finds fault with $exe"
  if [ "$common" != - ]; then
    [ "$cver" = "$(field 2 "$(line srv "$common")")" ] || fail "$rel: commonVersion $cver is not $common's version"
  fi
  [ "$ver" -ge 0 ] || fail "$rel: negative version $ver in a fresh build"
  if [ -f "leaves/$rel/rel_note.txt" ]; then
    unzip -p srv/ZT_par_tree.exe "$rel/rel_note.txt" | cmp -s - "leaves/$rel/rel_note.txt" || fail "$rel: rel_note.txt"
  else
    grep -qx "$rel/rel_note.txt" <<<"$ztlist" && fail "$rel: a release note it does not have"
  fi
done <<<"$leaves"
for f in versionAll.exe ZT_par_tree.exe; do unzip -tq "srv/$f" >/dev/null || fail "unzip finds fault with $f"; done
# The sample speaks the engine's vocabulary: every severity and every reboot value it knows.
vocabulary() { unzip -p srv/ZT_par_tree.exe '*/zt.par' | tr -d '\r' | sed -n "s/^$1=//p" | sort -u | paste -sd' '; }
[ "$(vocabulary severity)" = "mandatory optional recommended" ] || fail "sample severities: $(vocabulary severity)"
[ "$(vocabulary reboot)" = "immediately no yes" ] || fail "sample reboot values: $(vocabulary reboot)"

# A package: every entry below the leaf, payload as in the leaves folder, the short versionLeaf.txt.
a1=BIOS/D3300/A1
a1exe=$(field 3 "$(line srv $a1)")
names=$(unzip -Z1 "srv/$a1/$a1exe")
[ -z "$(grep -v "^$a1/" <<<"$names")" ] || fail "package entries outside the leaf: $names"
[ "$(unzip -p "srv/$a1/$a1exe" "$a1/versionLeaf.txt")" = "$a1"$'\t1\r' ] || fail "short versionLeaf.txt wrong"
unzip -p "srv/$a1/$a1exe" "$a1/zt.par" | grep -qx "packageFile=$a1exe"$'\r' || fail "zt.par does not name the package"
unzip -p "srv/$a1/$a1exe" "$a1/Größe.txt" | cmp -s - "leaves/$a1/files/Größe.txt" || fail "UTF-8 payload name lost"

[ "$(tr -d '\r' <srv/backtrack.txt | grep -vc '^#')" -eq 0 ] || fail "a fresh backtrack.txt lists leaves"
for s in srv/Stop.txt srv/ZenTrove/Stop.txt; do [ "$(size $s)" -ne 4711 ] || fail "$s has the indicator size"; done
[ "$(cat client/UpdateIndicatorFile.txt)" = $'NAME=Stop.txt\r\nSIZE=4711\r' ] || fail "UpdateIndicatorFile.txt wrong"

# Built again over the former tree: the same bytes, the tree version counting on.
cp -a srv again
rt build --leaves leaves --out again --stub sfx.exe >/dev/null || fail "build over a tree failed"
tree_numbers again 8
cmp -s "srv/$a1/$a1exe" "again/$a1/$a1exe" && cmp -s srv/ZT_par_tree.exe again/ZT_par_tree.exe ||
  fail "the same leaves give other archives"
rm -rf again
cp -a srv good

# --- the commands that change the tree ------------------------------------------------------
nic=FIRMWARE/NIC/X703
nicexe=$(field 3 "$(line srv $nic)")
rt bump --out srv --leaf $a1 >/dev/null || fail "bump failed"
l=$(line srv $a1)
[ "$(field 2 "$l")/$(field 8 "$l")" = 2/1 ] || fail "bump: not version 2 with oldVersion 1: $l"
[ "$(field 4 "$l")" = "$(size "srv/$a1/$a1exe")" ] || fail "bump: size not updated: $l"
[ "$(unzip -p "srv/$a1/$a1exe" "$a1/versionLeaf.txt")" = "$a1"$'\t2\r' ] || fail "bump: package's versionLeaf.txt"
unzip -p "srv/$a1/$a1exe" "$a1/zt.par" | grep -qx $'version=1.1.1\r' || fail "bump: component version not raised"
unzip -p "srv/$a1/$a1exe" "$a1/readme.txt" | cmp -s - "leaves/$a1/files/readme.txt" || fail "bump: payload changed"
[ "$(unzip -p srv/ZT_par_tree.exe "$a1/versionLeaf.txt" | tr -d '\r')" = "$l" ] || fail "bump: ZT_par_tree not rewritten"
cmp -s "good/$nic/$nicexe" "srv/$nic/$nicexe" || fail "bump touched another leaf's package"
tree_numbers srv 8

rt bump --out srv --leaf $a1 --version 9 --package A1_new.exe --component-version 2.0.0 >/dev/null || fail "bump --package failed"
l=$(line srv $a1)
[ "$(field 2 "$l")/$(field 3 "$l")/$(field 8 "$l")" = 9/A1_new.exe/2 ] || fail "bump --version --package: $l"
[ -f "srv/$a1/A1_new.exe" ] && [ ! -e "srv/$a1/$a1exe" ] || fail "bump --package: old package kept or new one missing"
unzip -p "srv/$a1/A1_new.exe" "$a1/zt.par" | grep -qx $'version=2.0.0\r' || fail "bump --component-version"
# --files: a new payload, large enough to pass the stub's buffers many times (checked below).
mkdir -p newfiles/big && echo new >newfiles/new.txt
seq 1 60000 >newfiles/big/text.txt && head -c 300000 /dev/urandom >newfiles/big/random.bin
rt bump --out srv --leaf $a1 --files newfiles >/dev/null || fail "bump --files failed"
[ "$(unzip -Z1 "srv/$a1/A1_new.exe" | grep -v -e zt.par -e versionLeaf.txt -e rel_note.txt | sort)" = \
  "$(cd newfiles && find . -type f | sed "s#^\.#$a1#" | sort)" ] || fail "bump --files: $(unzip -Z1 "srv/$a1/A1_new.exe")"
# A link leaf has no package to re-pack; its version and description move on all the same.
rt bump --out srv --leaf LINK/Tool9 >/dev/null || fail "bump of a link leaf failed"
[ "$(field 2 "$(line srv LINK/Tool9)")" = 5 ] || fail "bump of a link leaf: $(line srv LINK/Tool9)"
unzip -p srv/ZT_par_tree.exe LINK/Tool9/ztlink.par | grep -qx $'version=1.4.10\r' || fail "link leaf's ztlink.par"

rt withdraw --out srv --leaf $nic >/dev/null || fail "withdraw failed"
[ "$(field 2 "$(line srv $nic)")" = -1 ] || fail "withdraw: version not -1"
[ -f "srv/$nic/$nicexe" ] || fail "withdraw removed the package"
[ "$(unzip -p srv/ZT_par_tree.exe "$nic/versionLeaf.txt" | cut -f2)" = -1 ] || fail "withdraw: ZT_par_tree not rewritten"
tree_numbers srv 12
# Bumped after its withdrawal, the leaf counts on from the version its package names.
rt bump --out srv --leaf $nic >/dev/null || fail "bump of a withdrawn leaf failed"
[ "$(field 2 "$(line srv $nic)")/$(field 8 "$(line srv $nic)")" = 3/2 ] || fail "bump after withdraw: $(line srv $nic)"

rt backtrack --out srv --leaf $nic --leaf LINK/Tool9 --os 'Windows Server 2019' >/dev/null || fail "backtrack failed"
# Again: the same line is not repeated, a line that ends like another one is no repetition.
rt backtrack --out srv --leaf $nic --leaf NIC/X703 --os 'Windows Server 2019' >/dev/null || fail "backtrack again failed"
expect_count "$(grep -v '^#' srv/backtrack.txt)" 3
grep -qx "$nic"$'\tWindows Server 2019\r' srv/backtrack.txt || fail "backtrack.txt: $(cat -A srv/backtrack.txt)"
rt stop --out srv on >/dev/null || fail "stop on failed"
[ "$(size srv/Stop.txt)/$(size srv/ZenTrove/Stop.txt)" = 4711/4711 ] || fail "stop on: not the indicator size"
rt stop --out srv off >/dev/null || fail "stop off failed"
[ "$(size srv/Stop.txt)" -ne 4711 ] && [ "$(size srv/ZenTrove/Stop.txt)" -ne 4711 ] || fail "stop off: indicator size"
tree_numbers srv 15

# Refused input changes nothing.
cp srv/versionTree.txt before.txt
for rel in ../x /abs a/../b 'C:\x'; do
  rt bump --out srv --leaf "$rel" 2>/dev/null && fail "bump accepted the leaf path $rel"
done
rt backtrack --out srv --leaf BIOS/../x 2>/dev/null && fail "backtrack accepted a path with .."
cmp -s before.txt srv/versionTree.txt || fail "a refused command changed the tree"
# refused WHY — a leaves folder "bad" (prepared by the caller; leaf A from ini()) must not build.
ini() { mkdir -p "bad/${2:-A}" && printf "$1" >"bad/${2:-A}/leaf.ini"; }
refused() {
  rt build --leaves bad --out badsrv --stub sfx.exe 2>/dev/null && fail "build accepted $1"
  [ -e badsrv ] && fail "a build refused for $1 wrote its output"
  rm -rf bad badsrv
}
F='[leaf]\nversion=1\ntype=F\n'
ini "$F" && ini "$F" A/B && refused "a leaf inside a leaf"
ini '[leaf]\nversion=1\ntype=X\n' && refused "type=X"
ini '[leaf]\ntype=F\n' && refused "a leaf without version"
ini '[leaf]\nversion=1x\ntype=F\n' && refused "a version with a letter"
ini "${F}colour=red\n" && refused "an unknown key in [leaf]"
ini 'version=1\ntype=F\n' && refused "keys outside a section"
ini "${F}common=../C\n" && refused "common=../C"
ini "${F}common=B\n" && ini "$F" B && refused "common naming a leaf of type F"
ini "${F}package=sub/A.exe\n" && refused "a package name with a path"
ini "${F}package=A.zip\n" && refused "a package name not ending in .exe"
ini "${F}[component]\npackageFile=other.exe\n" && refused "packageFile in leaf.ini"
ini '[leaf]\nversion=1\ntype=L\n' && mkdir bad/A/files && refused "a link leaf with files/"
ini "$F" && mkdir bad/A/files && echo x >bad/A/files/zt.par && refused "a payload file named zt.par"
ini "$F" && mkdir bad/A/files && echo x >bad/A/files/A.exe && refused "a payload file named as the package"
ini "$F" a/X && ini "$F" a/x && refused "leaves that differ only in case"
ini "$F" ZenTrove/A && refused "a leaf below ZenTrove"
rt frobnicate 2>/dev/null
[ $? -eq 2 ] || fail "an unknown command does not give 2"
rt build --leaves leaves --out x --stub sfx.exe --colour red 2>/dev/null
[ $? -eq 1 ] || fail "an unknown option does not give 1"
mkdir notree && echo keep >notree/file
rt build --leaves leaves --out notree --stub sfx.exe 2>/dev/null && fail "build replaced a folder that holds no tree"
[ "$(cat notree/file)" = keep ] || fail "a refused build touched a foreign folder"

# The component description: the keys in their order, defaults for the missing ones, a key's
# spelling as documented, unknown keys kept behind; a link leaf's packageFile stays empty.
ini '[leaf]\nversion=4\ntype=F\n[component]\nTYPE=BIOS\nvendorNote=kept\n' M
ini '[leaf]\nversion=2\ntype=L\n[component]\ntype=TOOL\n' N
rt build --leaves bad --out csrv --stub sfx.exe >/dev/null || fail "build of a minimal leaf failed"
printf '# component description of M\r\ntype=BIOS\r\nsubtype=\r\nobjectName=M\r\npciId=\r\nversion=1.0.4\r\nseverity=recommended\r\nreboot=no\r\ninstallTime=60\r\nprerequisite=\r\nos=any\r\nmandatory=0\r\npackageFile=M.exe\r\nformatVersion=1\r\nminStepVersion=\r\nvendorNote=kept\r\n' |
  cmp -s - <(unzip -p csrv/ZT_par_tree.exe M/zt.par) || fail "zt.par with defaults: $(unzip -p csrv/ZT_par_tree.exe M/zt.par | cat -A)"
unzip -p csrv/M/M.exe M/zt.par | cmp -s - <(unzip -p csrv/ZT_par_tree.exe M/zt.par) || fail "the package's zt.par differs"
unzip -p csrv/ZT_par_tree.exe N/ztlink.par | grep -qx $'packageFile=\r' || fail "a link leaf names a package file"
[ "$(unzip -Z1 csrv/ZT_par_tree.exe | grep -c rel_note)" -eq 0 ] || fail "rel_note.txt without a release note"
rm -rf bad csrv

# --- break: exactly what each variant names ------------------------------------------------
broken() { rm -rf "b-$1" && cp -a good "b-$1" && rt break --out "b-$1" --what "$1" "${@:2}" >/dev/null || fail "break $1 failed"; }
num() { tr -d '\r' <"$1/versionTree.txt" | sed -n "s/^# $2=//p"; }
broken wrong-size
[ "$(num b-wrong-size VERSIONALLEXE_FILESIZE)/$(num b-wrong-size Check_VERSIONALLEXE_FILESIZE)" = \
  "$(($(size good/versionAll.exe) + 1))/$(($(size good/versionAll.exe) + 1))" ] || fail "wrong-size: $(cat b-wrong-size/versionTree.txt)"
[ "$(num b-wrong-size ZTPAR_FILESIZE)" = "$(size good/ZT_par_tree.exe)" ] || fail "wrong-size changed the other size"
broken bad-twin
[ "$(num b-bad-twin ZTPAR_FILESIZE)" != "$(num b-bad-twin Check_ZTPAR_FILESIZE)" ] || fail "bad-twin: twins agree"
[ "$(num b-bad-twin VERSIONALLEXE_FILESIZE)" = "$(num b-bad-twin Check_VERSIONALLEXE_FILESIZE)" ] || fail "bad-twin: both twins differ"
broken corrupt-line --leaf $nic
[ "$(field 2 "$(line b-corrupt-line $nic)")" = 2x ] || fail "corrupt-line: $(line b-corrupt-line $nic)"
[ "$(line b-corrupt-line $a1)" = "$(line good $a1)" ] || fail "corrupt-line broke another line"
tree_numbers b-corrupt-line 8
broken short-version-leaf --leaf $nic
[ "$(unzip -p b-short-version-leaf/ZT_par_tree.exe "$nic/versionLeaf.txt")" = "$nic"$'\t2\r' ] || fail "short-version-leaf"
tree_numbers b-short-version-leaf 8
broken short-package --leaf $nic
[ "$(size "b-short-package/$nic/$nicexe")" -eq $(($(size "good/$nic/$nicexe") / 2)) ] || fail "short-package: size"
broken corrupt-package --leaf $nic
[ "$(size "b-corrupt-package/$nic/$nicexe")" -eq "$(size "good/$nic/$nicexe")" ] || fail "corrupt-package: size changed"
unzip -tq "b-corrupt-package/$nic/$nicexe" >/dev/null 2>&1 && fail "corrupt-package: unzip finds no fault"
broken missing-package --leaf $nic
[ -e "b-missing-package/$nic/$nicexe" ] && fail "missing-package: package still there"
cmp -s good/versionTree.txt b-missing-package/versionTree.txt || fail "missing-package changed versionTree.txt"
# valid_zip TREE — versionAll.exe still an archive the stub's client and unzip read whole
valid_zip() { unzip -tq "$1/versionAll.exe" >/dev/null || fail "$1: unzip finds fault with versionAll.exe"; }
broken comment-only
valid_zip b-comment-only
[ "$(unzip -p b-comment-only/versionAll.exe versionAll.txt | grep -vc '^#')" -eq 0 ] || fail "comment-only: a leaf line left"
[ "$(unzip -p b-comment-only/versionAll.exe versionAll.txt)" = "$(unzip -p good/versionAll.exe versionAll.txt | sed 's/^\([^#]\)/#\1/')" ] ||
  fail "comment-only: not every leaf line as a comment: $(unzip -p b-comment-only/versionAll.exe versionAll.txt | head -3)"
cmp -s good/ZT_par_tree.exe b-comment-only/ZT_par_tree.exe && cmp -s "good/$a1/$a1exe" "b-comment-only/$a1/$a1exe" ||
  fail "comment-only changed the information files or a package"
tree_numbers b-comment-only 8
# hostile_lines TREE — versionAll.txt's lines that are no comment and no leaf of the good tree
hostile_lines() { diff <(unzip -p good/versionAll.exe versionAll.txt | tr -d '\r') <(unzip -p "$1/versionAll.exe" versionAll.txt | tr -d '\r') | sed -n 's/^> //p'; }
broken hostile-lines
valid_zip b-hostile-lines
[ "$(hostile_lines b-hostile-lines | cut -f1)" = $'../escape/leaf\n/abs/leaf\nC:/drive/leaf\na/../../x\n..\\back\\leaf\n.../dots/leaf\n.. /blank/leaf' ] ||
  fail "hostile-lines: not the default paths: $(hostile_lines b-hostile-lines)"
[ "$(hostile_lines b-hostile-lines | cut -f2- | sort -u)" = $'1\thostile.exe\t1000\tF\t-\t0\t0' ] || fail "hostile-lines: fields"
# In front of every leaf line, behind the comment; the leaf lines themselves unchanged.
unzip -p b-hostile-lines/versionAll.exe versionAll.txt | tr -d '\r' | sed -n 2p | grep -q '^\.\./escape/leaf' ||
  fail "hostile-lines: the first line behind the comment is no hostile one"
[ "$(unzip -p b-hostile-lines/versionAll.exe versionAll.txt | grep -c "^$a1"$'\t')" -eq 1 ] || fail "hostile-lines lost a leaf line"
cmp -s good/ZT_par_tree.exe b-hostile-lines/ZT_par_tree.exe || fail "hostile-lines changed ZT_par_tree.exe"
tree_numbers b-hostile-lines 8
# Given paths and a withdrawn version, on top of a tree broken before (its lines are not parsed).
rt break --out b-hostile-lines --what hostile-lines --leaf "$work/outside dir" --leaf 'x/..' --version -1 >/dev/null ||
  fail "hostile-lines over a broken tree failed"
[ "$(hostile_lines b-hostile-lines | head -2)" = "$work/outside dir"$'\t-1\thostile.exe\t1000\tF\t-\t0\t0\nx/..\t-1\thostile.exe\t1000\tF\t-\t0\t0' ] ||
  fail "hostile-lines --leaf --version: $(hostile_lines b-hostile-lines)"
expect_count "$(hostile_lines b-hostile-lines)" 9
tree_numbers b-hostile-lines 9
broken hostile-backtrack --os 'Windows Server 2019'
[ "$(tr -d '\r' <b-hostile-backtrack/backtrack.txt)" = \
  $'# leafRelPath\tosString\n../victim\tWindows Server 2019\n/abs/victim\tWindows Server 2019\nC:/drive/victim\tWindows Server 2019\na/../../victim\tWindows Server 2019\n..\\victim\tWindows Server 2019\n.../victim\tWindows Server 2019' ] ||
  fail "hostile-backtrack: $(cat -A b-hostile-backtrack/backtrack.txt)"
cmp -s good/versionAll.exe b-hostile-backtrack/versionAll.exe || fail "hostile-backtrack changed versionAll.exe"
tree_numbers b-hostile-backtrack 8
rt break --out b-hostile-backtrack --what hostile-backtrack --leaf "$work" >/dev/null || fail "hostile-backtrack --leaf failed"
[ "$(tail -n1 b-hostile-backtrack/backtrack.txt)" = "$work"$'\tany\r' ] || fail "hostile-backtrack --leaf: $(tail -n1 b-hostile-backtrack/backtrack.txt)"
tree_numbers b-hostile-backtrack 9
# Options of one variant are refused by the others, a path that would break its line too; nothing changes.
cp good/versionTree.txt before.txt
rt break --out good --what wrong-size --version 3 2>/dev/null && fail "wrong-size accepted --version"
rt break --out good --what hostile-lines --os any 2>/dev/null && fail "hostile-lines accepted --os"
rt break --out good --what hostile-lines --leaf $'a\tb' 2>/dev/null && fail "hostile-lines accepted a TAB in a path"
rt break --out good --what hostile-lines --version 1x 2>/dev/null && fail "hostile-lines accepted --version 1x"
cmp -s before.txt good/versionTree.txt || fail "a refused break changed the tree"

# --- inventory: a sample machine that disagrees with the leaves in known ways -------------------
# inv_leaf REL TYPE LEAFVERSION [COMPONENT LINES] — a leaf of the folder "inv"
inv_leaf() {
  mkdir -p "inv/$1" && printf '[leaf]\nversion=%s\ntype=%s\n' "$3" "$2" >"inv/$1/leaf.ini"
  [ -z "${4:-}" ] || printf '[component]\n%s\n' "$4" >>"inv/$1/leaf.ini"
}
# In leafRelPath order; k counts the leaves with a package, k % 5 says what the machine has.
inv_leaf BIOS/D3300 F 1 $'type=BIOS\nsubtype=SystemBoard\nobjectName=D3300\nversion=1.3.5'           # k0 older
inv_leaf COMMON/Lib8 C 2 $'type=DRIVER\nsubtype=Common\nobjectName=Lib8\nversion=2.0'                # k1 same
inv_leaf DRIVER/NIC/X710 F 1 $'type=DRIVER\nsubtype=NIC\nobjectName=X710\npciId=8086:15ff\nversion=9.1' # k2 newer
inv_leaf FIRMWARE/BMC/iRMC7 F 1 $'type=FIRMWARE\nsubtype=BMC\nobjectName=iRMC7\nversion=2.1'         # k3 missing
inv_leaf LINK/Tool9 L 3 $'type=TOOL\nobjectName=Tool9\npciId=1234:5678\nversion=1.4'                 # no package
inv_leaf PSU/P1 F 1 $'type=FIRMWARE\nsubtype=PSU\nobjectName=P1\nversion=3.2'                        # k4 unknown
inv_leaf RAID/R0 F 1 $'type=FIRMWARE\nsubtype=RAID\nobjectName=R0\npciId=abcd:00EF\nversion=0.10.7' # k5 older
inv_leaf SENSOR/S1 F 4                                                                                # k6 same
inv_leaf TOOL/T1 F 1 $'type=TOOL\nsubtype=Util\nobjectName=T1\nversion=beta'                         # k7 newer
inv_leaf UTIL/U1 C 1 $'type=DRIVER\nsubtype=Util\nobjectName=U1\nversion=1.0'                        # k8 missing
inv_leaf VIDEO/V1 F 1 $'type=FIRMWARE\nsubtype=Video\nobjectName=V1\nversion=7.7'                    # k9 unknown
inv_leaf WLAN/W1 F 1 $'type=FIRMWARE\nsubtype=Wlan\nobjectName=W1\nversion=0.0'                      # k10 nothing older
inv_leaf ZZ/Z1 F 1 $'type=FIRMWARE\nsubtype=Misc\nobjectName=Z1\nversion=01.2'                       # k11 same
inv_expected='# Installed components of the simulated update engine (repotool inventory)
[system]
os=linux

[component]
type=KordSupportPack-Win
subtype=SupportPack
objectName=SupportPack
version=4.1.0
compId=KPK-4.1.0
description=Support pack

[component]
type=BIOS
subtype=SystemBoard
objectName=D3300
version=0.3.5
compId=D3300
description=BIOS SystemBoard D3300

[component]
type=DRIVER
subtype=Common
objectName=Lib8
version=2.0
compId=Lib8
description=DRIVER Common Lib8

[component]
type=DRIVER
subtype=NIC
objectName=X710
version=10.1
compId=PCI\VEN_8086&DEV_15FF
description=DRIVER NIC X710

[component]
type=FIRMWARE
subtype=PSU
objectName=P1
version=
compId=P1
description=FIRMWARE PSU P1

[component]
type=FIRMWARE
subtype=RAID
objectName=R0
version=0.9.7
compId=PCI\VEN_ABCD&DEV_00EF
description=FIRMWARE RAID R0

[component]
type=FIRMWARE
subtype=
objectName=S1
version=1.0.4
compId=S1
description=FIRMWARE  S1

[component]
type=TOOL
subtype=Util
objectName=T1
version=1beta
compId=T1
description=TOOL Util T1

[component]
type=FIRMWARE
subtype=Video
objectName=V1
version=
compId=V1
description=FIRMWARE Video V1

[component]
type=FIRMWARE
subtype=Misc
objectName=Z1
version=01.2
compId=Z1
description=FIRMWARE Misc Z1'
# inv_is FILE TEXT — FILE is TEXT with every line ending in CR LF
inv_is() {
  [ "$(tr -d '\r' <"$1")" = "$2" ] || fail "inventory $1:"$'\n'"$(diff <(echo "$2") <(tr -d '\r' <"$1"))"
  [ "$(grep -c $'\r$' "$1")" -eq "$(wc -l <"$1")" ] && tail -c2 "$1" | cmp -s - <(printf '\r\n') ||
    fail "inventory $1: a line without CR LF"
}
rt inventory --leaves inv --out inv.txt >/dev/null || fail "inventory failed"
inv_is inv.txt "$inv_expected"
# Again over the file it wrote, and into a new directory: the same bytes, no temporary file left.
rt inventory --leaves inv --out inv.txt >/dev/null && rt inventory --leaves inv --out new/inv.txt >/dev/null ||
  fail "inventory again failed"
inv_is inv.txt "$inv_expected"
cmp -s inv.txt new/inv.txt || fail "a second inventory differs"
[ "$(ls -A new)" = inv.txt ] || fail "inventory left behind: $(ls -A new)"
# --max counts the support pack and the sections written, not the leaves the machine lacks.
rt inventory --leaves inv --out inv5.txt --max 5 --os 'Windows Server 2019' >/dev/null || fail "inventory --max 5 failed"
inv_is inv5.txt "$(sed -e '/^description=FIRMWARE PSU P1$/q' -e 's/^os=linux$/os=Windows Server 2019/' <<<"$inv_expected")"
rt inventory --leaves inv --out inv1.txt --max 1 >/dev/null || fail "inventory --max 1 failed"
inv_is inv1.txt "$(sed '/^description=Support pack$/q' <<<"$inv_expected")"
# The sample folder: the same leaves give the same inventory.
rt inventory --leaves leaves --out s1.txt >/dev/null && rt inventory --leaves leaves --out s2.txt >/dev/null &&
  cmp -s s1.txt s2.txt || fail "the sample's inventory differs between two runs"
# inv_refused WHY OPTIONS... — exit 1 and one line on standard error, nothing written
inv_refused() {
  rt inventory --leaves inv --out refused.txt "${@:2}" 2>err.txt
  local rc=$?
  [ $rc -eq 1 ] && [ "$(wc -l <err.txt)" -eq 1 ] || fail "inventory with $1: exit $rc, $(cat err.txt)"
  [ -e refused.txt ] && fail "inventory with $1 wrote its file"
}
mkdir invdir
inv_refused "--max 0" --max 0
inv_refused "--max 5x" --max 5x
inv_refused "an os with a blank in front" --os ' x'
inv_refused "a directory at --out" --out invdir
inv_leaf RAID/R0 F 1 $'type=FIRMWARE\nobjectName=R0\npciId=8086-15ff'
inv_refused "the pciId 8086-15ff"
[ -z "$(ls -A invdir)" ] || fail "inventory wrote into the directory at --out"

# --- the stub, under Wine ----------------------------------------------------------------------
if [ -z "$WINE" ]; then
  echo "no wine: the stub's checks are skipped"
  finish
fi
# sfx DIR ARCHIVE OPTIONS... — runs the archive in DIR; output in out.txt/err.txt, exit code returned
sfx() { (cd "$1" && "$WINE" "$work/$2" "${@:3}" >"$work/out.txt" 2>"$work/err.txt"); }
one_error_line() { [ "$(wc -l <err.txt)" -eq 1 ] || fail "$1: not one line on standard error: $(cat err.txt)"; }
# payload_equal DIR REL — DIR/REL holds the leaf's payload and the package's own files
payload_equal() {
  diff -r -x zt.par -x rel_note.txt -x versionLeaf.txt "leaves/$2/files" "$1/$2" >/dev/null ||
    fail "$2 unpacked differs from its payload: $(diff -r "leaves/$2/files" "$1/$2")"
}

d3301=BIOS/D3301/A2
d3301exe=$(field 3 "$(line good $d3301)")
mkdir un
sfx un "good/$a1/$a1exe" -oq || fail "-oq failed: $(cat err.txt)"
sfx un "good/$d3301/$d3301exe" -qo || fail "-qo failed: $(cat err.txt)"
[ -s out.txt ] && fail "-q printed: $(cat out.txt)"
payload_equal un $a1
payload_equal un $d3301
unzip -p "good/$a1/$a1exe" "$a1/versionLeaf.txt" | cmp -s - "un/$a1/versionLeaf.txt" || fail "versionLeaf.txt unpacked wrong"
# Without -o an existing file ends the run before the first write: the missing first entry stays missing.
echo changed >"un/$a1/readme.txt"
rm "un/$a1/Größe.txt"
sfx un "good/$a1/$a1exe" && fail "without -o an existing file was overwritten"
one_error_line "existing files"
[ "$(cat "un/$a1/readme.txt")" = changed ] || fail "without -o the existing file changed"
[ -e "un/$a1/Größe.txt" ] && fail "without -o files were written before the existing one was found"
sfx un "good/$a1/$a1exe" -o || fail "-o failed: $(cat err.txt)"
[ "$(tr -d '\r' <out.txt | sort)" = "$(unzip -Z1 "good/$a1/$a1exe" | sort)" ] || fail "without -q: not each name: $(cat out.txt)"
payload_equal un $a1
# A directory where a file belongs is a write failure, found before the first write.
rm "un/$a1/readme.txt" "un/$a1/Größe.txt" && mkdir "un/$a1/readme.txt"
sfx un "good/$a1/$a1exe" -oq
rc=$?
[ $rc -eq 1 ] || fail "a directory in the way: exit $rc, not 1"
one_error_line "a directory in the way"
[ -e "un/$a1/Größe.txt" ] && fail "a directory in the way was found after the first write"
mkdir large
sfx large "srv/$a1/A1_new.exe" -oq || fail "large payload: $(cat err.txt)"
diff -r -x zt.par -x rel_note.txt -x versionLeaf.txt newfiles "large/$a1" >/dev/null || fail "large payload unpacked wrong"
mkdir listed
sfx listed "good/$a1/$a1exe" -l || fail "-l failed"
[ "$(wc -l <out.txt)" -eq "$(unzip -Z1 "good/$a1/$a1exe" | wc -l)" ] && grep -q "$(size "leaves/$a1/files/readme.txt")  $a1/readme.txt" out.txt ||
  fail "-l does not list: $(cat out.txt)"
[ -z "$(ls -A listed)" ] || fail "-l wrote files"

sfx listed "good/$a1/$a1exe" -x
rc=$?
[ $rc -eq 1 ] || fail "unknown option: exit $rc, not 1"
one_error_line "unknown option"

# Hostile archives: refused as a whole, exit 2, nothing written inside or outside.
for hostile in ../x '..\x' sub/../../x "/${work#/}/abs" '\abs' 'C:\x' 'C:x' symlink:/etc/passwd; do
  rt evil --out evil.exe --stub sfx.exe --entry "$hostile" >/dev/null || fail "evil $hostile failed"
  rm -rf cage && mkdir -p cage/in
  sfx cage/in evil.exe -oq
  rc=$?
  [ $rc -eq 2 ] || fail "hostile entry $hostile: exit $rc, not 2: $(cat err.txt)"
  one_error_line "hostile entry $hostile"
  [ -z "$(ls -A cage/in)" ] && [ "$(ls -A cage)" = in ] || fail "hostile entry $hostile: written: $(find cage)"
done
[ -e "$work/abs" ] && fail "an absolute entry was written"

# Corrupt and truncated packages: exit 1, one line, no half file.
for what in short-package corrupt-package; do
  rm -rf cage && mkdir cage
  sfx cage "b-$what/$nic/$nicexe" -oq
  rc=$?
  [ $rc -eq 1 ] || fail "$what: exit $rc, not 1"
  one_error_line "$what"
  # Whatever was written is whole; the damaged entry is not there, not even under another name.
  while IFS= read -r f; do
    cmp -s "$f" "leaves/$nic/files/${f#cage/"$nic"/}" || fail "$what: a partial file is left: $f"
  done < <(find cage -type f)
  [ -e "cage/$nic/versionLeaf.txt" ] && fail "$what: the package counts as unpacked"
done

# The stub without a zip: exit 1.
rm -rf cage && mkdir cage
sfx cage sfx.exe -oq
rc=$?
[ $rc -eq 1 ] || fail "the stub alone: exit $rc, not 1"
one_error_line "the stub alone"

# A zip with a comment, appended as it is (offsets from the zip's start), a name in code page 437
# (0x84: ä), and names that another tool gave in an Info-ZIP Unicode Path field (0x7075) next to
# an 8-bit name: it counts while its CRC matches the 8-bit name.
mkdir cp437 && printf 'umlaut' >cp437/$'\x84.txt'
(cd cp437 && LC_ALL=C zip -q ../plain.zip $'\x84.txt') && echo 'a comment' | zip -qz plain.zip || fail "no zip"
python3 - <<'PY' || fail "no zip with Unicode Path fields"
import struct, zipfile, zlib
def unicode_path(header_name, name):
    utf8 = name.encode()
    return struct.pack('<HHBI', 0x7075, 5 + len(utf8), 1, zlib.crc32(header_name.encode())) + utf8
with zipfile.ZipFile('plain.zip', 'a') as z:
    for header_name, field_for, data in (('Gr__e.txt', 'Gr__e.txt', 'field'), ('stale.txt', 'other.txt', 'stale')):
        info = zipfile.ZipInfo(header_name)
        info.extra = unicode_path(field_for, 'Grüße.txt' if data == 'field' else 'renamed.txt')
        z.writestr(info, data)
PY
cat sfx.exe plain.zip >plain.exe
rm -rf cage && mkdir cage
sfx cage plain.exe -q || fail "appended zip: $(cat err.txt)"
[ "$(cat cage/ä.txt 2>/dev/null)" = umlaut ] || fail "code page 437 name not converted: $(ls cage)"
[ "$(cat cage/Grüße.txt 2>/dev/null)/$(cat cage/stale.txt 2>/dev/null)" = field/stale ] ||
  fail "Unicode Path fields not honoured as they should: $(ls cage)"

finish
