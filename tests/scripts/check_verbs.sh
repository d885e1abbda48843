#!/usr/bin/env bash
# nwhost check, updates and installed against a small repotool tree that nginx serves and a
# sample machine's inventory that disagrees with it in known ways (older, same, newer, missing,
# version unknown). The module runs in download mode: the first check mirrors the tree, the engine
# compares it with the inventory, and the tables read back by opcode must say what the tree and
# the inventory say, row by row. The text form shows the table and the alert of the new
# components; a second check names no component as new; a component that becomes newer on the
# server is alerted again (nwhost script decodes the alert record); a server path that is not
# there ends the check with the web update's error and its alert.
#
# The module's directories lie in the test's own folder: natively through the registry file,
# under Wine in a private copy of the prefix (nwhost writes the file's keys into its registry).
# shellcheck source-path=SCRIPTDIR source=script_lib.bash
source "$(dirname "$0")/script_lib.bash" "$@"

unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY
# The simulated engine, whatever the environment names.
export EM_MENDER_ENGINE=

REPOTOOL=${EM_REPOTOOL:?EM_REPOTOOL names the tree builder}
STUB=${EM_SFX_STUB:?EM_SFX_STUB names the archive stub}
TOOL=${EM_FILEDOWNLOAD:?EM_FILEDOWNLOAD names the transfer tool}
[ -r "${EM_TEST_SERVERS:-}" ] || { echo "FAIL: EM_TEST_SERVERS must name the servers' servers.env" >&2; exit 1; }
declare -A S=()
while IFS='=' read -r key value; do S[$key]=$value; done <"$EM_TEST_SERVERS"

work=$(mktemp -d)
site=${S[WWW]}/check_verbs.$$
cleanup() {
  [ -n "$RUN" ] && WINEPREFIX=$work/prefix wineserver -k >/dev/null 2>&1
  rm -rf "$work" "$site"
}
trap cleanup EXIT
cd "$work" || exit 1
mkdir -p temp data

run() { if [ -n "$RUN" ]; then "$RUN" "$@"; else "$@"; fi; }
winesc() { local p; p=$(winpath "$1"); echo "${p//\\/\\\\}"; }

if [ -n "$RUN" ]; then
  shared=${WINEPREFIX:-${HOME:-/root}/.wine-em-mender}
  [ -d "$shared" ] || "$RUN" cmd /c exit >/dev/null 2>&1
  cp -a "$shared" "$work/prefix" || { fail "cannot copy the Wine prefix $shared"; finish; }
  export WINEPREFIX=$work/prefix
fi
base='HKEY_LOCAL_MACHINE\SOFTWARE\Hadley Brandt\Management\Node Warden'
printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s\\Setup]\r\n"TempRoot"="%s"\r\n\r\n[%s\\DATA]\r\n"DataRoot"="%s"\r\n' \
  "$base" "$(winesc "$work/temp")" "$base" "$(winesc "$work/data")" >em.reg
MODULE_ARG=$(winpath "$MODULE")
host_args=(--module "$MODULE_ARG" --registry "$(winpath "$work/em.reg")")

# nw VERB ARGS... — RC, OUT and ERR (no CR; Wine's own complaints dropped)
nw() {
  RC=0
  run "$NWHOST" "$1" "${host_args[@]}" "${@:2}" >out.txt 2>err.txt </dev/null || RC=$?
  OUT=$(tr -d '\r' <out.txt)
  ERR=$(tr -d '\r' <err.txt | grep -v '^wine client error:' || true)
}
expect_rc() { [ "$RC" -eq "$2" ] || fail "$1: exit status $RC, expected $2"$'\n'"--- stdout: $OUT"$'\n'"--- stderr: $ERR"; }

# --- the server's tree, the machine, the settings -----------------------------------------------
cp "$STUB" sfx.exe
run "$REPOTOOL" sample --leaves leaves --count 10 >/dev/null || fail "repotool sample failed"
# --client gives the module's work directory the web server's UpdateIndicatorFile.txt.
run "$REPOTOOL" build --leaves leaves --out srv --stub sfx.exe --client temp/EM_MENDER >/dev/null ||
  fail "repotool build failed"
mv srv "$site" || { fail "cannot place the tree below the document root"; finish; }
inventory=data/EM_MENDER/UpdateJob/SimulatedEngine/inventory.txt
mkdir -p "$(dirname "$inventory")"
run "$REPOTOOL" inventory --leaves leaves --out "$inventory" >/dev/null || fail "repotool inventory failed"
# The settings in one start of the module (a Wine start costs seconds): RepositoryAccess,
# UpdAutomaticDownload, DownloadServerAddress, downloadRepositoryPath, ConfUpdAlertMailMewUpdates.
OUT=$(printf '{"op":"request","OC":57346,"OE":%s,"CA":0,"DA":%s}\n' 6721 1 6725 1 6727 "\"127.0.0.1:${S[HTTP_PORT]}\"" \
  6728 "\"/check_verbs.$$\"" 6733 1 | host --registry "$(winpath "$work/em.reg")" 2>/dev/null | tr -d '\r')
[ "$(grep -c '"op":"reply","OC":57346,"ret":1,"ST":0' <<<"$OUT")" -eq 5 ] || fail "the settings were not written: $OUT"

# What the tree and the inventory say: the rows of the table of updates, the installed table,
# the server's severity, the new components, and the checks of a JSON document against them.
expect() {
  python3 - "$@" <<'PY'
import configparser, json, os, re, sys

def version_key(v):
    parts = []
    for element in v.split("."):
        m = re.match(r"[0-9]*", element)
        parts.append((int(m.group(0) or "0"), element[m.end():]))
    return parts

def compare(a, b):
    ka, kb = version_key(a), version_key(b)
    n = max(len(ka), len(kb))
    ka += [(0, "")] * (n - len(ka))
    kb += [(0, "")] * (n - len(kb))
    return (ka > kb) - (ka < kb)

leaves = {}
for folder, _, files in os.walk("leaves"):
    if "leaf.ini" not in files:
        continue
    ini = configparser.ConfigParser(interpolation=None)
    ini.optionxform = str
    ini.read(os.path.join(folder, "leaf.ini"), encoding="utf-8")
    if ini["leaf"]["type"] not in ("F", "C"):
        continue
    rel = os.path.relpath(folder, "leaves").replace(os.sep, "/")
    note = os.path.join(folder, "rel_note.txt")
    leaves[ini["component"]["objectName"]] = (rel, dict(ini["component"]),
                                             open(note, newline="").read().replace("\r", "") if os.path.exists(note) else None)

machine, section = [], None
for line in open(sys.argv[2], encoding="utf-8").read().splitlines():
    if line == "[component]":
        section = {}
        machine.append(section)
    elif section is not None and "=" in line:
        k, v = line.split("=", 1)
        section[k] = v
pack = next(c["version"] for c in machine if c["type"] == "KordSupportPack-Win")

rows = {}
for c in machine:
    if c["type"] == "KordSupportPack-Win" or c["objectName"] not in leaves:
        continue
    rel, comp, note = leaves[c["objectName"]]
    inst, repo = c["version"], comp["version"]
    ranking = 0 if inst == "" else {1: 1, 0: 3, -1: 4}[compare(repo, inst)]
    rows[rel] = {"path": rel, "type": comp["type"], "subType": comp["subtype"], "objectName": comp["objectName"],
                 "repositoryVersion": repo, "installedVersion": inst, "rankingCode": ranking,
                 "severityCode": {"mandatory": 2, "recommended": 1}.get(comp["severity"], 0),
                 "rebootCode": {"no": 0, "immediately": 1, "yes": 2}.get(comp["reboot"], 3),
                 "mandatory": int(comp["mandatory"]), "installTime": int(comp["installTime"]),
                 "prerequire": comp["prerequisite"], "minStepVersion": comp["minStepVersion"],
                 "componentId": comp["pciId"], "kpkPackageVersion": pack, "releaseNote": note, "binaryLoaded": 0}
order = sorted(rows)
upgrades = [rows[p]["severityCode"] for p in order if rows[p]["rankingCode"] in (0, 1)]
severity = 2 if 2 in upgrades else 1 if 1 in upgrades else 0
new = [p for p in order if rows[p]["rankingCode"] == 1]

what = sys.argv[1]
if what == "new":
    print(", ".join(new))
elif what == "severity":
    print(severity)
elif what == "count":
    print(len(rows))
elif what == "document":
    failures = []
    try:
        doc = json.loads(open(sys.argv[3], encoding="utf-8").read())
    except ValueError as e:
        print("the output is no JSON document: %s" % e)
        sys.exit(0)
    for key, want in (("checkRan", True), ("ended", True), ("status", 0), ("statusText", "done"), ("error", 0),
                      ("errorText", "none"), ("severity", severity)):
        if doc.get(key) != want:
            failures.append("%s is %r, expected %r" % (key, doc.get(key), want))
    if not doc.get("date") or not re.fullmatch(r"\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d", doc.get("dateText", "")):
        failures.append("no check date: %r %r" % (doc.get("date"), doc.get("dateText")))
    got = doc.get("updates") or []
    if [r.get("path") for r in got] != order:
        failures.append("update paths %s, expected %s" % ([r.get("path") for r in got], order))
    for row in got:
        want = rows.get(row.get("path"), {})
        for key, value in want.items():
            if row.get(key) != value:
                failures.append("%s: %s is %r, expected %r" % (row["path"], key, row.get(key), value))
        if (row.get("engineError") != 0) != bool(row.get("engineErrorText")):
            failures.append("%s: engineError %r with the text %r" % (row["path"], row.get("engineError"),
                                                                     row.get("engineErrorText")))
        if not isinstance(row.get("downloadSize"), int) or row["downloadSize"] < 1 or not row.get("vendor"):
            failures.append("%s: downloadSize %r, vendor %r" % (row["path"], row.get("downloadSize"), row.get("vendor")))
    installed = [(r.get("type"), r.get("subType"), r.get("version")) for r in doc.get("installed") or []]
    want = [(c["type"], c["subtype"], c["version"]) for c in machine]
    if installed != want:
        failures.append("installed %s, expected %s" % (installed, want))
    if doc.get("alerts") != []:
        failures.append("alerts %r, expected none: no component is new since the last check" % doc.get("alerts"))
    print("\n".join(failures))
PY
}
rows=$(expect count "$inventory")
[ "$rows" -ge 5 ] || fail "the sample gives $rows rows of updates; the test wants at least five"

# --- refusals before any check: usage errors (2, nothing on standard output), no module (1) ------------
for args in "--no-check" "--timeout 0" "--timeout soon" "--tool" "--json extra"; do
  read -ra words <<<"$args"
  nw check "${words[@]}"
  expect_rc "check $args" 2
  [ -z "$OUT" ] || fail "check $args printed on standard output: $OUT"
done
RC=0
run "$NWHOST" check --module "$(winpath "$work/none.so")" --registry "$(winpath "$work/em.reg")" >out.txt 2>/dev/null ||
  RC=$?
[ "$RC" -eq 1 ] && [ ! -s out.txt ] || fail "check with a module file that is not there: exit status $RC, $(cat out.txt)"

# --- the first check, as people see it ----------------------------------------------------------
nw check --tool "$(winpath "$TOOL")" --progress --timeout 300
expect_rc "the first check" 0
cmp -s "$TOOL" "temp/EM_MENDER/$(basename "$TOOL")" || fail "the transfer tool was not copied into the work directory"
cmp -s "$site/versionTree.txt" data/EM_MENDER/UpdateRepository/versionTree.txt ||
  fail "the check did not mirror the server's tree into the repository"
grep -Eq '^PATH +TYPE +INSTALLED -> REPOSITORY +RANKING +SEVERITY +REBOOT +BINARY +DOWNLOAD$' <<<"$OUT" ||
  fail "no header of the table of updates:"$'\n'"$OUT"
expect_line "$OUT" "Updates: $rows"
[ "$(grep -c '^[A-Z]*/' <<<"$OUT")" -eq "$rows" ] || fail "not $rows rows in the table:"$'\n'"$OUT"
expect_line "$OUT" "alert 0x290000 new components available: $(expect new "$inventory")"
expect_line "$OUT" "Check status:     done (0)"
expect_line "$OUT" "Check error:      none (0)"
severity=$(expect severity "$inventory")
grep -Eq "^Server severity: +[a-z]+ \($severity\)$" <<<"$OUT" || fail "server severity is not $severity:"$'\n'"$OUT"
# The progress echoes the check log, to its last line (written just before the log is renamed).
grep -Fq 'Start creation of new update management data' <<<"$ERR" || fail "no check log in the progress: $ERR"
grep -Fq 'End creation of new update management data.' <<<"$ERR" || fail "the progress misses the log's end: $ERR"

# --- the second check, for programs ---------------------------------------------------------------
nw check --json --timeout 300
expect_rc "the check with --json" 0
cp out.txt document.json
problems=$(expect document "$inventory" document.json)
[ -z "$problems" ] || fail "the JSON document disagrees with the tree and the inventory:"$'\n'"$problems"

# --- the tables without a check, and the installed table after one ---------------------------------
nw updates --no-check
expect_rc "updates --no-check" 0
expect_line "$OUT" "No check has run in this process: the module publishes its tables only after one."
nw installed --no-check --json
expect_rc "installed --no-check --json" 0
python3 -c 'import json, sys; d = json.load(sys.stdin); sys.exit(0 if not d["checkRan"] and d["date"] == 0 and d["installed"] == [] else 1)' \
  <<<"$OUT" || fail "installed --no-check --json: $OUT"
nw installed --timeout 300
expect_rc "installed" 0
expect_line "$OUT" "Installed components: $(grep -c '^\[component\]' "$inventory")"
grep -Eq '^TYPE +SUBTYPE +VERSION +PCI ID +SUPPORT PACK$' <<<"$OUT" || fail "no header of the installed table: $OUT"
expect_no_match "$OUT" '^PATH '

# --- a component that becomes newer on the server: its alert, as nwhost script decodes it ----------
downgrade=$(python3 -c 'import json, sys; print(next(r["path"] for r in json.load(open(sys.argv[1]))["updates"] if r["rankingCode"] == 4))' document.json)
run "$REPOTOOL" bump --out "$site" --leaf "$downgrade" --component-version 99.0.0 --stub sfx.exe >/dev/null ||
  fail "repotool bump failed"
# nwhost script leaves the current directory as it is: the mirror finds the transfer tool and the
# indicator file in the work directory when the module runs there (nwhost check changes into it).
OUT=$(printf '%s\n' '{"op":"request","OC":13105,"CA":0}' '{"op":"wait","OC":13120,"timeout_ms":300000}' |
  (cd temp/EM_MENDER && host --registry "$(winpath "$work/em.reg")" 2>/dev/null) | tr -d '\r')
event=$(grep -n '"op":"event","OC":13121' <<<"$OUT" | head -n1 | cut -d: -f1)
if [ -z "$event" ]; then
  fail "nwhost script saw no alert event:"$'\n'"$OUT"
else
  alert=$(sed -n "$((event + 1))p" <<<"$OUT")
  [[ "$alert" =~ ^\{\"op\":\"alert\",\"number\":2686976,\"severity\":0,\"platform\":4,\"time\":[0-9]+,\"args\":\[\"$downgrade\"\]\}$ ]] ||
    fail "the line after the alert event is not the decoded alert of $downgrade: $alert"
fi
expect_no_match "$OUT" '"op":"timeout"'

# --- a server path that is not there: the web update's error and its alert ------------------------
nw config set downloadRepositoryPath /check_verbs.none
# The mirror pauses before it tries again; the time scale shortens the module's waits.
EM_MENDER_TIME_SCALE=50 nw check --json --timeout 300
expect_rc "a check against a missing server path" 0
python3 - "$OUT" <<'PY' || fail "the check against a missing server path: $OUT"
import json, sys
d = json.loads(sys.argv[1])
assert d["status"] == 1 and d["error"] == 5, (d["status"], d["error"])
assert d["errorText"] == "updating the repository from the web server failed"
assert [(a["number"], a["args"]) for a in d["alerts"]] == [(2686977, [])], d["alerts"]
PY

finish
