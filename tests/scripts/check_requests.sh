#!/usr/bin/env bash
# The update check through the loaded module, as a requester drives it with nwhost script against a
# tree that repotool builds and nginx serves: the answers before any check; a check started with
# CM_UmServerStartCheck that mirrors the tree, ends with CM_UmDataChanged and announces the new
# components once; every field opcode of every row against the sample's leaves and inventory; a
# changed tree followed by the next check; an unchanged tree; and a server that
# cannot be reached (error 5, status 1, the alert, fresh data from the repository as it was).
# shellcheck source-path=SCRIPTDIR source=script_lib.bash
source "$(dirname "$0")/script_lib.bash" "$@"

unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY EM_MENDER_CA_FILE
# The transfer utilities' retry waits of an unreachable server, shortened.
export EM_MENDER_TIME_SCALE=50

REPOTOOL=${EM_REPOTOOL:?EM_REPOTOOL names the tree builder}
STUB=${EM_SFX_STUB:?EM_SFX_STUB names the archive stub}
TOOL=${EM_FILEDOWNLOAD:?EM_FILEDOWNLOAD names the transfer tool}
[ -r "${EM_TEST_SERVERS:-}" ] || { echo "FAIL: EM_TEST_SERVERS must name the servers' servers.env" >&2; exit 1; }
declare -A S=()
while IFS='=' read -r key value; do S[$key]=$value; done <"$EM_TEST_SERVERS"

work=$(mktemp -d)
name=check_requests.$$
site=${S[WWW]}/$name
cleanup() {
  [ -n "$RUN" ] && WINEPREFIX=$work/prefix wineserver -k >/dev/null 2>&1
  [ -n "${KEEP:-}" ] || rm -rf "$work" "$site"; [ -n "${KEEP:-}" ] && echo "kept $work" >&2
}
trap cleanup EXIT
mkdir -p "$work/temp/EM_MENDER" "$work/data/EM_MENDER/UpdateJob/SimulatedEngine" "$work/repo"

run() { if [ -n "$RUN" ]; then "$RUN" "$@"; else "$@"; fi; }
winesc() { local p; p=$(winpath "$1"); echo "${p//\\/\\\\}"; }

# The module's directories below the test's folder: natively through the registry file, under
# Wine in a private copy of the prefix. The transfer tool runs from the host's current directory,
# as it lies beside the agent in the field.
base='HKEY_LOCAL_MACHINE\SOFTWARE\Hadley Brandt\Management\Node Warden'
if [ -n "$RUN" ]; then
  shared=${WINEPREFIX:-${HOME:-/root}/.wine-em-mender}
  [ -d "$shared" ] || "$RUN" cmd /c exit >/dev/null 2>&1
  cp -a "$shared" "$work/prefix" || { fail "cannot copy the Wine prefix $shared"; finish; }
  export WINEPREFIX=$work/prefix
  "$RUN" reg add "$base\\Setup" /v TempRoot /t REG_SZ /d "$(winpath "$work/temp")" /f >/dev/null 2>&1 ||
    fail "cannot write TempRoot into the private prefix"
  "$RUN" reg add "$base\\DATA" /v DataRoot /t REG_SZ /d "$(winpath "$work/data")" /f >/dev/null 2>&1 ||
    fail "cannot write DataRoot into the private prefix"
  cp "$TOOL" "$work/FileDownLoad.exe"
else
  printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s\\Setup]\r\n"TempRoot"="%s"\r\n\r\n[%s\\DATA]\r\n"DataRoot"="%s"\r\n' \
    "$base" "$(winesc "$work/temp")" "$base" "$(winesc "$work/data")" >"$work/settings.reg"
  export NODEWARDEN_REGISTRY=$work/settings.reg
  cp "$TOOL" "$work/FileDownLoad"
fi
# shellcheck disable=SC2034  # read by host(): the module's path as the private prefix names it
MODULE_ARG=$(winpath "$MODULE")

# --- the sample: eight leaves on the server, the machine's inventory beside the engine ----------
cd "$work" || exit 1
cp "$STUB" sfx.exe
run "$REPOTOOL" sample --leaves leaves --count 8 >/dev/null || fail "repotool sample failed"
run "$REPOTOOL" build --leaves leaves --out srv --stub sfx.exe --client . >/dev/null || fail "repotool build failed"
run "$REPOTOOL" inventory --leaves leaves --out inventory.txt >/dev/null || fail "repotool inventory failed"
cp inventory.txt "$work/data/EM_MENDER/UpdateJob/SimulatedEngine/inventory.txt"
mv srv "$site" || { fail "cannot place the tree below the document root"; finish; }

repo=$(winpath "$work/repo")
web=127.0.0.1:${S[HTTP_PORT]}
req() { printf '{"op":"request","OC":%d,"OE":%d,"OI":%d,"CA":0%s}\n' "$1" "${2:-0}" "${3:-0}" "${4:+,\"DA\":$4}"; }
jstr() { python3 -c 'import json,sys; print(json.dumps(sys.argv[1]))' "$1"; }
# A walk of every field opcode for rows 0 to 11 (more than the sample has) and of the inventory.
walk() {
  req 13056
  for oi in $(seq 0 11); do
    for oc in 13057 13058 13059 13060 13061 13062 13064 13065 13066 13067 13068 13069 13070 13072 13073 13074 \
      13075 13076 13077 13078 13079; do
      req "$oc" 0 "$oi"
    done
  done
  req 13200
  for oi in $(seq 0 11); do for oc in 13202 13203 13204 13205 13206; do req "$oc" 0 "$oi"; done; done
  for oc in 13104 13106 13109 13110 13111; do req "$oc"; done
}
# mark TEXT — a line in the output that cuts it into sections: an opcode nobody serves comes back
# with ST 1 and the data it carried.
mark() { printf '{"op":"request","OC":57347,"DA":"%s"}\n' "$1"; }
check_and_wait() {
  echo '{"op":"request","OC":13105}'
  echo '{"op":"wait","OC":13120,"timeout_ms":300000}'
}

{
  # Before any check.
  req 13056
  req 13057 0 0
  req 13104
  req 13109
  mark configure
  req 57346 6721 0 1
  req 57346 6720 0 "$(jstr "$repo")"
  req 57346 6725 0 1
  req 57346 6727 0 "\"$web\""
  req 57346 6728 0 "\"/$name\""
  req 57346 6733 0 1
  mark first
  check_and_wait
  walk
  mark unchanged
  check_and_wait
  walk
} >"$work/in1.jsonl"

# The server's tree changes between two runs of the module; the settings stay in the module's
# configuration space, and the repository on disk.
changed=$(find leaves -name leaf.ini | sort | head -1)
changed=${changed#leaves/}
changed=${changed%/leaf.ini}
{
  mark changed
  check_and_wait
  walk
  mark unreachable
  req 57346 6727 0 '"127.0.0.1:9"'
  check_and_wait
  walk
} >"$work/in2.jsonl"

host <"$work/in1.jsonl" 2>"$work/err1.txt" | tr -d '\r' >"$work/out1.jsonl"
run "$REPOTOOL" bump --out "$site" --leaf "$changed" --component-version 77.7.7 --stub sfx.exe >/dev/null ||
  fail "repotool bump failed"
host <"$work/in2.jsonl" 2>"$work/err2.txt" | tr -d '\r' >"$work/out2.jsonl"

python3 - "$work" "$changed" <<'EOF' || FAILURES=$((FAILURES + 1))
import json, os, sys

work, changed = sys.argv[1], sys.argv[2]
failures = []

def fail(text):
    failures.append(text)

def lines(name):
    out = []
    with open(os.path.join(work, name), encoding="utf-8") as f:
        for raw in f:
            raw = raw.strip()
            if raw:
                out.append(json.loads(raw))
    return out

def sections(records):
    """Replies, events and alerts cut at the notes the input carried."""
    cut, name = {}, "start"
    cut[name] = []
    for r in records:
        if r.get("op") == "reply" and r.get("OC") == 57347:
            name = r.get("DA")
            cut[name] = []
        else:
            cut[name].append(r)
    return cut

# What the sample says: component descriptions of the leaves, the installed components.
def component_section(path):
    values, inside = {}, False
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            line = line.strip()
            if line.startswith("["):
                inside = line == "[component]"
            elif inside and "=" in line:
                k, v = line.split("=", 1)
                values[k.strip()] = v.strip()
    return values

leaves = {}
for top, dirs, files in os.walk(os.path.join(work, "leaves")):
    if "leaf.ini" in files:
        rel = os.path.relpath(top, os.path.join(work, "leaves")).replace(os.sep, "/")
        leaves[rel] = component_section(os.path.join(top, "leaf.ini"))
installed = {}
current = None
with open(os.path.join(work, "inventory.txt"), encoding="utf-8") as f:
    for line in f:
        line = line.strip()
        if line == "[component]":
            current = {}
        elif current is not None and "=" in line:
            k, v = line.split("=", 1)
            current[k] = v
            if "objectName" in current and "version" in current:
                installed[current["objectName"]] = current["version"]

def walk(records):
    """The walk's replies by (opcode, OI); the reply order is the request order."""
    replies = [r for r in records if r.get("op") == "reply" and r.get("OC") not in (13105, 57346)]
    table, i = {}, 0
    count = replies[i]; i += 1
    n = count.get("DA", -1)
    for oi in range(12):
        for oc in (13057, 13058, 13059, 13060, 13061, 13062, 13064, 13065, 13066, 13067, 13068, 13069, 13070,
                   13072, 13073, 13074, 13075, 13076, 13077, 13078, 13079):
            table[(oc, oi)] = replies[i]; i += 1
    ninst = replies[i].get("DA", -1); i += 1
    for oi in range(12):
        for oc in (13202, 13203, 13204, 13205, 13206):
            table[(oc, oi)] = replies[i]; i += 1
    server = {}
    for oc in (13104, 13106, 13109, 13110, 13111):
        server[oc] = replies[i]; i += 1
    return n, ninst, table, server

def events(records, oc):
    return [r for r in records if r.get("op") == "event" and r.get("OC") == oc]

def alerts(records):
    return [r for r in records if r.get("op") == "alert"]

def check_rows(label, n, table, component_version=None):
    if not (0 < n < 12):
        fail(f"{label}: {n} rows")
        return {}
    rows = {}
    for oi in range(12):
        path = table[(13057, oi)]
        if oi >= n:
            if path.get("ST") != 2:
                fail(f"{label}: OI {oi} of {n} rows answered ST {path.get('ST')}")
            continue
        for oc in (13057, 13058, 13059, 13060, 13061, 13062, 13064, 13065, 13066, 13067, 13068, 13069, 13070, 13072,
                   13073, 13074, 13075, 13077, 13078, 13079):
            if table[(oc, oi)].get("ST") != 0:
                fail(f"{label}: opcode {oc} OI {oi} answered ST {table[(oc, oi)].get('ST')}")
        if table[(13076, oi)].get("ST") not in (0, 19):
            fail(f"{label}: release note of OI {oi} answered ST {table[(13076, oi)].get('ST')}")
        rel = path.get("DA")
        desc = leaves.get(rel)
        rows[rel] = oi
        if desc is None:
            fail(f"{label}: row {oi} names {rel!r}, which is no leaf of the sample")
            continue
        want_version = desc.get("version")
        if component_version and rel == changed:
            want_version = component_version
        if table[(13060, oi)].get("DA") != want_version:
            fail(f"{label}: {rel} repository version {table[(13060, oi)].get('DA')!r}, leaf says {want_version!r}")
        obj = table[(13062, oi)].get("DA")
        if obj != desc.get("objectName"):
            fail(f"{label}: {rel} object name {obj!r}, leaf says {desc.get('objectName')!r}")
        if obj not in installed:
            fail(f"{label}: {rel} applies to {obj!r}, which the machine does not have")
        elif table[(13061, oi)].get("DA") != installed[obj]:
            fail(f"{label}: {rel} installed version {table[(13061, oi)].get('DA')!r}, inventory says {installed[obj]!r}")
        sev = {"optional": 0, "recommended": 1, "mandatory": 2}.get(desc.get("severity", ""), None)
        if sev is not None and table[(13067, oi)].get("DA") != sev:
            fail(f"{label}: {rel} severity code {table[(13067, oi)].get('DA')} for {desc.get('severity')}")
        if table[(13077, oi)].get("DA") != "Corvane Works":
            fail(f"{label}: {rel} vendor {table[(13077, oi)].get('DA')!r}")
    # Every installed component with a package of the sample has its row.
    expected = sorted(rel for rel, d in leaves.items() if d.get("objectName") in installed)
    if sorted(rows) != expected:
        fail(f"{label}: rows {sorted(rows)}, the sample and the inventory give {expected}")
    return rows

s1 = sections(lines("out1.jsonl"))
s2 = sections(lines("out2.jsonl"))

before = [r for r in s1["start"] if r.get("op") == "reply"]
if len(before) != 4:
    fail(f"before the first check: {len(before)} replies")
else:
    if before[0].get("ST") != 0 or before[0].get("DA") != 0:
        fail(f"entries before a check: {before[0]}")
    if before[1].get("ST") != 2:
        fail(f"a path before a check: {before[1]}")
    if before[2].get("DA") != 3:
        fail(f"severity before a check: {before[2]}")
    if before[3].get("ST") != 19:
        fail(f"check log before a check: {before[3]}")
for r in s1["configure"]:
    if r.get("op") == "reply" and r.get("ST") != 0:
        fail(f"setting refused: {r}")

# The first check: mirrored, compared, announced.
first = s1["first"]
changed_events = events(first, 13120)
if len(changed_events) != 1 or changed_events[0].get("DA") != 1:
    fail(f"first check: CM_UmDataChanged {changed_events}")
new = [a for a in alerts(first) if a.get("number") == 0x290000]
if len(new) != 1:
    fail(f"first check: {len(new)} new-component alerts: {alerts(first)}")
n, ninst, table, server = walk(first)
rows = check_rows("first check", n, table)
if new and rows:
    listed = (new[0].get("args") or [""])[0]
    if not any(rel in listed for rel in rows):
        fail(f"first check: the alert lists none of the rows: {listed!r}")
if server[13110].get("DA") != 0 or server[13111].get("DA") != 0:
    fail(f"first check: status {server[13110]} error {server[13111]}")
log = server[13109].get("DA", "")
for text in ("update of repository from web server ok.", "Creation of new update management data ok."):
    if text not in log:
        fail(f"first check's log lacks {text!r}")
if ninst < 1:
    fail(f"first check: {ninst} installed components")
if server[13104].get("DA") not in (0, 1, 2):
    fail(f"first check: severity {server[13104]}")

# Nothing changed on the server: the mirror fetches nothing and nothing new is announced. The tree
# update answers 0 for "not necessary" as for a done update, so the data byte still says 1.
same = s1["unchanged"]
ev = events(same, 13120)
if len(ev) != 1 or ev[0].get("DA") != 1:
    fail(f"unchanged tree: CM_UmDataChanged {ev}")
if [a for a in alerts(same) if a.get("number") == 0x290000]:
    fail("unchanged tree: new components announced again")
n2, _, table2, server2 = walk(same)
if n2 != n:
    fail(f"unchanged tree: {n2} rows after {n}")
if "Updating is not necessary!" not in server2[13109].get("DA", ""):
    fail("unchanged tree: the log does not say the update was not necessary")

# The next run of the module, after the server changed one leaf's component version.
ch = s2["changed"]
ev = events(ch, 13120)
if len(ev) != 1 or ev[0].get("DA") != 1:
    fail(f"changed tree: CM_UmDataChanged {ev}")
n3, _, table3, server3 = walk(ch)
rows3 = check_rows("changed tree", n3, table3, component_version="77.7.7")
if changed in leaves and leaves[changed].get("objectName") in installed and changed not in rows3:
    fail(f"changed tree: no row for {changed}")

# The server cannot be reached: error 5, status 1, the alert, and data from the repository as it is.
un = s2["unreachable"]
if len([r for r in un if r.get("op") == "reply" and r.get("OC") == 57346 and r.get("ST") == 0]) != 1:
    fail("unreachable: the server setting was not taken")
ev = events(un, 13120)
if len(ev) != 1:
    fail(f"unreachable: CM_UmDataChanged {ev}")
if len([a for a in alerts(un) if a.get("number") == 0x290001]) != 1:
    fail(f"unreachable: alerts {alerts(un)}")
n4, _, table4, server4 = walk(un)
if server4[13111].get("DA") != 5 or server4[13110].get("DA") != 1:
    fail(f"unreachable: error {server4[13111]} status {server4[13110]}")
check_rows("unreachable", n4, table4, component_version="77.7.7")
if "update of repository from web server failed." not in server4[13109].get("DA", ""):
    fail("unreachable: the log does not say the update failed")

for f in failures:
    print("FAIL:", f, file=sys.stderr)
sys.exit(1 if failures else 0)
EOF
[ -s "$work/err1.txt" ] && grep -q . "$work/err1.txt" && echo "nwhost said: $(cat "$work/err1.txt")" >&2
finish
