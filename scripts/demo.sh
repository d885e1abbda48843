#!/usr/bin/env bash
# The main job: builds the release, makes a sample download server and a sample machine that
# disagrees with it in known ways, and runs one update check of the module against them. The
# repository is mirrored from the server (the check log shows it), the engine compares it with the
# machine's inventory, and the updates are shown with their rankings and severities.
#
# Everything lives in a temporary folder: the server's tree, the module's directories (through a
# registry file that points TempRoot and DataRoot there), the settings. The private web server
# (nginx on a free loopback port) stops on every way out; nothing keeps running.
#
# EM_DEMO_BUILD names another build directory for the release preset (default build/release).
# Arguments are passed on to nwhost check (for example --json).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${EM_DEMO_BUILD:-build/release}

scripts/install-deps.sh
cmake --preset release -B "$build" >/dev/null
# What the demo runs, and no more: the module, the host, the transfer tool, the tree builder and
# the archive stub of the tree's packages.
cmake --build "$build" --target EM_MENDER nwhost FileDownLoad repotool em_sfx_stub
started=$(date +%s%N)

work=$(mktemp -d "${TMPDIR:-/tmp}/em-demo.XXXXXX")
nginx_pid=''
stop_server() {
  if [ -n "$nginx_pid" ]; then
    # The master takes its worker with it on TERM.
    kill -TERM "$nginx_pid" 2>/dev/null || true
    wait "$nginx_pid" 2>/dev/null || true
    nginx_pid=''
  fi
}
cleanup() {
  stop_server
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# A proxy setting of the caller would take the transfers around the private server; an engine
# library named in the environment would replace the simulated engine.
unset http_proxy https_proxy all_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY
export EM_MENDER_ENGINE=

repotool=$root/$build/tools/repotool/repotool
nwhost=$root/$build/nwhost
cd "$work"
mkdir -p www temp data nginx

echo "== A download server's tree of 20 sample leaves, and the machine's installed components"
"$repotool" sample --leaves leaves --count 20
# --client gives the module's work directory the server's UpdateIndicatorFile.txt.
"$repotool" build --leaves leaves --out www/tree --stub "$root/$build/tools/sfx/sfx.exe" --client temp/EM_MENDER
inventory=data/EM_MENDER/UpdateJob/SimulatedEngine/inventory.txt
mkdir -p "$(dirname "$inventory")"
"$repotool" inventory --leaves leaves --out "$inventory"

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
user=''
# As root, nginx's worker would drop to "nobody", who may not read the temporary folder.
[ "$(id -u)" -eq 0 ] && user="user $(id -un) $(id -gn);"
cat >nginx/nginx.conf <<EOF
$user
daemon off;
master_process on;
worker_processes 1;
pid "$work/nginx/nginx.pid";
lock_file "$work/nginx/nginx.lock";
error_log "$work/nginx/error.log" notice;
events { worker_connections 64; }
http {
  access_log "$work/nginx/access.log";
  client_body_temp_path "$work/nginx/body";
  proxy_temp_path "$work/nginx/proxy";
  fastcgi_temp_path "$work/nginx/fastcgi";
  uwsgi_temp_path "$work/nginx/uwsgi";
  scgi_temp_path "$work/nginx/scgi";
  default_type application/octet-stream;
  server {
    listen 127.0.0.1:$port;
    root "$work/www";
  }
}
EOF
nginx -p "$work/nginx/" -c "$work/nginx/nginx.conf" -e "$work/nginx/error.log" </dev/null >/dev/null 2>&1 &
nginx_pid=$!
for _ in $(seq 50); do
  curl -s -o /dev/null --noproxy '*' "http://127.0.0.1:$port/tree/versionTree.txt" && break
  kill -0 "$nginx_pid" 2>/dev/null || { cat "$work/nginx/error.log" >&2; echo "demo: nginx did not start" >&2; exit 1; }
  sleep 0.1
done
echo "== The tree is served at http://127.0.0.1:$port/tree"

# The module's directories below the temporary folder: TempRoot holds its work directory (the
# check log, the transfer tool), DataRoot its settings, repository and engine data.
base='HKEY_LOCAL_MACHINE\SOFTWARE\Hadley Brandt\Management\Node Warden'
printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s\\Setup]\r\n"TempRoot"="%s"\r\n\r\n[%s\\DATA]\r\n"DataRoot"="%s"\r\n' \
  "$base" "$work/temp" "$base" "$work/data" >em.reg

echo "== Settings: a local repository kept in step with the server, alerts of new updates"
for setting in "RepositoryAccess 1" "UpdAutomaticDownload 1" "DownloadServerAddress 127.0.0.1:$port" \
  "downloadRepositoryPath /tree" "ConfUpdAlertMailMewUpdates 1"; do
  read -r name value <<<"$setting"
  "$nwhost" config --registry em.reg set "$name" "$value"
done

echo "== The check: the repository is mirrored from the server, then compared with the machine"
status=0
"$nwhost" check --registry em.reg --tool "$root/$build/tools/filedownload/FileDownLoad" --progress "$@" || status=$?
stop_server
finished=$(date +%s%N)
echo "== Done in $(((finished - started) / 1000000)) ms after the build; the web server is stopped." >&2
exit $status
