#!/usr/bin/env python3
"""Starts and stops the servers the tests meet, each on a free loopback port:

  nginx       serves STATE/www over http and over https (a test CA made at each start)
  proxy       tinyproxy without authentication
  auth-proxy  tinyproxy with basic authentication
  fault       the fault server (fault_server.py next to this file)

  servers.py up     --state STATE   stops what STATE still runs, then starts all and writes
                                    STATE/servers.env; exit 0 only when every server answers
  servers.py down   --state STATE   stops every server of STATE; nothing of it stays running
  servers.py status --state STATE   tells which servers run

Everything the servers write stays below STATE: configuration, pid files, logs, temporary files.
"""

import argparse
import base64
import concurrent.futures
import grp
import http.client
import os
import pwd
import secrets
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import time

SERVERS = ("nginx", "proxy", "auth-proxy", "fault")

# tinyproxy 1.11 takes only letters, digits, '-', '.' and '_' in BasicAuth (no quoting, no blank).
# Mixed case and the punctuation it allows still catch credentials that get folded or cut.
PROXY_USER = "em.user"
PROXY_PASSWORD = "Em-Secret.pass_7"

READY_TIMEOUT = 10.0
STOP_GRACE = 3.0
# four servers and nginx's worker; a count far above that means the pid files name strangers
MAX_PROCESSES = 16
START_ATTEMPTS = 4


class Layout:
    """The files of one state directory."""

    def __init__(self, state):
        self.state = os.path.abspath(state)
        self.www = os.path.join(self.state, "www")
        self.logs = os.path.join(self.state, "logs")
        self.tmp = os.path.join(self.state, "tmp")
        self.conf = os.path.join(self.state, "conf")
        self.tls = os.path.join(self.state, "tls")
        self.env = os.path.join(self.state, "servers.env")
        self.ca_cert = os.path.join(self.tls, "ca.pem")
        self.ca_key = os.path.join(self.tls, "ca.key")
        self.server_cert = os.path.join(self.tls, "server.pem")
        self.server_key = os.path.join(self.tls, "server.key")

    def pid_file(self, name):
        return os.path.join(self.state, name + ".pid")

    def log(self, name):
        return os.path.join(self.logs, name + ".log")

    def output(self, name):
        """standard output and error of the server process"""
        return os.path.join(self.logs, name + ".out")

    def config(self, name):
        return os.path.join(self.conf, name + ".conf")

    def markers(self):
        """strings found only in the command lines of this state's servers"""
        return [self.config("nginx"), self.config("proxy"), self.config("auth-proxy"), self.log("fault")]


# ---- processes ---------------------------------------------------------------------------------


def read_proc_stat(pid):
    """(state, session id) of a process, or None when it is gone"""
    try:
        with open("/proc/%d/stat" % pid, "rb") as f:
            data = f.read().decode("ascii", "replace")
    except OSError:
        return None
    fields = data[data.rindex(")") + 2 :].split()
    return fields[0], int(fields[3])


def cmdline(pid):
    try:
        with open("/proc/%d/cmdline" % pid, "rb") as f:
            return f.read().replace(b"\0", b" ").decode("utf-8", "replace")
    except OSError:
        return ""


def alive(pid):
    stat = read_proc_stat(pid)
    return stat is not None and stat[0] not in ("Z", "X")


def all_pids():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def session_members(sid):
    """the live processes of a session; each server runs in a session of its own"""
    members = []
    for pid in all_pids():
        stat = read_proc_stat(pid)
        if stat and stat[1] == sid and stat[0] not in ("Z", "X"):
            members.append(pid)
    return members


def is_server(line, markers):
    """whether a command line is one of this state's servers"""
    program = line.startswith("nginx:") or line.startswith("tinyproxy ") or "fault_server.py" in line
    # whole arguments only: the files of /tmp/x are a part of those of /data/tmp/x
    padded = " %s " % line
    return program and any(" %s " % m in padded for m in markers)


def processes_of_state(layout):
    """every live process of the servers named by the state's pid files. Each server leads a session
    of its own, which holds its workers too."""
    markers = layout.markers()
    found = set()
    for name in SERVERS:
        try:
            with open(layout.pid_file(name)) as f:
                sid = int(f.read().strip())
        except (OSError, ValueError):
            continue
        members = session_members(sid) if sid > 1 else []
        if not members:
            continue
        if alive(sid):
            # a pid file of an earlier boot may name a stranger's session
            mine = is_server(cmdline(sid), markers)
        else:
            # nginx workers whose master was killed; they only say "nginx: worker process"
            mine = all(cmdline(p).startswith("nginx:") for p in members)
        if mine:
            found.update(members)
    # Never ourselves, our parent or our own session, whatever the pid files say.
    found -= {1, os.getpid(), os.getppid()}
    found -= set(session_members(os.getsid(0)))
    if len(found) > MAX_PROCESSES:
        raise RuntimeError("the pid files of %s name %d processes, more than the servers have; "
                           "stopping none of them" % (layout.state, len(found)))
    return found


def signal_all(pids, sig):
    for pid in pids:
        try:
            os.kill(pid, sig)
        except ProcessLookupError:
            pass


def wait_gone(pids, timeout, children=()):
    deadline = time.monotonic() + timeout
    while True:
        for child in children:
            child.poll()  # reaps the servers this process started itself
        left = [p for p in pids if alive(p)]
        if not left or time.monotonic() >= deadline:
            return left
        time.sleep(0.02)


def stop_state(layout, children=()):
    """SIGTERM to every process of the state, SIGKILL to what is left after the grace time; removes
    the pid files and servers.env. Returns the pids that would not die (none, normally)."""
    pids = processes_of_state(layout)
    if pids:
        signal_all(pids, signal.SIGTERM)
        left = wait_gone(pids, STOP_GRACE, children)
        if left:
            signal_all(left, signal.SIGKILL)
            left = wait_gone(left, STOP_GRACE, children)
        # nginx workers outlive a master that was killed; a second look catches them
        rest = processes_of_state(layout)
        if rest:
            signal_all(rest, signal.SIGKILL)
            left = wait_gone(rest, STOP_GRACE, children)
    else:
        left = []
    for name in SERVERS:
        remove(layout.pid_file(name))
    remove(layout.env)
    return left


def remove(path):
    try:
        os.remove(path)
    except FileNotFoundError:
        pass


# ---- certificates ------------------------------------------------------------------------------

SERVER_EXTENSIONS = """basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = IP:127.0.0.1, DNS:localhost
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid, issuer
"""


def run_openssl(args):
    result = subprocess.run(["openssl"] + args, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError("openssl %s failed:\n%s" % (args[0], result.stderr.strip()))


def make_certificates(layout):
    """a fresh CA and a server certificate for 127.0.0.1 and localhost signed by it"""
    os.makedirs(layout.tls, exist_ok=True)
    csr = os.path.join(layout.tls, "server.csr")
    ext = os.path.join(layout.tls, "server.ext")
    with open(ext, "w") as f:
        f.write(SERVER_EXTENSIONS)
    # The two RSA keys take most of the time of a start: they are made side by side.
    ca = ["req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", layout.ca_key, "-out", layout.ca_cert,
          "-days", "30", "-subj", "/CN=EM_MENDER test CA",
          "-addext", "basicConstraints=critical,CA:TRUE",
          "-addext", "keyUsage=critical,keyCertSign,cRLSign"]
    request = ["req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout", layout.server_key, "-out", csr,
               "-subj", "/CN=127.0.0.1"]
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for job in [pool.submit(run_openssl, ca), pool.submit(run_openssl, request)]:
            job.result()
    run_openssl(["x509", "-req", "-in", csr, "-CA", layout.ca_cert, "-CAkey", layout.ca_key,
                 "-set_serial", "0x" + secrets.token_hex(8), "-days", "30", "-extfile", ext,
                 "-out", layout.server_cert])


# ---- configuration -----------------------------------------------------------------------------


def nginx_config(layout, ports):
    user = ""
    if os.geteuid() == 0:
        # Workers would otherwise drop to "nobody", who may not read the state directory.
        user = "user %s %s;" % (pwd.getpwuid(os.geteuid()).pw_name, grp.getgrgid(os.getegid()).gr_name)
    tmp = layout.tmp
    return f"""# made by servers.py at each start
{user}
daemon off;
master_process on;
worker_processes 1;
pid "{tmp}/nginx.pid";
lock_file "{tmp}/nginx.lock";
error_log "{layout.log('nginx-error')}" notice;

events {{
  worker_connections 512;
}}

http {{
  access_log "{layout.log('nginx-access')}";
  client_body_temp_path "{tmp}/body";
  proxy_temp_path "{tmp}/proxy";
  fastcgi_temp_path "{tmp}/fastcgi";
  uwsgi_temp_path "{tmp}/uwsgi";
  scgi_temp_path "{tmp}/scgi";

  default_type application/octet-stream;
  server_tokens off;
  # Files are sent straight from the page cache; no descriptors or sizes are cached, so a file a
  # test writes or changes is served as it is at the moment of the request.
  sendfile on;
  tcp_nopush on;
  open_file_cache off;
  keepalive_timeout 30s;

  server {{
    listen 127.0.0.1:{ports['http']};
    listen 127.0.0.1:{ports['https']} ssl;
    server_name localhost 127.0.0.1;
    ssl_certificate "{layout.server_cert}";
    ssl_certificate_key "{layout.server_key}";
    ssl_protocols TLSv1.2 TLSv1.3;
    root "{layout.www}";
  }}
}}
"""


def tinyproxy_config(layout, name, port, auth):
    lines = [
        "# made by servers.py at each start",
        "Port %d" % port,
        "Listen 127.0.0.1",
        "Allow 127.0.0.1",
        "Timeout 120",
        "MaxClients 100",
        "LogLevel Info",
        'LogFile "%s"' % layout.log(name),
        # No ConnectPort line: CONNECT reaches any port, the https port of nginx included.
    ]
    if os.geteuid() == 0:
        lines += ["User %s" % pwd.getpwuid(os.geteuid()).pw_name, "Group %s" % grp.getgrgid(os.getegid()).gr_name]
    if auth:
        lines.append("BasicAuth %s %s" % (PROXY_USER, PROXY_PASSWORD))
    return "\n".join(lines) + "\n"


def write_file(path, text):
    with open(path, "w") as f:
        f.write(text)


# ---- starting ----------------------------------------------------------------------------------


def free_ports(names):
    """ports the kernel hands out for port 0, all different; they are free now, not promised"""
    sockets, ports = [], {}
    try:
        for name in names:
            s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            s.bind(("127.0.0.1", 0))
            sockets.append(s)
            ports[name] = s.getsockname()[1]
    finally:
        for s in sockets:
            s.close()
    return ports


def commands(layout, ports):
    fault_server = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fault_server.py")
    return {
        "nginx": ["nginx", "-p", layout.state + "/", "-c", layout.config("nginx"), "-e", layout.log("nginx-error")],
        "proxy": ["tinyproxy", "-d", "-c", layout.config("proxy")],
        "auth-proxy": ["tinyproxy", "-d", "-c", layout.config("auth-proxy")],
        # the interpreter itself, not a wrapper that would stay between us and the server
        "fault": [sys.executable, fault_server, "--port", str(ports["fault"]), "--log", layout.log("fault")],
    }


def spawn(layout, name, command):
    """starts a server in a session of its own (so it and its workers are found and stopped
    together), detached from our standard streams (ctest waits for those to close)"""
    with open(layout.output(name), "ab") as out:
        child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                                 cwd=layout.state, start_new_session=True)
    write_file(layout.pid_file(name), "%d\n" % child.pid)
    return child


def http_status(port, target, headers=None, tls_ca=None):
    """the status of one GET, or raises"""
    if tls_ca:
        context = ssl.create_default_context(cafile=tls_ca)
        conn = http.client.HTTPSConnection("127.0.0.1", port, timeout=1.0, context=context)
    else:
        conn = http.client.HTTPConnection("127.0.0.1", port, timeout=1.0)
    try:
        conn.request("GET", target, headers=headers or {})
        response = conn.getresponse()
        response.read()
        return response.status
    finally:
        conn.close()


def probes(layout, ports):
    """per server: checks that raise or return an error text while it does not answer as it must"""
    fault_target = "http://127.0.0.1:%d/count/ready" % ports["fault"]
    token = "Basic " + base64.b64encode(("%s:%s" % (PROXY_USER, PROXY_PASSWORD)).encode()).decode()

    def answers(status):
        return None

    def expect(status, wanted, what):
        return None if status == wanted else "%s answered %d, not %d" % (what, status, wanted)

    return {
        # nginx answers 403 for the empty root; any status shows it is up, https also shows the
        # certificate chain is good.
        "nginx": [lambda: answers(http_status(ports["http"], "/")),
                  lambda: answers(http_status(ports["https"], "/", tls_ca=layout.ca_cert))],
        "fault": [lambda: expect(http_status(ports["fault"], "/count/ready"), 200, "fault server")],
        "proxy": [lambda: expect(http_status(ports["proxy"], fault_target), 200, "proxy")],
        "auth-proxy": [lambda: expect(http_status(ports["auth-proxy"], fault_target), 407, "auth proxy without credentials"),
                       lambda: expect(http_status(ports["auth-proxy"], fault_target, {"Proxy-Authorization": token}), 200,
                                      "auth proxy with credentials")],
    }


def wait_ready(child, checks, timeout):
    """None when every check passes within the time, else why not"""
    deadline = time.monotonic() + timeout
    pending = list(checks)
    last = "no answer"
    while pending:
        if child.poll() is not None:
            return "exited with status %d" % child.returncode
        try:
            error = pending[0]()
            if error is None:
                pending.pop(0)
                continue
            last = error
        except (OSError, http.client.HTTPException, ssl.SSLError) as e:
            last = str(e) or type(e).__name__
        if time.monotonic() >= deadline:
            return "no good answer within %d s (%s)" % (timeout, last)
        time.sleep(0.02)
    return None


def tail(path, lines=15):
    try:
        with open(path, errors="replace") as f:
            return "".join(f.readlines()[-lines:])
    except OSError:
        return ""


def prepare(layout):
    for bad in '"$\\;\n':
        if bad in layout.state:
            raise RuntimeError("the state directory may not contain %r: %s" % (bad, layout.state))
    os.makedirs(layout.state, exist_ok=True)
    for folder in (layout.www, layout.logs, layout.tmp, layout.conf, layout.tls):
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)


def start_once(layout, ports):
    """starts every server on the given ports; returns (children, failures by server)"""
    write_file(layout.config("nginx"), nginx_config(layout, ports))
    write_file(layout.config("proxy"), tinyproxy_config(layout, "proxy", ports["proxy"], auth=False))
    write_file(layout.config("auth-proxy"), tinyproxy_config(layout, "auth-proxy", ports["auth-proxy"], auth=True))
    children, failures = {}, {}
    for name, command in commands(layout, ports).items():
        try:
            children[name] = spawn(layout, name, command)
        except OSError as e:
            failures[name] = "cannot start %s: %s" % (command[0], e)
    checks = probes(layout, ports)
    # The proxies are checked through the fault server, so it comes first.
    for name in ("fault", "nginx", "proxy", "auth-proxy"):
        if name in failures:
            continue
        if name.endswith("proxy") and "fault" in failures:
            failures[name] = "not checked: the check goes through the fault server"
            continue
        error = wait_ready(children[name], checks[name], READY_TIMEOUT)
        if error:
            failures[name] = error
    return children, failures


def failure_report(layout, failures):
    logs = {"nginx": ["nginx-error"], "proxy": ["proxy"], "auth-proxy": ["auth-proxy"], "fault": ["fault"]}
    parts = []
    for name, error in failures.items():
        parts.append("%s: %s" % (name, error))
        for log in [layout.log(n) for n in logs[name]] + [layout.output(name)]:
            text = tail(log)
            if text.strip():
                parts.append("--- tail of %s:\n%s" % (log, text.rstrip()))
    return "\n".join(parts)


def port_taken(layout, failures):
    """whether a failure came from a port that another program took after we picked it"""
    for name in failures:
        for log in (layout.log({"nginx": "nginx-error"}.get(name, name)), layout.output(name)):
            text = tail(log, 50)
            if "Address already in use" in text or "Could not create listening sockets" in text:
                return True
    return False


def write_env(layout, ports):
    values = [
        ("WWW", layout.www),
        ("HTTP_PORT", ports["http"]),
        ("HTTPS_PORT", ports["https"]),
        ("CA_FILE", layout.ca_cert),
        ("PROXY_PORT", ports["proxy"]),
        ("AUTH_PROXY_PORT", ports["auth-proxy"]),
        ("PROXY_USER", PROXY_USER),
        ("PROXY_PASSWORD", PROXY_PASSWORD),
        ("FAULT_PORT", ports["fault"]),
    ]
    temporary = layout.env + ".new"
    write_file(temporary, "".join("%s=%s\n" % (k, v) for k, v in values))
    os.replace(temporary, layout.env)
    return values


def up(layout):
    try:
        return start(layout)
    except BaseException:
        # whatever broke the start (openssl, an interrupt), nothing of it stays running
        stop_state(layout)
        raise


def start(layout):
    started = time.monotonic()
    left = stop_state(layout)
    if left:
        print("servers.py: processes of an earlier run would not stop: %s" % left, file=sys.stderr)
        return 1
    prepare(layout)
    make_certificates(layout)
    for attempt in range(1, START_ATTEMPTS + 1):
        ports = free_ports(["http", "https", "proxy", "auth-proxy", "fault"])
        children, failures = start_once(layout, ports)
        if not failures:
            values = write_env(layout, ports)
            print("test servers up in %.2f s (state %s):" % (time.monotonic() - started, layout.state))
            for key, value in values:
                print("  %s=%s" % (key, value))
            return 0
        report = failure_report(layout, failures)
        retry = port_taken(layout, failures) and attempt < START_ATTEMPTS
        stop_state(layout, children.values())
        if not retry:
            print("servers.py: the test servers did not come up\n" + report, file=sys.stderr)
            return 1
        print("servers.py: a port was taken meanwhile, starting again on new ports", file=sys.stderr)
    return 1


def down(layout):
    left = stop_state(layout)
    if left:
        print("servers.py: could not stop %s" % left, file=sys.stderr)
        return 1
    return 0


def status(layout):
    env = {}
    try:
        with open(layout.env) as f:
            env = dict(line.rstrip("\n").split("=", 1) for line in f if "=" in line)
    except OSError:
        pass
    ports = {
        "nginx": "http %s, https %s" % (env.get("HTTP_PORT", "?"), env.get("HTTPS_PORT", "?")),
        "proxy": "port %s" % env.get("PROXY_PORT", "?"),
        "auth-proxy": "port %s, user %s" % (env.get("AUTH_PROXY_PORT", "?"), env.get("PROXY_USER", "?")),
        "fault": "port %s" % env.get("FAULT_PORT", "?"),
    }
    running = 0
    for name in SERVERS:
        try:
            with open(layout.pid_file(name)) as f:
                pid = int(f.read().strip())
        except (OSError, ValueError):
            pid = None
        if pid and alive(pid):
            running += 1
            print("%-10s running (pid %d, %s)" % (name, pid, ports[name]))
        else:
            print("%-10s not running" % name)
    if env.get("WWW"):
        print("document root %s, CA %s" % (env["WWW"], env.get("CA_FILE", "?")))
    return 0 if running == len(SERVERS) else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("command", choices=["up", "down", "status"])
    parser.add_argument("--state", required=True, help="directory of the servers' files")
    options = parser.parse_args()
    layout = Layout(options.state)
    try:
        return {"up": up, "down": down, "status": status}[options.command](layout)
    except RuntimeError as e:
        print("servers.py: %s" % e, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
