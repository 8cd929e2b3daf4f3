# A small editor on Python's http.server, for running the bridge against real HTTP servers.
#
# Usage: python3 python_editor.py MODE, where MODE is the editor's connection model:
#   one      HTTPServer, HTTP/1.1 kept alive: one connection served at a time, the next waits
#   threads  ThreadingHTTPServer, HTTP/1.1 kept alive: a thread for each connection
#   close    HTTPServer answering HTTP/1.0 without Content-Length: each answer ends as it closes
#
# It prints its port, answers from answers.txt and snapshot.png beside it, and when its standard
# input closes prints one line of JSON and exits: "requests" by method and path (an edit is counted
# once its whole body has arrived) and "bodyBytes" by method and path.

import http.server
import json
import os
import sys
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
MODE = sys.argv[1]


def load_answers():
    with open(os.path.join(HERE, "snapshot.png"), "rb") as png:
        answers = {"GET /v1/snapshot.png": (png.read(), "image/png")}
    with open(os.path.join(HERE, "answers.txt"), encoding="utf-8") as lines:
        for line in lines:
            if line.strip() and not line.startswith("#"):
                method, path, body = line.rstrip("\n").split(" ", 2)
                answers[method + " " + path] = (body.encode(), "application/json")
    return answers


ANSWERS = load_answers()
lock = threading.Lock()
requests, body_bytes = {}, {}


class Editor(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.0" if MODE == "close" else "HTTP/1.1"

    def answer(self):
        key = self.command + " " + self.path
        length = int(self.headers.get("Content-Length", 0))
        body = self.rfile.read(length)
        if len(body) < length:  # the request was cut off: nothing is applied
            self.close_connection = True
            return
        with lock:
            requests[key] = requests.get(key, 0) + 1
            body_bytes[key] = body_bytes.get(key, 0) + len(body)
        if key not in ANSWERS:
            self.send_error(404)
            return
        data, kind = ANSWERS[key]
        self.send_response(200)
        self.send_header("Content-Type", kind)
        if MODE != "close":
            self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    do_GET = do_POST = do_PUT = answer

    def log_message(self, *args):
        pass


class Server(http.server.ThreadingHTTPServer if MODE == "threads" else http.server.HTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # a client that left mid-answer is no news


def report_when_input_ends():
    sys.stdin.read()
    try:
        with lock:
            print(json.dumps({"requests": requests, "bodyBytes": body_bytes}), flush=True)
    finally:  # even when nobody reads it any more
        os._exit(0)


server = Server(("127.0.0.1", 0), Editor)
print(server.server_address[1], flush=True)
threading.Thread(target=report_when_input_ends, daemon=True).start()
server.serve_forever()
