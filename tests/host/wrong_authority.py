"""Stands between Apache and the ACME test server on a booted host, and answers in its place as the file MODE has it. Runs there."""

import http.client
import http.server
import json
import pathlib
import ssl

FOLDER = pathlib.Path("/srv/pebble")
MODE = FOLDER / "mode"
LIMITED = {"type": "urn:ietf:params:acme:error:rateLimited", "detail": "too many new orders recently", "status": 429}
HUGE = 64 * 1024 * 1024
# Bytes of what is said; Apache writes it down more than once.
WORDS = {"wordy": 60 * 1024, "flood": 200 * 1024}


class Between(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        link = http.client.HTTPSConnection("127.0.0.1", 14000, context=ssl._create_unverified_context())
        link.request(self.command, self.path, body, dict(self.headers))
        answer = link.getresponse()
        headers = {name: value for name, value in answer.getheaders() if name.lower() not in ("content-length", "date", "transfer-encoding", "connection")}
        self.reply(*self.wrong(answer.status, headers, answer.read()))

    do_HEAD = do_POST = do_GET

    def wrong(self, status, headers, body):
        mode = MODE.read_text().strip() if MODE.exists() else ""
        if mode == "foreign" and self.path.startswith("/certZ/"):
            return 200, headers, (FOLDER / "foreign.pem").read_bytes()
        if self.path != "/order-plz":
            return status, headers, body
        if mode == "limited":
            return 429, {**headers, "Content-Type": "application/problem+json", "Retry-After": "3600"}, json.dumps(LIMITED).encode()
        if mode in WORDS:
            return 429, {**headers, "Content-Type": "application/problem+json"}, json.dumps({**LIMITED, "detail": "w" * WORDS[mode]}).encode()
        if mode == "nonsense":
            return 201, headers, b"<html>welcome</html>"
        if mode == "huge":
            return 201, headers, b" " * HUGE
        return status, headers, body

    def reply(self, status, headers, body):
        self.send_response(status)
        for name, value in {**headers, "Content-Length": str(len(body))}.items():
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def log_message(self, *_):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 14001), Between)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(FOLDER / "cert.pem", FOLDER / "key.pem")
server.socket = context.wrap_socket(server.socket, server_side=True)
server.serve_forever()
