"""A server of bytes: it says anything, valid HTTP or not, and breaks a connection wherever it is told to."""

import socket
import ssl
import struct
import threading

HEAD = b"HTTP/1.1 200 OK\r\n"


def ok(body, *headers):
    lines = [b"Content-Length: %d" % len(body), *headers]
    return HEAD + b"".join(line + b"\r\n" for line in lines) + b"\r\n" + body


def redirect(location):
    return b"HTTP/1.1 302 Found\r\nContent-Length: 0\r\nLocation: " + location.encode() + b"\r\n\r\n"


def endless(head):
    def answer(connection):
        connection.sendall(head + b"\r\n")
        while True:
            connection.sendall(b"x" * 65536)
    return answer


def reset_after(data):
    """Sends this much and resets the connection, so that the client gets ECONNRESET rather than an end of file."""
    def answer(connection):
        if data:
            connection.sendall(data)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    return answer


class RawServer:
    """Answers with bytes. An answer is bytes, a function that is handed the connection, or a list of these, one a
    request; `answer` is for all paths that have none of their own. `certificate` is a PEM file with its key, or an SSL
    context. `accept`, if given, is handed each connection instead, before anything is read from it."""

    def __init__(self, answers=None, answer=None, certificate=None, accept=None, host="127.0.0.1"):
        self.answers = dict(answers or {})
        self.answer = answer
        self.requests = []        # (path, {header: value})
        self._accepted = accept
        self._ending = threading.Event()
        self._open = set()
        self._tls = certificate
        if isinstance(certificate, str):
            self._tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self._tls.load_cert_chain(certificate)
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self._listening = socket.create_server((host, 0), family=family)
        self.port = self._listening.getsockname()[1]
        name = f"[{host}]" if ":" in host else host
        self.url = f"http{'s' if certificate else ''}://{name}:{self.port}/"
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        """Breaks the connections under way, too."""
        if self._ending.is_set():
            return
        self._ending.set()
        self._listening.shutdown(socket.SHUT_RDWR)
        self._listening.close()
        for connection in list(self._open):
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # has ended meanwhile

    def wait_close(self):
        """For an answer that leaves its client waiting."""
        self._ending.wait()

    def _accept(self):
        while not self._ending.is_set():
            try:
                connection, _ = self._listening.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        self._open.add(connection)
        plain = connection
        try:
            if self._accepted:
                with connection:
                    self._accepted(connection)
                return
            if self._tls:
                connection = self._tls.wrap_socket(connection, server_side=True)
                self._open.add(connection)
            with connection, connection.makefile("rb") as lines:
                self._say(connection, *self._read(lines))
        except OSError:
            pass  # a client that has had enough
        finally:
            self._open -= {plain, connection}
            connection.close()

    @staticmethod
    def _read(lines):
        words = lines.readline().split()
        if len(words) < 2:
            raise ConnectionError("no request came")
        headers = {}
        while line := lines.readline().strip():
            name, value = line.decode().split(":", 1)
            headers[name.lower()] = value.strip()
        return words[1].decode(), headers

    def _say(self, connection, path, headers):
        self.requests.append((path, headers))
        answer = self.answers.get(path, self.answer)
        if isinstance(answer, list):
            answer = answer.pop(0)
        if callable(answer):
            answer(connection)
        else:
            connection.sendall(answer or b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")
