"""A WebSocket server that says what a test tells it to say, one command a line, and prints what happens.

Commands: "text WORDS", "size BYTES" (a text of that many), "binary", "close CODE REASON", "drop".
Arguments: a certificate and its key, both or none.
"""
import asyncio
import ssl
import sys

import websockets

latest = None


def tell(*words):
    # One write a line, also where Python does not buffer.
    sys.stdout.write(" ".join(map(str, words)) + "\n")
    sys.stdout.flush()


async def serve(socket, path):
    global latest
    latest = socket
    tell("open", path)
    try:
        async for message in socket:
            tell("text" if isinstance(message, str) else "binary", message)
    except websockets.ConnectionClosedError:
        pass
    tell("closed", socket.close_code)


async def obey(command, words):
    if command == "text":
        await latest.send(words)
    elif command == "size":
        await latest.send("{" + " " * (int(words) - 2) + "}")
    elif command == "binary":
        await latest.send(b"\x00\x01")
    elif command == "close":
        code, _, reason = words.partition(" ")
        await latest.close(int(code), reason)
    elif command == "drop":
        latest.transport.abort()


async def main():
    context = None
    if len(sys.argv) > 2:
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        context.load_cert_chain(sys.argv[1], sys.argv[2])
    async with websockets.serve(serve, "127.0.0.1", 0, ssl=context, ping_interval=None) as server:
        tell("port", server.sockets[0].getsockname()[1])
        lines = asyncio.StreamReader()
        await asyncio.get_running_loop().connect_read_pipe(
            lambda: asyncio.StreamReaderProtocol(lines), sys.stdin)
        while line := await lines.readline():
            command, _, words = line.decode().rstrip("\n").partition(" ")
            await obey(command, words)


asyncio.run(main())
