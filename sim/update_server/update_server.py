#!/usr/bin/python3
"""A local HTTPS update server for tests, the demo and hand-testing.

It speaks the update server protocol (HTTPS POST of a JSON object to
/api.php, commands "check_update", "ticket" and "ticket_status"), builds a
firmware for a CID after a configurable number of ticket polls, and can be
told to misbehave in every way the client has to survive. Standard library
only; certificates are made with the openssl command-line tool.

  update_server.py make-certs DIR
  update_server.py serve --certs DIR [options]      (see --help)

When it is ready to take connections, "serve" prints the port number alone on
one line of standard output; everything else it says goes to standard error.
A running server is re-scripted with POST /control (a JSON object of settings,
the same names as the options with "_" for "-"); GET /control shows them.
"""

import argparse
import base64
import copy
import hashlib
import http.server
import json
import os
import signal
import socket
import socketserver
import ssl
import subprocess
import sys
import threading
import time

FAULTS = ("none", "non_json", "html_500", "json_500", "raw", "stall", "stall_handshake", "slow", "drop")
IDENTITIES = ("server", "wronghost", "selfsigned")

# ---------------------------------------------------------------- certificates

OPENSSL_CONFIG = """
[req]
distinguished_name = dn
prompt = no
[dn]
CN = placeholder
[ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[leaf]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = ${ENV::QUENDRAL_SAN}
[selfsigned]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
subjectAltName = ${ENV::QUENDRAL_SAN}
"""


def _openssl(args, san="DNS:localhost"):
    env = dict(os.environ, QUENDRAL_SAN=san)
    result = subprocess.run(["openssl"] + args, env=env, capture_output=True, text=True)
    if result.returncode != 0:
        raise SystemExit("openssl %s failed:\n%s" % (" ".join(args), result.stderr))


def make_certs(directory):
    """A test CA, a server certificate for localhost/127.0.0.1 signed by it, one for a
    wrong host name signed by it, and a self-signed one nobody trusts."""
    os.makedirs(directory, exist_ok=True)
    config = os.path.join(directory, "openssl.cnf")
    with open(config, "w") as f:
        f.write(OPENSSL_CONFIG)
    p = lambda name: os.path.join(directory, name)
    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    _openssl(["req", "-x509", "-config", config, "-extensions", "ca", "-days", "30", *key,
              "-keyout", p("ca.key"), "-out", p("ca.pem"), "-subj", "/CN=QUENDRAL Test CA"])
    leaves = {"server": ("/CN=localhost", "DNS:localhost,IP:127.0.0.1"),
              "wronghost": ("/CN=wrong-host.quendral.example", "DNS:wrong-host.quendral.example")}
    for name, (subject, san) in leaves.items():
        _openssl(["req", "-new", "-config", config, *key, "-keyout", p(name + ".key"), "-out", p(name + ".csr"),
                  "-subj", subject], san)
        _openssl(["x509", "-req", "-in", p(name + ".csr"), "-CA", p("ca.pem"), "-CAkey", p("ca.key"),
                  "-CAcreateserial", "-days", "30", "-extfile", config, "-extensions", "leaf",
                  "-out", p(name + ".pem")], san)
    _openssl(["req", "-x509", "-config", config, "-extensions", "selfsigned", "-days", "30", *key,
              "-keyout", p("selfsigned.key"), "-out", p("selfsigned.pem"), "-subj", "/CN=localhost"],
             "DNS:localhost,IP:127.0.0.1")


# ---------------------------------------------------------------- firmware

def generated_firmware(cid):
    """An Intel-HEX file made for this CID: its data records spell the CID, so two
    Controllers never receive the same file."""
    data = ("QUENDRAL FIRMWARE FOR %s\n" % cid).encode("utf-8", "replace")
    data += bytes(range(256)) * 4
    lines = []
    for address in range(0, len(data), 16):
        chunk = data[address:address + 16]
        record = bytes([len(chunk), (address >> 8) & 0xFF, address & 0xFF, 0]) + chunk
        checksum = (-sum(record)) & 0xFF
        lines.append(":" + (record + bytes([checksum])).hex().upper())
    lines.append(":00000001FF")
    return ("\n".join(lines) + "\n").encode("ascii")


# ---------------------------------------------------------------- behaviour

DEFAULTS = {
    "polls": 2,                # ticket polls answered "still generating" before the file is ready
    "pending": "internal",     # while generating: "internal" (status error) or "pending" (status pending)
    "refuse": None,            # check_update answers {"status":"error","description":<refuse>}
    "message": "Please contact QUENDRAL support.",  # "msg" when refuse is "message"
    "registered": [],          # when not empty, other CIDs are "not_authorized"
    "latest": None,            # a currentVersion equal to this (and no "version") gets "no_update"
    "generation": "ok",        # "fail": the ticket ends in {"status":"error","description":"generation_failed"}
    "hash": "ok",              # "corrupt" or "upper"
    "base64": "ok",            # "line_breaks": the hexfile text is wrapped every 76 characters;
                               # "undecodable": not Base64 at all, sent with the digest of no data
    "ticket_type": "string",   # "string" ("T1", "T2" ...) or "int" (1, 2 ...)
    "firmware": None,          # Intel-HEX file to serve; none: one generated per CID
    "firmware_for": {},        # CID -> Intel-HEX file served to that CID, before "firmware"
    "fault": "none",           # see FAULTS
    "fault_count": None,       # how many requests (connections for stall_handshake) the fault hits; none: all
    "fault_commands": [],      # only requests with these "cmd" values are hit; empty: all
    "slow_rate": 1000,         # bytes per second for fault "slow"
    "pad": 0,                  # the JSON answer is padded with blanks to this many bytes
    "raw_status": 200,         # fault "raw": HTTP status
    "raw_body": "",            # fault "raw": the body, sent as it is
    "close_connections": False,  # end every connection after its answer (as servers without keep-alive do)
    "record": None,            # JSON-lines file that receives every request to /api.php
}


class State:
    def __init__(self, settings):
        self.lock = threading.Lock()
        self.initial = copy.deepcopy(settings)
        self.settings = copy.deepcopy(settings)
        self.tickets = {}
        self.next_ticket = 1
        self.sequence = 0
        self.connections = 0
        self.resumed_connections = 0
        # The server's own CPU time for the update protocol: each connection's
        # TLS handshake and the handling of each /api.php request, so that a
        # benchmark can tell the server's share of an update from the client's.
        self.busy_seconds = 0.0
        self.stop = threading.Event()

    def take_fault(self, fault_names, cmd):
        """The fault to apply to this request (or connection), counting it down."""
        with self.lock:
            s = self.settings
            if s["fault"] not in fault_names:
                return None
            if s["fault_commands"] and cmd not in s["fault_commands"]:
                return None
            if s["fault_count"] is not None:
                if s["fault_count"] <= 0:
                    return None
                s["fault_count"] -= 1
            return s["fault"]

    def add_busy(self, seconds):
        with self.lock:
            self.busy_seconds += seconds

    def connection_opened(self, resumed):
        """Numbers each TLS connection from 1, so a recorded request tells which one it came on."""
        with self.lock:
            self.connections += 1
            if resumed:
                self.resumed_connections += 1
            return self.connections

    def record(self, entry):
        with self.lock:
            self.sequence += 1
            entry["seq"] = self.sequence
            path = self.settings["record"]
            if path:
                with open(path, "a", encoding="utf-8") as f:
                    f.write(json.dumps(entry) + "\n")

    def control(self, changes):
        with self.lock:
            if changes.pop("reset", False):
                self.settings = copy.deepcopy(self.initial)
                self.tickets.clear()
            unknown = [k for k in changes if k not in DEFAULTS]
            if unknown:
                return {"status": "error", "description": "unknown settings", "keys": unknown}
            self.settings.update(changes)
            return {"status": "ok", "settings": copy.deepcopy(self.settings), "busy_seconds": self.busy_seconds}

    # -- the three commands; each returns the answer object

    def check_update(self, request):
        s = self.settings
        needed = ("CID", "platform", "currentVersion", "appVersion", "OS")
        if not all(isinstance(request.get(k), str) for k in needed):
            return {"status": "error", "description": "bad_request"}
        if s["refuse"]:
            answer = {"status": "error", "description": s["refuse"]}
            if s["refuse"] == "message":
                answer["msg"] = s["message"]
            return answer
        cid = request["CID"]
        if s["registered"] and cid not in s["registered"]:
            return {"status": "error", "description": "not_authorized"}
        if s["latest"] is not None and "version" not in request and request["currentVersion"] == s["latest"]:
            return {"status": "error", "description": "no_update"}
        number = self.next_ticket
        self.next_ticket += 1
        ticket = number if s["ticket_type"] == "int" else "T%d" % number
        self.tickets[json.dumps(ticket)] = {"cid": cid, "polls": 0, "version": request.get("version")}
        return {"status": "success", "description": "generating", "ticket_id": ticket}

    def ticket(self, request):
        s = self.settings
        entry = self.tickets.get(json.dumps(request.get("ticket_id")))
        if entry is None:
            return {"status": "error", "description": "unknown_ticket"}
        if entry["cid"] != request.get("CID"):
            return {"status": "error", "description": "wrong_cid"}
        entry["polls"] += 1
        if entry["polls"] <= s["polls"]:
            if s["pending"] == "internal":
                return {"status": "error", "description": "internal"}
            return {"status": "pending", "description": "generating"}
        if s["generation"] == "fail":
            return {"status": "error", "description": "generation_failed"}
        served = s["firmware_for"].get(entry["cid"]) or s["firmware"]
        if served:
            with open(served, "rb") as f:
                firmware = f.read()
        else:
            firmware = generated_firmware(entry["cid"])
        digest = hashlib.md5(firmware).hexdigest()
        if s["hash"] == "upper":
            digest = digest.upper()
        elif s["hash"] == "corrupt":
            digest = ("0" if digest[0] != "0" else "1") + digest[1:]
        encoded = base64.b64encode(firmware).decode("ascii")
        if s["base64"] == "line_breaks":
            encoded = base64.encodebytes(firmware).decode("ascii")
        elif s["base64"] == "undecodable":
            # Text no strict decoder accepts, with the digest of what such a
            # decoder leaves: nothing. The digest check alone lets it through.
            encoded = "%%not base64%%"
            digest = hashlib.md5(b"").hexdigest()
        return {"status": "success", "description": "ready", "hexfile": encoded, "hash": digest}

    def ticket_status(self, request):
        entry = self.tickets.get(json.dumps(request.get("ticket_id")))
        if entry is None:
            return {"status": "error", "description": "unknown_ticket"}
        if not isinstance(request.get("success"), bool):
            return {"status": "error", "description": "bad_request"}
        entry["reported"] = request["success"]
        return {"status": "success", "description": "recorded"}

    def answer(self, request):
        with self.lock:
            command = request.get("cmd") if isinstance(request, dict) else None
            handler = {"check_update": self.check_update, "ticket": self.ticket,
                       "ticket_status": self.ticket_status}.get(command)
            if handler is None:
                return {"status": "error", "description": "unknown_command"}
            return handler(request)


# ---------------------------------------------------------------- HTTP

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "QuendralTestUpdateServer/1.0"
    # An answer must not wait for the client's delayed ACK of the session
    # tickets written just before it (40 ms a request on a kept connection).
    disable_nagle_algorithm = True

    def log_message(self, fmt, *args):
        sys.stderr.write("update_server: %s %s\n" % (self.address_string(), fmt % args))

    def read_body(self):
        length = int(self.headers.get("Content-Length") or 0)
        return self.rfile.read(length) if length > 0 else b""

    def send(self, status, body, content_type="application/json", rate=None):
        if isinstance(body, str):
            body = body.encode("utf-8")
        # The connection stays open for the client's next request unless the
        # client asked to close it or the server is told to behave like one
        # without keep-alive.
        if self.server.state.settings["close_connections"]:
            self.close_connection = True
        head = ("HTTP/1.1 %d %s\r\nServer: %s\r\nContent-Type: %s\r\nContent-Length: %d\r\n%s\r\n" % (
            status, self.responses.get(status, ("Status",))[0], self.server_version, content_type, len(body),
            "Connection: close\r\n" if self.close_connection else "")).encode("ascii")
        data = head + body
        if rate is None:
            self.wfile.write(data)
            return
        # Steady trickle: a slice every 50 ms.
        step = max(1, int(rate / 20))
        for offset in range(0, len(data), step):
            self.wfile.write(data[offset:offset + step])
            self.wfile.flush()
            if self.server.state.stop.wait(0.05):
                self.close_connection = True
                return

    def send_json(self, status, answer, rate=None):
        text = json.dumps(answer, separators=(",", ":"))
        pad = self.server.state.settings["pad"]
        if pad and len(text) < pad:
            text += " " * (pad - len(text))
        self.send(status, text, rate=rate)

    def do_GET(self):
        if self.path == "/control":
            state = self.server.state
            with state.lock:
                self.send_json(200, {"settings": state.settings, "tickets": state.tickets,
                                     "connections": state.connections,
                                     "resumed_connections": state.resumed_connections,
                                     "busy_seconds": state.busy_seconds})
            return
        self.send(404, "not found\n", "text/plain")

    def do_POST(self):
        started = time.thread_time()
        try:
            self.handle_post()
        finally:
            if self.path == "/api.php":
                # A connection's handshake counts with its first request to the API.
                handshake, self.request.handshake_seconds = self.request.handshake_seconds, 0.0
                self.server.state.add_busy(handshake + time.thread_time() - started)

    def handle_post(self):
        body = self.read_body()
        state = self.server.state
        if self.path == "/control":
            try:
                changes = json.loads(body.decode("utf-8"))
                assert isinstance(changes, dict)
            except Exception:
                self.send_json(400, {"status": "error", "description": "control wants a JSON object"})
                return
            self.send_json(200, state.control(changes))
            return
        try:
            request = json.loads(body.decode("utf-8"))
        except Exception:
            request = None
        state.record({"time": time.time(), "method": "POST", "path": self.path,
                      "headers": [[k, v] for k, v in self.headers.items()],
                      "body": body.decode("utf-8", "replace"), "json": request,
                      "connection": self.request.connection_number,
                      "tls_resumed": self.request.session_reused})
        if self.path != "/api.php":
            self.send(404, "<html><body><h1>404 Not Found</h1></body></html>\n", "text/html")
            return
        command = request.get("cmd") if isinstance(request, dict) else None
        fault = state.take_fault(("non_json", "html_500", "json_500", "raw", "stall", "slow", "drop"), command)
        if fault:
            sys.stderr.write("update_server: %s -> fault %s\n" % (command, fault))
        if fault == "stall":
            state.stop.wait()
            self.close_connection = True
            return
        if fault == "drop":
            self.close_connection = True
            return
        if fault == "non_json":
            self.send(200, "Service temporarily unavailable, try again later\n", "text/plain")
            return
        if fault == "html_500":
            self.send(500, "<html><head><title>500 Internal Server Error</title></head>"
                           "<body><h1>Internal Server Error</h1></body></html>\n", "text/html")
            return
        if fault == "json_500":
            self.send_json(500, {"status": "error", "description": "internal_server_error"})
            return
        if fault == "raw":
            with state.lock:
                status, raw = state.settings["raw_status"], state.settings["raw_body"]
            self.send(status, raw)
            return
        if request is None:
            self.send_json(400, {"status": "error", "description": "bad_request"})
            return
        answer = state.answer(request)
        sys.stderr.write("update_server: %s -> %s %s\n" % (command, answer.get("status"), answer.get("description")))
        rate = None
        if fault == "slow":
            with state.lock:
                rate = state.settings["slow_rate"]
        self.send_json(200, answer, rate=rate)


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, address, state, context):
        self.state = state
        self.context = context
        super().__init__(address, Handler)

    def finish_request(self, request, client_address):
        # The TLS handshake runs here, on the connection's own thread, so a client
        # that never finishes it cannot hold up the others.
        if self.state.take_fault(("stall_handshake",), None):
            self.state.stop.wait()
            return
        request.settimeout(30)
        started = time.thread_time()
        try:
            tls = self.context.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError) as error:
            sys.stderr.write("update_server: handshake with %s failed: %s\n" % (client_address[0], error))
            return
        tls.handshake_seconds = time.thread_time() - started
        tls.connection_number = self.state.connection_opened(tls.session_reused)
        try:
            tls.settimeout(None)
            self.RequestHandlerClass(tls, client_address, self)
        except (ConnectionError, ssl.SSLError, OSError):
            pass
        finally:
            tls.close()

    def handle_error(self, request, client_address):
        error = sys.exc_info()[1]
        sys.stderr.write("update_server: connection from %s: %r\n" % (client_address[0], error))


def serve(args):
    settings = copy.deepcopy(DEFAULTS)
    for key in DEFAULTS:
        value = getattr(args, key, None)
        if value is not None:
            settings[key] = value
    if args.firmware_for:
        settings["firmware_for"] = dict(pair.split("=", 1) for pair in args.firmware_for)
    if args.certs:
        if not os.path.exists(os.path.join(args.certs, "ca.pem")):
            make_certs(args.certs)
        cert = os.path.join(args.certs, args.identity + ".pem")
        key = os.path.join(args.certs, args.identity + ".key")
    else:
        cert, key = args.cert, args.key
    if not cert or not key:
        raise SystemExit("update_server: give --certs DIR, or --cert and --key")
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)

    state = State(settings)
    server = Server((args.host, args.port), state, context)

    def stop(_signum, _frame):
        state.stop.set()
        threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    if args.exit_with_parent:
        # A test that crashes cannot stop us; do not outlive it.
        parent = os.getppid()

        def watch_parent():
            while not state.stop.wait(0.5):
                if os.getppid() != parent:
                    stop(None, None)
                    return

        threading.Thread(target=watch_parent, daemon=True).start()
    port = server.server_address[1]
    sys.stderr.write("update_server: https://%s:%d/api.php (certificate %s)\n" % (args.host, port, cert))
    print(port, flush=True)
    server.serve_forever(poll_interval=0.1)
    server.server_close()
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)

    certs = commands.add_parser("make-certs", help="make a test CA and server certificates in DIR")
    certs.add_argument("directory")

    run = commands.add_parser("serve", help="run the server")
    run.add_argument("--certs", help="certificate folder (made with make-certs when it holds no ca.pem)")
    run.add_argument("--identity", choices=IDENTITIES, default="server",
                     help="which certificate of --certs to present (default: server)")
    run.add_argument("--cert", help="PEM certificate, instead of --certs")
    run.add_argument("--key", help="PEM private key, instead of --certs")
    run.add_argument("--host", default="127.0.0.1")
    run.add_argument("--port", type=int, default=0, help="0 (default): any free port")
    run.add_argument("--exit-with-parent", action="store_true",
                     help="stop when the process that started the server ends (tests use this)")
    run.add_argument("--record", help="append every request to this JSON-lines file")
    run.add_argument("--firmware", help="Intel-HEX file to serve (default: one generated per CID)")
    run.add_argument("--firmware-for", dest="firmware_for", action="append", metavar="CID=FILE",
                     help="Intel-HEX file to serve to that CID (repeatable; before --firmware)")
    run.add_argument("--polls", type=int, help="ticket polls before the file is ready (default 2)")
    run.add_argument("--pending", choices=("internal", "pending"))
    run.add_argument("--refuse", metavar="DESCRIPTION",
                     help="refuse check_update: not_authorized, no_update, message, connection, or anything")
    run.add_argument("--message", help='the "msg" sent with --refuse message')
    run.add_argument("--registered", nargs="*", metavar="CID")
    run.add_argument("--latest", metavar="VERSION")
    run.add_argument("--generation", choices=("ok", "fail"))
    run.add_argument("--hash", choices=("ok", "corrupt", "upper"))
    run.add_argument("--base64", choices=("ok", "line_breaks", "undecodable"))
    run.add_argument("--ticket-type", dest="ticket_type", choices=("string", "int"))
    run.add_argument("--fault", choices=FAULTS)
    run.add_argument("--fault-count", dest="fault_count", type=int)
    run.add_argument("--fault-commands", dest="fault_commands", nargs="*", metavar="CMD")
    run.add_argument("--slow-rate", dest="slow_rate", type=int, metavar="BYTES_PER_S")
    run.add_argument("--pad", type=int, metavar="BYTES")
    run.add_argument("--raw-status", dest="raw_status", type=int)
    run.add_argument("--raw-body", dest="raw_body")
    run.add_argument("--close-connections", dest="close_connections", action="store_const", const=True,
                     help="end every connection after its answer (no keep-alive)")

    args = parser.parse_args()
    if args.command == "make-certs":
        make_certs(args.directory)
        return 0
    return serve(args)


if __name__ == "__main__":
    sys.exit(main())
