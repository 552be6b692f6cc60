#!/usr/bin/python3
# A TURN client that is not ours: takes one allocation of an address family and asks for permissions, one for
# each address given. Prints the relayed address, then a line each: the address and 0, or the relay's error code.
# Arguments: HOST PORT 4|6 USER PASSWORD ADDRESS...

import hashlib
import hmac
import ipaddress
import os
import socket
import struct
import sys

COOKIE = 0x2112A442
ALLOCATE, CREATE_PERMISSION = 0x0003, 0x0008
SUCCESS, FAILURE = 0x0100, 0x0110
USERNAME, INTEGRITY, ERROR_CODE, PEER, REALM, NONCE = 0x0006, 0x0008, 0x0009, 0x0012, 0x0014, 0x0015
RELAYED, FAMILY, TRANSPORT = 0x0016, 0x0017, 0x0019
UDP = bytes([17, 0, 0, 0])
FAMILIES = {4: 1, 6: 2}


def attribute(kind, value):
    return struct.pack("!HH", kind, len(value)) + value + bytes(-len(value) % 4)


def mask(transaction, size):
    return (struct.pack("!I", COOKIE) + transaction)[:size]


def xor(left, right):
    return bytes(a ^ b for a, b in zip(left, right))


def address_value(address, port, transaction):
    packed = ipaddress.ip_address(address).packed
    family = 1 if len(packed) == 4 else 2
    return struct.pack("!BBH", 0, family, port ^ (COOKIE >> 16)) + xor(packed, mask(transaction, len(packed)))


def attributes_of(message):
    found, at = {}, 20
    while at + 4 <= len(message):
        kind, size = struct.unpack_from("!HH", message, at)
        found.setdefault(kind, message[at + 4:at + 4 + size])
        at += 4 + size + -size % 4
    return found


class Client:
    def __init__(self, host, port, user, password):
        self.socket = socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.settimeout(0.5)
        self.socket.connect((host, port))
        self.user, self.password = user, password
        self.realm = self.nonce = None

    def ask(self, method, make_attributes):
        while True:
            kind, found, transaction = self.ask_once(method, make_attributes)
            code = found[ERROR_CODE][2] * 100 + found[ERROR_CODE][3] if kind == method | FAILURE else 0
            is_new = self.nonce != found.get(NONCE, self.nonce)
            if code not in (401, 438) or not is_new:
                return code, found, transaction
            self.realm, self.nonce = found[REALM], found[NONCE]

    def ask_once(self, method, make_attributes):
        transaction = os.urandom(12)
        body = make_attributes(transaction)
        if self.nonce:
            body += attribute(USERNAME, self.user.encode()) + attribute(REALM, self.realm)
            body += attribute(NONCE, self.nonce)
            head = struct.pack("!HHI", method, len(body) + 24, COOKIE) + transaction
            key = hashlib.md5(b":".join((self.user.encode(), self.realm, self.password.encode()))).digest()
            body += attribute(INTEGRITY, hmac.new(key, head + body, hashlib.sha1).digest())
        request = struct.pack("!HHI", method, len(body), COOKIE) + transaction + body
        for _ in range(20):
            self.socket.send(request)
            try:
                response = self.socket.recv(2048)
            except socket.timeout:
                continue
            if response[8:20] == transaction:
                return struct.unpack_from("!H", response)[0], attributes_of(response), transaction
        sys.exit("the relay does not answer")


def main():
    host, port, version, user, password = sys.argv[1:6]
    client = Client(host, int(port), user, password)
    family = bytes([FAMILIES[int(version)], 0, 0, 0])
    code, found, transaction = client.ask(
        ALLOCATE, lambda _: attribute(TRANSPORT, UDP) + attribute(FAMILY, family))
    if code:
        sys.exit(f"no allocation: {code}")
    value = found[RELAYED]
    print(ipaddress.ip_address(xor(value[4:], mask(transaction, len(value) - 4))))
    for address in sys.argv[6:]:
        code, _, _ = client.ask(
            CREATE_PERMISSION, lambda transaction: attribute(PEER, address_value(address, 7000, transaction)))
        print(address, code)


main()
