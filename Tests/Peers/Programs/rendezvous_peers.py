"""Hosts and phones of the rendezvous service that are not ours, made after docs/protocol.md, and peers that mean ill.

Arguments: what to play, the port, the process of the service, and the certificate of the service if it has one. Exits 0
when all went as the protocol says, and tells what did not.
"""
import asyncio
import base64
import hashlib
import json
import os
import signal
import ssl
import sys
import time

import websockets
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, utils

what, port, process = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
certificate = sys.argv[4] if len(sys.argv) > 4 else None
context = ssl.create_default_context(cafile=certificate) if certificate else None
patience = 20  # seconds; nothing here takes one when all is well
http_answer = b"HTTP/1.1 "


class Key:
    def __init__(self):
        self.private = ec.generate_private_key(ec.SECP256R1())
        self.public = self.private.public_key().public_bytes(
            serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
        self.host_id = base64.b32encode(hashlib.sha256(self.public).digest()[:16]).decode().rstrip("=").lower()

    def registration(self, nonce):
        text = f"pelorin-host-v1|{self.host_id}|{nonce}".encode()
        r, s = utils.decode_dss_signature(self.private.sign(text, ec.ECDSA(hashes.SHA256())))
        signature = r.to_bytes(32, "big") + s.to_bytes(32, "big")
        return {"type": "register", "publicKey": base64.b64encode(self.public).decode(),
                "signature": base64.b64encode(signature).decode(), "name": "Studio"}


def expect(condition, text):
    if not condition:
        raise AssertionError(text)


def url(target):
    return f"{'wss' if context else 'ws'}://localhost:{port}{target}"


def connect(target):
    return websockets.connect(url(target), ssl=context, compression=None, ping_interval=None, max_size=None,
                              close_timeout=1)


async def hear(socket):
    return json.loads(await asyncio.wait_for(socket.recv(), patience))


async def say(socket, **message):
    await socket.send(json.dumps(message))


async def close_code(socket):
    await asyncio.wait_for(socket.wait_closed(), patience)
    return socket.close_code


async def registered(key):
    host = await connect("/v1/host")
    challenge = await hear(host)
    expect(challenge["type"] == "challenge" and len(challenge["nonce"]) >= 22, challenge)
    await say(host, **key.registration(challenge["nonce"]))
    answer = await hear(host)
    expect(answer == {"type": "registered"}, answer)
    return host


async def dial():
    return await asyncio.open_connection("localhost", port, ssl=context)


async def exchange(request):
    """What the service answers to those bytes until it closes."""
    reader, writer = await dial()
    writer.write(request)
    answer = await asyncio.wait_for(reader.read(), patience)
    writer.close()
    return answer


async def is_online(key):
    answer = await exchange(f"GET /v1/status/{key.host_id} HTTP/1.1\r\nHost: a\r\n\r\n".encode())
    head, _, body = answer.partition(b"\r\n\r\n")
    expect(head.startswith(b"HTTP/1.1 200 "), head)
    return json.loads(body)["online"]


async def session(key, host):
    """A phone asks for that host, is accepted, and both talk."""
    phone = await connect(f"/v1/connect/{key.host_id}")
    hello = await hear(phone)
    expect(hello["type"] == "hello" and hello["online"] is True, hello)
    await say(phone, type="connect", request={"nonce": "for the host alone", "名": "手机"})
    asked = await hear(host)
    expect(asked["type"] == "connect" and asked["request"]["名"] == "手机", asked)
    await say(host, type="accept", session=asked["session"], response={"ufrag": "u"})
    accepted = await hear(phone)
    expect(accepted == {"type": "accept", "response": {"ufrag": "u"}}, accepted)
    return phone, asked["session"]


async def flow():
    key = Key()
    expect(not await is_online(key), "online before it registered")
    async with connect(f"/v1/connect/{key.host_id}") as early:
        expect((await hear(early))["online"] is False, "an absent host")
        expect(await close_code(early) == 1000, "an absent host's phone is closed in order")

    host = await registered(key)
    expect(await is_online(key), "offline after it registered")
    phone, name = await session(key, host)
    await say(phone, type="signal", data={"n": 1})
    expect(await hear(host) == {"type": "signal", "session": name, "data": {"n": 1}}, "the phone's signal")
    await say(host, type="signal", session=name, data={"n": 2})
    expect(await hear(phone) == {"type": "signal", "data": {"n": 2}}, "the host's signal")
    for end in (host, phone):
        await end.send("ping")
        expect(await asyncio.wait_for(end.recv(), patience) == "pong", "ping")
        await asyncio.wait_for(await end.ping(), patience)
    await phone.close()
    expect(await hear(host) == {"type": "closed", "session": name}, "the phone left")

    newer = await registered(key)
    expect(await close_code(host) == 1000 and host.close_reason == "replaced", "the older registration")
    phone, name = await session(key, newer)
    await newer.close()
    expect(await hear(phone) == {"type": "closed"} and await close_code(phone) == 1000, "the host left")
    while await is_online(key):
        await asyncio.sleep(0.01)


async def impostors():
    key, other = Key(), Key()
    async with connect("/v1/host") as socket:
        stale = (await hear(socket))["nonce"]
        forged = key.registration(stale)
        forged["signature"] = other.registration(stale)["signature"]
        await say(socket, **forged)
        expect((await hear(socket))["type"] == "error", "another key's signature")
        expect(await close_code(socket) == 1008, "another key's signature")
    async with connect("/v1/host") as socket:
        await hear(socket)
        await say(socket, **key.registration(stale))
        expect((await hear(socket))["type"] == "error", "the nonce of another connection")
        expect(await close_code(socket) == 1008, "the nonce of another connection")
    expect(not await is_online(key), "an impostor is online")


def frame(payload, first=0x81):
    size = len(payload)
    length = bytes([0x80 | size]) if size < 126 else \
        b"\xfe" + size.to_bytes(2, "big") if size < 65536 else b"\xff" + size.to_bytes(8, "big")
    return bytes([first]) + length + b"\0\0\0\0" + payload


upgrade = (b"GET /v1/host HTTP/1.1\r\nHost: a\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
           b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n")


async def rule_breakers():
    for bytes_sent, code in (
            (frame(b"\x00\x01", 0x82), 1003), (frame(b"\xc3\x28"), 1007), (b"\x81\x02hi", 1002), (frame(b"", 0xf1), 1002),
            (frame(b"x" * 65537), 1009), (frame(b"[" * 4000), 1008), (frame(b"hello"), 1008), (frame(b"{}" * 3000), 1009),
            (b"\x81\xff\xff\xff\xff\xff\xff\xff\xff\xff", 1009)):
        answer = await exchange(upgrade + bytes_sent + frame(b"", 0x88))
        expect(answer.startswith(b"HTTP/1.1 101 "), answer[:80])
        # Its close frame is the service's last word: the code stands before the reason.
        expect(b"\x88" in answer and code.to_bytes(2, "big") in answer.split(b"\x88", 1)[1][:3], f"{code}: {answer!r}")
    for request, status in ((b"\x16\x03\x01" * 40 + b"\r\n\r\n", b"400"), (b"POST / HTTP/1.1\r\n\r\n", b"400"),
                            (b"GET /" + b"a" * 9000, b"431"), (b"GET /v1/connect/short HTTP/1.1\r\n\r\n", b"404"),
                            (b"GET /v1/host HTTP/1.1\r\n\r\n", b"426")):
        answer = await exchange(request)
        expect(answer.startswith(http_answer + status), f"{status}: {answer[:80]!r}")


async def the_slow():
    """Half a request, a byte now and then, and none at all: each ends within the time that a request has."""
    drip = await dial()
    silent = await dial()
    half = await dial()
    half[1].write(upgrade[:-2])
    unregistered = await dial()
    unregistered[1].write(upgrade)
    started = time.monotonic()

    async def dripping():
        for byte in upgrade:
            drip[1].write(bytes([byte]))
            await asyncio.sleep(0.1)
    task = asyncio.ensure_future(dripping())
    for reader, _ in (drip, silent, half, unregistered):
        answer = await asyncio.wait_for(reader.read(), patience)
        expect(answer.startswith(http_answer), answer[:80])
    task.cancel()
    expect(time.monotonic() - started > 3, "cut off before its time")


async def the_deaf():
    """A host that does not read is not cut off for what a phone sends; the phone is told to try again."""
    key = Key()
    host = await registered(key)
    phone, _ = await session(key, host)
    host.transport.pause_reading()
    try:
        for _ in range(10000):
            await asyncio.wait_for(phone.send(json.dumps({"type": "signal", "data": {"x": "x" * 50000}})), patience)
    except websockets.ConnectionClosed:
        pass
    expect(await close_code(phone) in (1008, 1013), phone.close_code)
    expect(await is_online(key), "the host was cut off")


async def the_loud():
    """10,000 messages at once: cut off as a rule-breaker, and others are served meanwhile."""
    reader, writer = await dial()
    writer.write(upgrade + frame(b'{"type":"?"}') * 10000)
    key = Key()
    host = await registered(key)
    phone, _ = await session(key, host)
    await asyncio.wait_for(reader.read(), patience)
    await phone.close()


async def the_many():
    """One source has 64 connections, and not one more; when one goes another may come."""
    held = [await dial() for _ in range(64)]
    for _, writer in held:
        writer.write(b"G")
    try:
        reader, _ = await dial()
        expect(await asyncio.wait_for(reader.read(), patience) == b"", "the 65th was let in")
    except ConnectionError:  # before its TLS had begun
        pass
    held[0][1].close()
    deadline = time.monotonic() + patience
    while True:
        try:
            await is_online(Key())
            return
        except (OSError, AssertionError):
            expect(time.monotonic() < deadline, "nobody else is let in any more")


async def the_end():
    key = Key()
    host = await registered(key)
    phone, _ = await session(key, host)
    os.kill(process, signal.SIGTERM)
    expect(await close_code(host) == 1001 and await close_code(phone) == 1001, "the service ends")

plays = {"flow": flow, "impostors": impostors, "rule breakers": rule_breakers, "the slow": the_slow,
         "the deaf": the_deaf, "the loud": the_loud, "the many": the_many, "the end": the_end}
asyncio.run(plays[what]())
