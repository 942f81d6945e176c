"""A provisioning server that can be slow, stall, flow, cut and answer anything. One thread a request, port of its own."""

import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer


class Answer:
    """What the server says to one path. `gate`, if given, is waited for before the answer, or after `part` of it."""

    def __init__(self, body=b"", status=200, gate=None, part=None, flow=None, headers=None, cut=False):
        self.body = body.encode() if isinstance(body, str) else body
        self.status = status
        self.gate = gate      # threading.Event: the answer goes on when it is set
        self.part = part      # bytes sent before the gate
        self.flow = flow      # (bytes, seconds): the body goes out in such pieces, until the gate is set
        self.headers = headers or {}
        self.cut = cut        # the connection ends after `part`


class Server:
    def __init__(self, answers=None, host="127.0.0.1"):
        self.answers = dict(answers or {})
        self.requests = []
        self._ending = threading.Event()
        owner = self

        class Handler(BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                owner._answer(self)

            def log_message(self, *_):
                pass

        class Quiet(ThreadingHTTPServer):
            daemon_threads = True

            def handle_error(self, *_):
                """A client that goes away in mid-answer is part of the cases."""

        self._http = Quiet((host, 0), Handler)
        self.url = f"http://{host}:{self._http.server_address[1]}/"
        threading.Thread(target=self._http.serve_forever, daemon=True).start()

    def close(self):
        self._ending.set()
        self._http.shutdown()
        self._http.server_close()

    def wait_gate(self, gate):
        while gate is not None and not gate.wait(0.05):
            if self._ending.is_set():
                raise ConnectionAbortedError

    def _answer(self, request):
        self.requests.append(request.path)
        answer = self.answers.get(request.path, Answer(b"not here", 404))
        if answer.part is None and answer.flow is None:
            self.wait_gate(answer.gate)
        request.send_response(answer.status)
        for name, value in answer.headers.items():
            request.send_header(name, value)
        if answer.status not in (204, 304):
            request.send_header("Content-Length", str(len(answer.body)))
        request.end_headers()
        if answer.flow is not None:
            self._flow(request, answer)
        elif answer.part is not None:
            request.wfile.write(answer.body[:answer.part])
            request.wfile.flush()
            if answer.cut:
                request.close_connection = True
                return
            self.wait_gate(answer.gate)
            request.wfile.write(answer.body[answer.part:])
        elif answer.status not in (204, 304):
            request.wfile.write(answer.body)

    def _flow(self, request, answer):
        size, seconds = answer.flow
        sent = 0
        while sent < len(answer.body) and not answer.gate.wait(seconds) and not self._ending.is_set():
            request.wfile.write(answer.body[sent:sent + size])
            request.wfile.flush()
            sent += size
        request.wfile.write(answer.body[sent:])
