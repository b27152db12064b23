# SPDX-License-Identifier: Apache-2.0
"""The Python package against real processes: Python peers started from
this file (``peer`` below).  (The example client against the C demo's
server and relay is a test of its own.)"""
import asyncio
import signal
import subprocess
import sys
import time

import pytest

import orvane
from orvane.linx import ATTACH_SIG, HUNT_SIG, Linx

WEATHER_REQ, WEATHER_RSP, WEATHER_UPDATE, QUIT_REQ = 0x100, 0x101, 0x200, 0x7F0
ECHO_REQ, PUBLISH_REQ = 0x300, 0x310


def text(message):
    return bytes(message.payload).split(b"\0")[0].decode()


def peer(name):
    """A Python peer: publishes what PUBLISH_REQ brings, answers any other
    request in capitals, stops at QUIT_REQ or after 10 s idle."""
    with orvane.Endpoint(name) as endpoint:
        while True:
            with endpoint.receive(timeout=10) as request:
                if request.type == QUIT_REQ:
                    return
                if request.type == PUBLISH_REQ:
                    endpoint.publish(orvane.Message(WEATHER_UPDATE, bytes(request.payload)))
                else:
                    endpoint.reply(request, bytes(request.payload).upper())


def start_peer(name):
    return subprocess.Popen([sys.executable, __file__, name])


def serve_until(endpoint, done, seconds=10):
    deadline = time.monotonic() + seconds
    while not done() and time.monotonic() < deadline:
        endpoint.serve(0.02)
    assert done()


def test_every_error_is_its_exception_and_a_message_that_was_not_sent_stays_usable():
    with orvane.Endpoint("errors") as endpoint:
        with pytest.raises(orvane.Timeout) as caught:
            endpoint.receive(timeout=0.05)
        assert caught.value.code == 102 and caught.value.text == "receive timeout"
        with pytest.raises(orvane.Timeout):
            endpoint.open_remote_sync("nobody-here", timeout=0.05)
        message = orvane.Message(ECHO_REQ, b"kept")
        with pytest.raises(orvane.NotFound):
            endpoint.send("nobody-here", message)
        assert bytes(message.payload) == b"kept"
        with pytest.raises(orvane.OrvaneError) as conflict:
            orvane.Endpoint("errors")
        assert conflict.value.code == 303
        with pytest.raises(ValueError):
            endpoint.receive(timeout=-1)

        gone = start_peer("gone")
        spid = endpoint.open_remote_sync("gone", timeout=10)
        gone.kill()
        gone.wait()
        deadline = time.monotonic() + 10
        with pytest.raises(orvane.ConnectionReset):
            while time.monotonic() < deadline:  # until linxd has seen the death
                endpoint.send(spid, orvane.Message(ECHO_REQ))
                time.sleep(0.01)
        message.release()
        # A recycled buffer's old bytes never leave: the payload beyond what is given is zero.
        orvane.Message(ECHO_REQ, b"secret-password" * 4).release()
        assert bytes(orvane.Message(ECHO_REQ, b"ab", size=60).payload) == b"ab" + bytes(58)
        # The configuration was loaded by the first open: another file is refused with its reason.
        with pytest.raises(orvane.OrvaneError) as late:
            orvane.set_config_file("/nonexistent/orvane.pb")
        assert late.value.code == 301
    with pytest.raises(orvane.NotOpen):
        endpoint.receive(timeout=0)
    flags = orvane.debug_flags()
    orvane.set_debug_flags(flags | orvane.DEBUG_STDERR)
    assert orvane.debug_flags() == flags | orvane.DEBUG_STDERR
    orvane.set_debug_flags(flags)


def test_a_python_peer_answers_is_seen_dying_and_returning_and_a_raising_callback_is_logged(caplog):
    with orvane.Endpoint("watcher") as watcher:
        events = []

        def on_open(name, spid):
            events.append(("open", spid))
            raise RuntimeError("a callback that raises")

        watcher.open_remote("echo", on_open=on_open, on_close=lambda name, spid: events.append(("close", spid)))
        echo = start_peer("echo")
        serve_until(watcher, lambda: len(events) == 1)
        assert "a callback that raises" in caplog.text

        watcher.send("echo", orvane.Message(WEATHER_REQ, b"set aside"))
        watcher.send("echo", orvane.Message(ECHO_REQ, b"hello"))
        with watcher.receive(ECHO_REQ | 1, timeout=5) as answer:
            assert bytes(answer.payload) == b"HELLO"
        with watcher.receive([WEATHER_RSP], timeout=0) as answer:  # was set aside, not lost
            assert bytes(answer.payload) == b"SET ASIDE"

        # A peer that floods other types: what is set aside stays bounded,
        # a receive for one type still gets it, and nothing is lost.
        for number in range(1100):
            watcher.send("echo", orvane.Message(WEATHER_REQ, sequence=number))
        watcher.send("echo", orvane.Message(ECHO_REQ, b"after the flood"))
        with watcher.receive(ECHO_REQ | 1, timeout=10) as answer:
            assert bytes(answer.payload) == b"AFTER THE FLOOD"
        with pytest.raises(orvane.OrvaneError) as full:
            watcher.receive([0x901, 0x903], timeout=0)
        assert full.value.code == 201
        assert [watcher.receive(WEATHER_RSP, timeout=5).sequence for _ in range(1100)] == list(range(1100))

        echo.send_signal(signal.SIGKILL)
        echo.wait()
        serve_until(watcher, lambda: len(events) == 2)
        assert events[1] == ("close", events[0][1])
        echo = start_peer("echo")
        serve_until(watcher, lambda: len(events) == 3)
        assert events[2][0] == "open" and events[2][1] != events[0][1]
        watcher.send("echo", orvane.Message(QUIT_REQ))
        assert echo.wait(timeout=10) == 0


def test_asyncio_receives_what_a_peer_publishes_without_a_thread():
    async def scenario(subscriber, publisher_spid):
        first = await asyncio.wait_for(subscriber.receive_async(WEATHER_UPDATE), 10)
        assert text(first) == "one"
        subscriber.send(publisher_spid, orvane.Message(PUBLISH_REQ, b"two"))
        subscriber.send(publisher_spid, orvane.Message(PUBLISH_REQ, b"three"))
        seen = []
        async for message in subscriber.messages(WEATHER_UPDATE):
            seen.append(text(message))
            if len(seen) == 2:
                break
        return seen

    publisher = start_peer("publisher")
    with orvane.Endpoint("subscriber") as subscriber:
        spid = subscriber.open_remote_sync("publisher", timeout=10)
        subscriber.subscribe(spid, WEATHER_UPDATE)
        time.sleep(0.2)  # the publisher's receive loop takes the subscription
        subscriber.send(spid, orvane.Message(PUBLISH_REQ, b"one"))
        assert asyncio.run(scenario(subscriber, spid)) == ["two", "three"]
        subscriber.send(spid, orvane.Message(QUIT_REQ))
    assert publisher.wait(timeout=10) == 0


def test_raw_linx_hunts_sends_and_attaches():
    with Linx("raw-a") as a:
        b = Linx("raw-b")
        a.hunt("raw-b")
        hunted = a.receive([HUNT_SIG], timeout=5)
        assert hunted.sender == b.spid
        a.send(b.spid, 77, b"payload")
        assert b.receive(timeout=5) == (77, a.spid, b"payload")
        assert b.receive(timeout=0) is None
        a.attach(b.spid)
        b.close()
        assert a.receive([ATTACH_SIG], timeout=5).sender == hunted.sender
        with pytest.raises(OSError):
            a.send(hunted.sender, 77)


if __name__ == "__main__":
    peer(sys.argv[1])
