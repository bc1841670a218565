"""A minimal phone for the memory benchmarks: sends one command with the
default password's hash and reads the server's answer exactly."""
import hashlib
import socket
import struct
import sys

SALT = "0E991F413708B1AE61C724F430F5965779D826E8E537CED914D3279314E25930518FFE"
HASHWORD = hashlib.md5((SALT + "Sesamely").encode()).hexdigest().upper()


def string(text):
    data = text.encode()
    return struct.pack("<q", len(data)) + data


def long(value):
    return struct.pack("<q", value)


class Phone:
    def __init__(self, port):
        self.stream = socket.create_connection(("127.0.0.1", port)).makefile("rwb")

    def send(self, code, fields):
        payload = string(HASHWORD) + fields
        self.stream.write(bytes([code]) + long(len(payload)) + payload)
        self.stream.flush()

    def exact(self, n):
        data = self.stream.read(n)
        if len(data) != n:
            sys.exit("phone: the server closed the connection")
        return data

    def number(self):
        return struct.unpack("<q", self.exact(8))[0]

    def empty_header(self, code):
        header = self.exact(18)
        assert header[0] == code and header[1] == 0 and header[10:] == long(1), header
