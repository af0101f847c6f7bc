#!/usr/bin/env python3
"""A TCP relay on 127.0.0.1 that delays every byte by RTT/2 in each direction and keeps their
order: a link with a round-trip time, in front of a server on loopback. Counts the connections
it carries and the TLS handshakes (ClientHello records) that open them.
usage: delayrelay.py TARGET_PORT RTT_MS   (prints "delayrelay listening on PORT", runs until killed)"""
import asyncio
import socket
import sys
import threading
import time


class DelayRelay:
    def __init__(self, target_port, rtt_ms=0.0):
        self.target_port = target_port
        self.one_way = rtt_ms / 2000.0
        self.connections = 0
        self.handshakes = 0
        self.loop = asyncio.new_event_loop()
        self.server = None
        ready = threading.Event()
        self.thread = threading.Thread(target=self._run, args=(ready,), daemon=True)
        self.thread.start()
        ready.wait()

    def set_rtt(self, rtt_ms):
        self.one_way = rtt_ms / 2000.0

    def reset_counts(self):
        self.connections = self.handshakes = 0

    @property
    def port(self):
        return self.server.sockets[0].getsockname()[1]

    def _run(self, ready):
        asyncio.set_event_loop(self.loop)
        self.server = self.loop.run_until_complete(asyncio.start_server(self._client, '127.0.0.1', 0))
        ready.set()
        self.loop.run_forever()

    async def _client(self, client_reader, client_writer):
        self.connections += 1
        try:
            server_reader, server_writer = await asyncio.open_connection('127.0.0.1', self.target_port)
        except OSError:
            client_writer.close()
            return
        for writer in (client_writer, server_writer):
            # The relay must not add a delay of its own: every piece leaves when it is due.
            writer.get_extra_info('socket').setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        await asyncio.gather(self._pump(client_reader, server_writer, True),
                             self._pump(server_reader, client_writer, False))
        for writer in (client_writer, server_writer):
            writer.close()

    async def _pump(self, reader, writer, from_client):
        queue = asyncio.Queue()
        sender = asyncio.ensure_future(self._send(queue, writer))
        first = from_client
        while True:
            try:
                data = await reader.read(65536)
            except OSError:
                data = b''
            if first and data:
                # A TLS handshake record whose first message is a ClientHello.
                if len(data) > 5 and data[0] == 0x16 and data[5] == 0x01:
                    self.handshakes += 1
                first = False
            await queue.put((time.monotonic() + self.one_way, data))
            if not data:
                break
        await sender

    @staticmethod
    async def _send(queue, writer):
        while True:
            due, data = await queue.get()
            wait = due - time.monotonic()
            if wait > 0:
                await asyncio.sleep(wait)
            try:
                if not data:
                    writer.write_eof()
                    return
                writer.write(data)
                await writer.drain()
            except OSError:
                return


def main():
    relay = DelayRelay(int(sys.argv[1]), float(sys.argv[2]))
    print(f'delayrelay listening on {relay.port}', flush=True)
    try:
        while True:
            time.sleep(3600)
    except KeyboardInterrupt:
        pass


if __name__ == '__main__':
    main()
