#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The demo's client in Python, talking to the C demo's weather server and
relay (started here with ``orvane_demo --serve``): it asks the server
directly and through the relay, subscribes to the server's updates, and
tells both to stop, its callbacks reporting each peer's arrival and
departure.  It stops by itself.

    PYTHONPATH=build/python python3 examples/weather_client.py build/examples/orvane_demo
"""
import subprocess
import sys
import time

import orvane

WEATHER_REQ, WEATHER_RSP, WEATHER_UPDATE, QUIT_REQ = 0x100, 0x101, 0x200, 0x7F0
UPDATES = 3


def text(message: orvane.Message) -> str:
    return bytes(message.payload).split(b"\0")[0].decode()


def serve_until(client: orvane.Endpoint, done, seconds: float = 5) -> None:
    deadline = time.monotonic() + seconds
    while not done():
        if time.monotonic() > deadline:
            sys.exit("client   gave up waiting")
        client.serve(0.02)


def main(demo: str) -> None:
    with orvane.Endpoint("client") as client:
        up, updates = {}, []

        def on_open(name, spid):
            up[name] = spid
            print(f"client   open callback: {name} is up at {spid:#x}")

        def on_close(name, spid):
            up.pop(name, None)
            print(f"client   close callback: {name} ({spid:#x}) is gone")

        def on_update(message):
            updates.append(message.sequence)
            print(f"client   update {message.sequence}: {text(message)}")

        for name in ("weather-server", "relay"):
            client.open_remote(name, on_open=on_open, on_close=on_close)
        client.on(WEATHER_UPDATE, WEATHER_UPDATE, on_update)
        servers = subprocess.Popen([demo, "--serve"])
        serve_until(client, lambda: len(up) == 2)

        for name in ("weather-server", "relay"):
            started = time.monotonic()
            client.send(name, orvane.Message(WEATHER_REQ, size=64))
            with client.receive(WEATHER_RSP, timeout=5) as answer:
                took = (time.monotonic() - started) * 1e6
                print(f"client   asked {name + ':':<16} {text(answer)!r} in {took:.0f} us")

        client.subscribe("weather-server", WEATHER_UPDATE)
        print("client   subscribed to weather-server's updates")
        serve_until(client, lambda: len(updates) == UPDATES)

        for name in ("relay", "weather-server"):
            client.send(name, orvane.Message(QUIT_REQ))
        serve_until(client, lambda: not up)
        sys.exit(servers.wait(timeout=10))


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "orvane_demo")
