# SPDX-License-Identifier: Apache-2.0
"""A disk with a volatile write cache, served by the NBD protocol: what was not flushed is at risk when power fails."""

import contextlib
import socket
import struct
import threading

SECTOR = 512
READ, WRITE, DISCONNECT, FLUSH = range(4)
FUA = 1  # flag of a write: stored before it is acknowledged

GREETING = struct.pack(">QQH", 0x4E42444D41474943, 0x49484156454F5054, 1)  # fixed newstyle
OPTION = struct.Struct(">QII")
OPTION_REPLY = struct.Struct(">QIII")
REQUEST = struct.Struct(">IHHQQI")
ABORT, GO = 2, 7
OPTION_MAGIC, OPTION_REPLY_MAGIC = 0x49484156454F5054, 0x3E889045565A9
ACKNOWLEDGED, INFO, UNSUPPORTED = 1, 3, 0x80000001
REQUEST_MAGIC, REPLY_MAGIC = 0x25609513, 0x67446698
OFFERED = 1 | 4 | 8  # flags are valid, flush, FUA
INVALID = 22


class PowerFailed(Exception):
    """No request is processed any more."""


class VolatileDisk:
    """
    `stored` is what survives a power cut for certain, `cache` has the newer contents of sectors by number, and `last`
    the numbers of the last write.
    With `ignores_flush` the disk acknowledges a flush and does nothing, as some disks do.
    """

    def __init__(self, contents, ignores_flush=False):
        self.stored = bytearray(contents)
        self.cache = {}
        self.last = range(0)
        self.ignores_flush = ignores_flush

    def read(self, offset, length):
        first, end = offset // SECTOR, -(-(offset + length) // SECTOR)
        data = bytearray(self.stored[first * SECTOR : end * SECTOR])
        for number in range(first, end) if self.cache else ():
            if number in self.cache:
                data[(number - first) * SECTOR : (number - first + 1) * SECTOR] = self.cache[number]
        return bytes(data[offset - first * SECTOR :][:length])

    def write(self, offset, data):
        """`offset` and length are multiples of a sector."""
        self.last = range(offset // SECTOR, (offset + len(data)) // SECTOR)
        for start in range(0, len(data), SECTOR):
            self.cache[(offset + start) // SECTOR] = data[start : start + SECTOR]

    def flush(self):
        if not self.ignores_flush:
            self.store(self.cache)

    def store(self, numbers):
        for number in list(numbers):
            self.stored[number * SECTOR : (number + 1) * SECTOR] = self.cache.pop(number)

    def lose_power(self, survives):
        """Of what was not flushed, the sectors survive for which `survives(number)` is true. Empties the cache."""
        self.store([number for number in sorted(self.cache) if survives(number)])
        self.cache.clear()


class Server:
    """
    Serves a disk on a Unix socket, to one client at a time. `after_request(kind, offset)` is called after each
    request took effect and before it is acknowledged. It may raise PowerFailed: nothing reaches the disk from then on.
    """

    def __init__(self, disk, path, after_request=lambda kind, offset: None):
        self.disk = disk
        self.after_request = after_request
        self.power_failed = threading.Event()
        self.lock = threading.Lock()
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        with contextlib.suppress(OSError, PowerFailed):  # closed, or there is nothing left to serve
            while True:
                connection = self.listener.accept()[0]
                with connection, contextlib.suppress(EOFError, ConnectionError):
                    self.negotiate(connection)
                    self.transmit(connection)

    def cut_power(self):
        """Returns when no request is in progress; none is processed afterwards."""
        with self.lock:
            self.power_failed.set()
        self.listener.close()

    def negotiate(self, connection):
        connection.sendall(GREETING)
        receive(connection, 4)
        while True:
            _, option, length = OPTION.unpack(receive(connection, OPTION.size))
            receive(connection, length)
            if option == GO:
                info = struct.pack(">HQH", 0, len(self.disk.stored), OFFERED)
                answer(connection, option, INFO, info)
                answer(connection, option, ACKNOWLEDGED)
                return
            answer(connection, option, ACKNOWLEDGED if option == ABORT else UNSUPPORTED)

    def transmit(self, connection):
        while True:
            _, flags, kind, handle, offset, length = REQUEST.unpack(receive(connection, REQUEST.size))
            data = receive(connection, length) if kind == WRITE else b""
            if kind == DISCONNECT:
                return
            with self.lock:
                error, result = self.process(flags, kind, offset, length, data)
            connection.sendall(struct.pack(">IIQ", REPLY_MAGIC, error, handle) + result)

    def process(self, flags, kind, offset, length, data):
        if self.power_failed.is_set():
            raise PowerFailed
        result = b""
        if kind > FLUSH or offset + length > len(self.disk.stored) or offset % SECTOR or length % SECTOR:
            return INVALID, result
        if kind == READ:
            result = self.disk.read(offset, length)
        elif kind == WRITE:
            self.disk.write(offset, data)
        if kind == FLUSH or flags & FUA:
            self.disk.flush()
        try:
            self.after_request(kind, offset)
        except PowerFailed:
            self.power_failed.set()
            raise
        return 0, result


def answer(connection, option, kind, data=b""):
    connection.sendall(OPTION_REPLY.pack(OPTION_REPLY_MAGIC, option, kind, len(data)) + data)


def receive(connection, length):
    data = bytearray()
    while len(data) < length:
        if not (part := connection.recv(length - len(data))):
            raise EOFError
        data += part
    return bytes(data)
