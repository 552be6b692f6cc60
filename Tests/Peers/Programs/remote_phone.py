"""A phone that is not ours, made after docs/protocol.md: pairs through the rendezvous service by the link that is its
argument, and asks as a paired phone, as others and as nobody should. Exits 0 when the host answered as the protocol says.
"""
import asyncio
import base64
import hashlib
import hmac
import json
import os
import sys
import time
from urllib.parse import parse_qs, urlsplit

import websockets
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec

patience = 20  # seconds; nothing here takes one when all is well
not_paired = "这部手机没有和这台 Mac 配对（可能在 Mac 上被移除了），请重新配对"
not_verified = "连接请求没有通过验证（手机时间不准，或请求被重放）"
bad_code = "配对码不对、已经过期或已经用过。请在 Mac 菜单里重新点「配对新手机」"
unreadable = "看不懂的请求"

offer = {name: values[0] for name, values in parse_qs(urlsplit(sys.argv[1]).query).items()}
host_id = offer["host"]
address = offer["service"].replace("http", "ws", 1) + "/v1/connect/" + host_id
code = base64.urlsafe_b64decode(offer["code"] + "=" * (-len(offer["code"]) % 4))


def b64(data):
    return base64.b64encode(data).decode()


class Phone:
    def __init__(self):
        self.key = ec.generate_private_key(ec.SECP256R1())
        self.public = self.key.public_key().public_bytes(
            serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint)
        self.fingerprint = b64(hashlib.sha256(self.public).digest())

    def request(self, seconds_off=0, nonce=None):
        made = {"clientKeyHash": self.fingerprint, "timestamp": int(time.time()) + seconds_off,
                "nonce": nonce or b64(os.urandom(16)), "ufrag": "aufrag12", "password": "apasswordofchars24letter",
                "candidates": [{"ip": "192.0.2.77", "port": 51820, "type": "host"}]}
        text = "|".join(["pelorin-connect-v1", host_id, str(made["timestamp"]), made["nonce"], made["ufrag"],
                         made["password"], "host 192.0.2.77:51820"])
        made["signature"] = b64(self.key.sign(text.encode(), ec.ECDSA(hashes.SHA256())))
        return made

    def pairing(self, with_code):
        made = self.request()
        del made["clientKeyHash"]
        text = "|".join(["pelorin-pair-v1", host_id, str(made["timestamp"]), made["nonce"], made["ufrag"],
                         self.fingerprint])
        made.update(purpose="pair", deviceName="Phone 7", clientKey=b64(self.public),
                    proof=b64(hmac.new(with_code, text.encode(), hashlib.sha256).digest()))
        return made


async def hear(socket):
    while True:
        text = await asyncio.wait_for(socket.recv(), patience)
        if text != "pong":
            return json.loads(text)


async def ask(request):
    """The service's answer; the phone leaves then."""
    async with websockets.connect(address, compression=None, close_timeout=1) as socket:
        hello = await hear(socket)
        assert hello["type"] == "hello" and hello["online"], hello
        await socket.send(json.dumps({"type": "connect", "request": request}))
        while (answer := await hear(socket))["type"] not in ("accept", "reject"):
            pass
        return answer


async def refused(what, request, reason):
    answer = await ask(request)
    assert answer == {"type": "reject", "reason": reason}, f"{what}: {answer}"


async def main():
    phone, stranger = Phone(), Phone()
    await refused("before pairing", phone.request(), not_paired)
    await refused("another code", phone.pairing(os.urandom(32)), bad_code)
    paired = await ask(phone.pairing(code))
    assert paired["type"] == "accept" and paired["response"]["paired"] is True, paired
    assert paired["response"]["hostName"] == offer["name"], paired
    await refused("the code once more", stranger.pairing(code), bad_code)

    granted = phone.request()
    accepted = await ask(granted)
    assert accepted["type"] == "accept" and {"ufrag", "password", "candidates"} <= set(accepted["response"]), accepted
    await refused("replayed", granted, not_verified)
    await refused("its nonce in a new request", phone.request(nonce=granted["nonce"]), not_verified)
    for seconds in (-121, 122):  # the host's clock may begin another second meanwhile
        await refused(f"clock {seconds} s off", phone.request(seconds), not_verified)
    within = await ask(phone.request(-110))
    assert within["type"] == "accept", within
    await refused("a stranger", stranger.request(), not_paired)
    forged = phone.request()
    forged["signature"] = stranger.request()["signature"]
    await refused("forged", forged, not_verified)
    for member, value in (("ufrag", "bufrag12"), ("password", "b" * 24), ("timestamp", int(time.time()) + 1),
                          ("candidates", [{"ip": "192.0.2.78", "port": 51820, "type": "host"}])):
        changed = phone.request()
        changed[member] = value
        await refused("changed " + member, changed, not_verified)
        del changed[member]
        await refused("without " + member, changed, unreadable)


asyncio.run(main())
