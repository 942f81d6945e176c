"""Runs inside lab/phone and does what the runner asks: starts programs among the phone's services, and talks to them.

A request is a line of JSON on standard input, its answer one on standard output.
"""

import json
import os
import subprocess
import sys

started = {}


def run(request):
    done = subprocess.run(request["argv"], input=request.get("input"), capture_output=True, text=True,
                          timeout=request.get("timeout", 120), check=False)
    return {"status": done.returncode, "out": done.stdout, "err": done.stderr}


def start(request):
    process = subprocess.Popen(request["argv"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    started[process.pid] = process
    return {"pid": process.pid}


def ask(request):
    """One line to a program that was started, and the line that it answers."""
    process = started[request["pid"]]
    process.stdin.write(request["line"] + "\n")
    process.stdin.flush()
    answer = process.stdout.readline()
    if not answer:
        raise RuntimeError(f"the program ended with status {process.wait()} instead of answering {request['line']!r}")
    return {"line": answer.rstrip("\n")}


def stop(request):
    process = started.pop(request["pid"])
    process.stdin.close()
    process.terminate()
    return {"status": process.wait(30)}


def affinity(request):
    """The CPUs of all threads of a process; 0 is the agent itself, whose later children inherit them."""
    pid = request["pid"] or os.getpid()
    for task in os.listdir(f"/proc/{pid}/task"):
        os.sched_setaffinity(int(task), request["cpus"])
    return {}


ACTIONS = {"run": run, "start": start, "ask": ask, "stop": stop, "affinity": affinity}

print(json.dumps({"ready": True}), flush=True)
for text in sys.stdin:
    asked = json.loads(text)
    try:
        answered = ACTIONS[asked["action"]](asked)
    except Exception as error:  # the runner raises it again
        answered = {"failed": f"{type(error).__name__}: {error}"}
    print(json.dumps(answered), flush=True)
for left in list(started):
    stop({"pid": left})
