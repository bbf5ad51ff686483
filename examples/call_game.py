#!/usr/bin/env python3
"""Answers calls and plays a game: guess a digit. A * says hello when it is right. call_game.py [SOCKET]"""
import json, os, random, socket, sys

sip = socket.socket(socket.AF_UNIX)
sip.connect(sys.argv[1] if len(sys.argv) > 1 else "/tmp/zelmedia-sip.sock")
lines = sip.makefile("r", encoding="utf-8")
last_id = 0


def ask(request, **fields):  # the answer comes among the events
    global last_id
    last_id += 1
    sip.sendall((json.dumps({"id": last_id, "request": request, **fields}) + "\n").encode())


def guess(leg):
    print("guess", flush=True)
    ask("collect_digits", **leg, max=1, first_ms=10000)


json.loads(lines.readline())  # hello
ask("register", route="*", instance=f"call_game-{os.getpid()}")
secret = {}  # by call
for line in lines:
    message = json.loads(line)
    if message.get("ok") is False:
        print("refused:", message["error"]["text"], flush=True)
    leg = {key: message[key] for key in ("call", "leg") if key in message}
    event = message.get("event")
    if event == "offered":
        ask("answer", **leg)
    elif event == "answered":
        secret[leg["call"]] = str(random.randrange(10))
        guess(leg)
    elif event == "digits" and message["digits"] == secret.get(leg["call"]):
        ask("send_digits", **leg, digits="*")
        ask("hangup", **leg)
    elif event == "digits":
        guess(leg)
    elif event == "ended":
        print(leg["call"], "ended:", message["reason"], flush=True)
