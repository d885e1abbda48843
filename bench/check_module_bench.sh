#!/usr/bin/env bash
# The update check through the loaded module, measured three ways:
#   (1) walk   a requester's walk of a full table (199 rows: every field opcode of every row) through
#              the module's routed request path, in-process (table_walk_bench, Google Benchmark), on
#              a local repository and an inventory made for exactly that many rows;
#   (2) check  a check on an up-to-date mirror: nginx serves a repotool tree of LEAVES leaves, a
#              first check mirrors it, then RUNS more checks find it up to date; each one timed from
#              CM_UmServerStartCheck to CM_UmDataChanged (as the requester sees it, and by the
#              trace's stamps) and split into tree update, comparison and swap by the check's own
#              trace line;
#   (3) idle   the started module with its scheduler thread, idle: resident memory above a bare
#              host process, and over IDLE seconds its CPU time and wake-ups (context switches of
#              all its threads).
#
#   bench/check_module_bench.sh [options]
#     --build DIR      a release build holding nwhost, libEM_MENDER.so, FileDownLoad, repotool, the
#                      archive stub and bench/table_walk_bench (default build/release); nothing is
#                      built
#     --leaves N       leaves of the sample tree (default 2000)
#     --max N          installed components of the machine (repotool inventory --max), chosen so
#                      that the sample gives 199 rows (default 200)
#     --rows N         the rows the walk insists on (default 199)
#     --runs N         timed up-to-date checks (default 5)
#     --idle SECONDS   length of the idle measurement (default 60)
#     --servers DIR    use the test servers of this state directory (tests/support/servers.py up
#                      --state DIR) instead of starting private ones
#     --no-walk, --no-check, --no-idle   leave that measurement out
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)

usage() {
  sed -n '/^#   bench/,/^set -e/p' "$0" | sed '$d; s/^# \{0,1\}//' >&2
  exit 2
}
build=$root/build/release leaves=2000 max=200 rows=199 runs=5 idle=60 servers=''
do_walk=1 do_check=1 do_idle=1
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=${2:?}; shift 2 ;;
    --leaves) leaves=${2:?}; shift 2 ;;
    --max) max=${2:?}; shift 2 ;;
    --rows) rows=${2:?}; shift 2 ;;
    --runs) runs=${2:?}; shift 2 ;;
    --idle) idle=${2:?}; shift 2 ;;
    --servers) servers=$(cd "${2:?}" && pwd); shift 2 ;;
    --no-walk) do_walk=0; shift ;;
    --no-check) do_check=0; shift ;;
    --no-idle) do_idle=0; shift ;;
    *) usage ;;
  esac
done
for n in "$leaves" "$max" "$rows" "$runs" "$idle"; do
  [[ $n =~ ^[1-9][0-9]*$ ]] || { echo "not a positive number: $n" >&2; usage; }
done
build=$(cd "$build" 2>/dev/null && pwd) || { echo "no build directory $build" >&2; exit 2; }
nwhost=$build/nwhost
module=$build/libEM_MENDER.so
tool=$build/tools/filedownload/FileDownLoad
repotool=$build/tools/repotool/repotool
stub=$build/tools/sfx/sfx.exe
walker=$build/bench/table_walk_bench
for f in "$nwhost" "$module" "$tool" "$repotool" "$stub" "$walker"; do
  [ -f "$f" ] || {
    echo "missing $f (cmake --preset release && cmake --build --preset release --target nwhost EM_MENDER FileDownLoad repotool em_sfx_stub table_walk_bench)" >&2
    exit 2
  }
done
if grep -q '^CMAKE_BUILD_TYPE:[A-Z]*=Debug' "$build/CMakeCache.txt" 2>/dev/null ||
  grep -q '^EM_SANITIZE:BOOL=ON' "$build/CMakeCache.txt" 2>/dev/null; then
  echo "warning: $build is a debug or sanitizer build; the figures are not those of a release" >&2
fi
command -v unzip >/dev/null || { echo "unzip missing (scripts/install-deps.sh)" >&2; exit 2; }
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY EM_MENDER_CA_FILE
unset EM_MENDER_TIME_SCALE EM_MENDER_ENGINE NODEWARDEN_REGISTRY

state=$(mktemp -d)
own_servers=''
site=''
cleanup() {
  [ -n "$site" ] && rm -rf "$site"
  [ -n "$own_servers" ] && python3 "$root/tests/support/servers.py" down --state "$own_servers" >/dev/null 2>&1
  rm -rf "$state"
}
trap cleanup EXIT
load() { cut -d' ' -f1-3 /proc/loadavg; }
echo "machine: $(nproc) cores; load at start: $(load)"

# registry FILE DATAROOT TEMPROOT [TRACE] — the module's folders, and with TRACE the trace at level 2
# on standard error with time stamps (docs/trace.md).
registry() {
  local base='HKEY_LOCAL_MACHINE\SOFTWARE\Hadley Brandt\Management\Node Warden'
  mkdir -p "$2" "$3"
  {
    printf 'Windows Registry Editor Version 5.00\r\n\r\n'
    printf '[%s\\DATA]\r\n"DataRoot"="%s"\r\n\r\n[%s\\Setup]\r\n"TempRoot"="%s"\r\n' "$base" "$2" "$base" "$3"
    if [ -n "${4:-}" ]; then
      printf '\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Debug\\EM_MENDER]\r\n"ConDebugLevel"=dword:00000002\r\n'
      printf '"TimeStampOn"=dword:00000001\r\n'
    fi
  } >"$1"
}
engine_inventory() { echo "$1/EM_MENDER/UpdateJob/SimulatedEngine/inventory.txt"; }

# --- the sample: leaves, the server's tree, the machine ------------------------------------------
"$repotool" sample --leaves "$state/leaves" --count "$leaves" >/dev/null
mkdir -p "$state/agent"
"$repotool" build --leaves "$state/leaves" --out "$state/tree" --stub "$stub" --client "$state/agent" >/dev/null
"$repotool" inventory --leaves "$state/leaves" --out "$state/inventory.txt" --max "$max" >/dev/null
cp "$tool" "$state/agent/"
echo "sample: $leaves leaves; machine: $(grep -c '^\[component\]' "$state/inventory.txt") installed components (--max $max)"

# --- (1) the walk --------------------------------------------------------------------------------
if ((do_walk)); then
  # The repository as the mirror leaves it: every leaf's information files, and every tenth
  # package fetched beside them (as bench/check_bench.sh makes it).
  w=$state/walk
  mkdir -p "$w/repo"
  unzip -q "$state/tree/ZT_par_tree.exe" -d "$w/repo"
  n=0
  while IFS=$'\t' read -r path _ exe _ type _; do
    [[ $path == \#* || $type == L ]] && continue
    n=$((n + 1))
    if ((n % 10 == 0)); then cp "$state/tree/$path/$exe" "$w/repo/$path/"; fi
  done < <(unzip -p "$state/tree/versionAll.exe" versionAll.txt | tr -d '\r')
  registry "$w/settings.reg" "$w/data" "$w/temp"
  inv=$(engine_inventory "$w/data")
  mkdir -p "$(dirname "$inv")"
  cp "$state/inventory.txt" "$inv"
  echo
  echo "(1) walk of the table, in-process through CUpdateExtensionModule::ApplicationRequest; load $(load)"
  (cd "$w" && NODEWARDEN_REGISTRY=$w/settings.reg EM_TABLE_WALK_REPOSITORY=$w/repo EM_TABLE_WALK_ROWS=$rows \
    ${TABLE_WALK_WRAPPER:-} "$walker" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true)
  echo "    load after the walk: $(load)"
fi

# --- (2) the check on an up-to-date mirror -------------------------------------------------------
if ((do_check)); then
  if [ -z "$servers" ]; then
    own_servers=$state/servers
    python3 "$root/tests/support/servers.py" up --state "$own_servers" >/dev/null
    servers=$own_servers
  fi
  declare -A S=()
  while IFS='=' read -r key value; do S[$key]=$value; done <"$servers/servers.env"
  name=check_module_bench.$$
  site=${S[WWW]}/$name
  cp -r "$state/tree" "$site"
  c=$state/check
  registry "$c/settings.reg" "$c/data" "$c/temp" trace
  inv=$(engine_inventory "$c/data")
  mkdir -p "$(dirname "$inv")" "$c/repo"
  cp "$state/inventory.txt" "$inv"
  echo
  echo "(2) checks through nwhost script against nginx (http://127.0.0.1:${S[HTTP_PORT]}/$name); load $(load)"
  python3 - "$nwhost" "$module" "$c/settings.reg" "$state/agent" "$c/repo" "127.0.0.1:${S[HTTP_PORT]}" "/$name" \
    "$runs" "$c/trace.txt" "$servers/logs/nginx-access.log" <<'EOF'
import json, os, re, statistics, subprocess, sys, time

nwhost, module, reg, agent, repo, web, path, runs, trace, access_log = sys.argv[1:11]
runs = int(runs)

def requests():
    """Requests nginx logged for the tree so far."""
    try:
        with open(access_log, encoding="utf-8", errors="replace") as f:
            return sum(1 for line in f if '"GET ' + path + "/" in line)
    except OSError:
        return 0

def fail(text):
    print("check_module_bench: " + text, file=sys.stderr)
    sys.exit(1)

err = open(trace, "w")
# The host runs in the agent's working location: the transfer tool and UpdateIndicatorFile.txt.
host = subprocess.Popen([nwhost, "script", "--module", module, "--registry", reg], cwd=agent, stdin=subprocess.PIPE,
                        stdout=subprocess.PIPE, stderr=err, text=True, bufsize=1)

def send(obj):
    host.stdin.write(json.dumps(obj) + "\n")
    host.stdin.flush()

def read():
    line = host.stdout.readline()
    if not line:
        fail("nwhost ended early; its standard error is in " + trace)
    return json.loads(line)

def ask(oc, oe=0, oi=0, da=None):
    cmd = {"op": "request", "OC": oc, "OE": oe, "OI": oi, "CA": 0}
    if da is not None:
        cmd["DA"] = da
    send(cmd)
    while True:
        r = read()
        if r.get("op") == "reply":
            return r

for oe, value in ((6721, 1), (6720, repo), (6725, 1), (6727, web), (6728, path)):
    if ask(0xE002, oe, 0, value).get("ST") != 0:
        fail("setting %d refused" % oe)

walls, fetched = [], []
for k in range(runs + 1):
    logged = requests()
    send({"op": "request", "OC": 13105, "CA": 0})
    send({"op": "wait", "OC": 13120, "timeout_ms": 1800000})
    t0 = time.monotonic()
    while True:
        r = read()
        if r.get("op") == "timeout":
            fail("no CM_UmDataChanged within 30 minutes")
        if r.get("op") == "event" and r.get("OC") == 13120:
            walls.append((time.monotonic() - t0) * 1000.0)
            break
    status, error = ask(13110).get("DA"), ask(13111).get("DA")
    log = ask(13109).get("DA", "")
    n = ask(13056).get("DA")
    fetched.append(requests() - logged)
    if status != 0 or error != 0:
        fail("check %d ended with status %s, error %s:\n%s" % (k, status, error, log))
    if k > 0 and "Updating is not necessary!" not in log:
        fail("check %d did not find the mirror up to date:\n%s" % (k, log))
    if k == 0:
        print("    first check (mirror of the tree): %.0f ms, %s rows, %d requests to nginx" % (walls[0], n, fetched[0]))
host.stdin.close()
host.wait()
err.close()

# The stamps of the trace: the request, the check's own split, the event.
stamp = re.compile(r"\[(\d\d):(\d\d):(\d\d)\.(\d\d\d)\] (.*)")
times = re.compile(r"times \(ms\): tree update (\d+), comparison (\d+), swap (\d+)")
checks, current = [], None
with open(trace, encoding="utf-8", errors="replace") as f:
    for line in f:
        m = stamp.search(line)
        if not m:
            continue
        ms = ((int(m[1]) * 60 + int(m[2])) * 60 + int(m[3])) * 1000 + int(m[4])
        text = m[5]
        if "call umScheduler.setEvent for starting once immediately" in text:
            current = {"request": ms}
        elif current is not None and "UM_Check::createData()" in text and ": START" in text:
            current["start"] = ms
        elif current is not None and times.search(text):
            current["split"] = [int(v) for v in times.search(text).groups()]
        elif current is not None and "send CM_UmDataChanged" in text:
            current["event"] = ms
            checks.append(current)
            current = None
trace_lines = sum(1 for _ in open(trace, encoding="utf-8", errors="replace"))
if len(checks) != runs + 1 or any("split" not in c or "start" not in c for c in checks):
    fail("the trace holds %d whole checks, not %d (%s)" % (len(checks), runs + 1, trace))

def med(values):
    return statistics.median(values)

timed = checks[1:]
day = 86400000
rows = [
    ("CM_UmServerStartCheck -> CM_UmDataChanged, requester", walls[1:]),
    ("  the same by the trace's stamps", [(c["event"] - c["request"]) % day for c in timed]),
    ("  request -> createData START (scheduler's wake-up)", [(c["start"] - c["request"]) % day for c in timed]),
    ("  tree update", [c["split"][0] for c in timed]),
    ("  comparison (engine, inventory, result files)", [c["split"][1] for c in timed]),
    ("  swap", [c["split"][2] for c in timed]),
]
print("    up-to-date checks: medians of %d (ms); the first check took %.0f ms by the stamps" %
      (runs, (checks[0]["event"] - checks[0]["request"]) % day))
for label, values in rows:
    print("    %-56s %8.0f   runs: %s" % (label, med(values), " ".join("%.0f" % v for v in values)))
print("    requests to nginx per up-to-date check: %s" % " ".join(str(v) for v in fetched[1:]))
print("    trace: %d lines on standard error at level 2 for the %d checks" % (trace_lines, runs + 1))
EOF
  echo "    load after the checks: $(load)"
fi

# --- (3) the idle module -------------------------------------------------------------------------
if ((do_idle)); then
  d=$state/idle
  registry "$d/settings.reg" "$d/data" "$d/temp"
  mkdir -p "$d/agent"
  cp "$tool" "$d/agent/"
  mkfifo "$d/fifo"
  echo
  echo "(3) idle module: nwhost script with the module started and idle, beside a bare nwhost (xml verb blocked"
  echo "    on opening a FIFO: same program and libraries, no module file); load $(load)"
  python3 - "$nwhost" "$module" "$d/settings.reg" "$d/agent" "$d/fifo" "$idle" "$d/stderr.txt" <<'EOF'
import glob, json, os, subprocess, sys, time

nwhost, module, reg, agent, fifo, idle, errfile = sys.argv[1:8]
idle = int(idle)
tick = os.sysconf("SC_CLK_TCK")

def fail(text):
    print("check_module_bench: " + text, file=sys.stderr)
    sys.exit(1)

def status(pid):
    out = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            key, _, value = line.partition(":")
            out[key] = value.strip()
    return out

def kb(st, key):
    return int(st.get(key, "0 kB").split()[0])

def threads(pid):
    """Per thread: (voluntary + nonvoluntary switches, run time in ns, current system call)."""
    out = {}
    for task in glob.glob("/proc/%d/task/*" % pid):
        tid = int(os.path.basename(task))
        try:
            st = status_of(task)
            with open(task + "/schedstat") as f:
                run_ns = int(f.read().split()[0])
            with open(task + "/syscall") as f:
                call = f.read().split()[0]
        except OSError:
            continue
        out[tid] = (st["voluntary_ctxt_switches"] + st["nonvoluntary_ctxt_switches"], run_ns, call)
    return out

def status_of(task):
    out = {}
    with open(task + "/status") as f:
        for line in f:
            key, _, value = line.partition(":")
            if key.endswith("ctxt_switches"):
                out[key] = int(value)
    return out

def started(pid, tid):
    with open("/proc/%d/task/%d/stat" % (pid, tid)) as f:
        return int(f.read().rsplit(")", 1)[1].split()[19])

def cpu_ticks(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]), int(fields[12])  # utime, stime

def memory(pid):
    st = status(pid)
    return {k: kb(st, k) for k in ("VmRSS", "RssAnon", "RssFile", "VmHWM")}

bare = subprocess.Popen([nwhost, "xml", fifo], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
err = open(errfile, "w")
host = subprocess.Popen([nwhost, "script", "--module", module, "--registry", reg], cwd=agent, stdin=subprocess.PIPE,
                        stdout=subprocess.PIPE, stderr=err, text=True, bufsize=1)
try:
    # The module answers: it is loaded, started, and its scheduler runs.
    host.stdin.write('{"op":"properties"}\n')
    host.stdin.flush()
    if json.loads(host.stdout.readline() or "{}").get("op") != "properties":
        fail("the module did not start; see " + errfile)
    time.sleep(3)
    if bare.poll() is not None:
        fail("the bare host did not stay waiting")
    m_host, m_bare = memory(host.pid), memory(bare.pid)
    print("    resident memory (KB)          VmRSS  RssAnon  RssFile    VmHWM")
    for label, m in (("module started, idle", m_host), ("bare host", m_bare)):
        print("    %-26s %8d %8d %8d %8d" % (label, m["VmRSS"], m["RssAnon"], m["RssFile"], m["VmHWM"]))
    above = m_host["VmRSS"] - m_bare["VmRSS"]
    print("    above the bare host: %.1f MB resident (%.1f MB anonymous), target <= 10 MB" %
          (above / 1024.0, (m_host["RssAnon"] - m_bare["RssAnon"]) / 1024.0))

    before = {p.pid: (cpu_ticks(p.pid), threads(p.pid)) for p in (host, bare)}
    load0 = open("/proc/loadavg").read().split()[:3]
    time.sleep(idle)
    load1 = open("/proc/loadavg").read().split()[:3]
    print("    over %d idle seconds (load %s at the start, %s at the end):" % (idle, " ".join(load0), " ".join(load1)))
    for label, p in (("module started, idle", host), ("bare host", bare)):
        (u0, s0), t0 = before[p.pid]
        (u1, s1), t1 = cpu_ticks(p.pid), threads(p.pid)
        wakes = sum(t1[t][0] - t0[t][0] for t in t1 if t in t0)
        run_us = sum(t1[t][1] - t0[t][1] for t in t1 if t in t0) / 1000.0
        print("    %-26s user+sys %.2f s (user %.2f, sys %.2f), run time %.0f us, wake-ups %d, threads %d" %
              (label, (u1 - u0 + s1 - s0) / tick, (u1 - u0) / tick, (s1 - s0) / tick, run_us, wakes, len(t1)))
        if p is host:
            order = sorted((t for t in t1 if t in t0), key=lambda t: started(p.pid, t))
            for i, tid in enumerate(order):
                print("      thread started %d. (%d): %d wake-ups, waiting in system call %s" %
                      (i + 1, tid, t1[tid][0] - t0[tid][0], t1[tid][2]))
finally:
    bare.kill()
    bare.wait()
    host.stdin.close()
    host.wait()
    err.close()
EOF
  echo "    load after the idle run: $(load)"
fi
