#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets (run from anywhere; the files
land beside this script in corpus/<target>/).  The seeds are committed; this
script documents how each was made."""
import os

HERE = os.path.dirname(os.path.abspath(__file__))
SOH, STX, EOT, CAN = 1, 2, 4, 0x18


def crc16(data):
    crc = 0
    for b in data:
        crc ^= b << 8
        for _ in range(8):
            crc = ((crc << 1) ^ 0x1021) if crc & 0x8000 else crc << 1
            crc &= 0xFFFF
    return crc


def block(number, data, crc=True, size=128):
    data = bytes(data)[:size].ljust(size, b"\0")
    out = bytes([SOH if size == 128 else STX, number & 0xFF, 0xFF - (number & 0xFF)]) + data
    if crc:
        c = crc16(data)
        return out + bytes([c >> 8, c & 0xFF])
    return out + bytes([sum(data) & 0xFF])


def setup(protocol, checksum=False, chunk=0, counter=1, size=0):
    return bytes([protocol | (8 if checksum else 0) | (chunk << 4), counter, size & 0xFF, size >> 8])


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


text = bytes(range(32, 127)) * 11
rb = "receive_block"
write(rb, "xmodem-two-blocks-eot", setup(0) + block(1, text[:128]) + block(2, text[128:200]) + bytes([EOT]))
write(rb, "xmodem-checksum", setup(0, checksum=True) + block(1, text[:128], crc=False) + bytes([EOT]))
write(rb, "xmodem1k-byte-by-byte", setup(2, chunk=1) + block(1, text, size=1024) + bytes([EOT]))
write(rb, "ymodem-cut-to-size", setup(1, counter=1, size=1000) + block(1, text, size=1024) + bytes([EOT]))
write(rb, "ymodem-block0", setup(1, counter=0) + block(0, b"a.bin\x00" + b"1000 13727410000 0") + bytes([EOT]))
write(rb, "streaming-g", setup(3, chunk=7) + block(1, text, size=1024) + block(2, text[:50]) + bytes([EOT]))
write(rb, "duplicate-then-next", setup(0) + block(1, text[:128]) + block(1, text[:128]) + block(2, b"x") + bytes([EOT]))
write(rb, "wrong-number", setup(0) + block(5, text[:128]) + block(1, text[:128]) + bytes([EOT]))
bad = bytearray(block(1, text[:128]))
bad[40] ^= 0x10
write(rb, "crc-mismatch", setup(0) + bytes(bad) + block(1, text[:128]) + bytes([EOT]))
write(rb, "complement-disagrees", setup(0) + bytes([SOH, 1, 1]) + text[:130] + block(1, text[:128]))
write(rb, "noise-before-block", setup(0) + b"garbage\r\n" + block(1, text[:128]) + bytes([EOT]))
write(rb, "cancel", setup(0) + bytes([CAN, CAN]))
write(rb, "counter-wraps", setup(2, counter=255) + block(255, text, size=1024) + block(0, text[:10]) + bytes([EOT]))
write(rb, "truncated-block", setup(0, chunk=3) + block(1, text[:128])[:70])

b0 = "block0"
write(b0, "name-size-time", b"report.txt\x001000 13727410000 0".ljust(128, b"\0"))
write(b0, "name-only", b"file.bin".ljust(128, b"\0"))
write(b0, "size-only", b"x\x00" + b"42")
write(b0, "empty-termination", bytes(128))
write(b0, "long-name-no-nul", b"n" * 128)
write(b0, "blanks-and-huge-numbers", b"a\x00   99999999999999999999   777777777777777 0 extra")
write(b0, "negative-size", b"a\x00-5 17")
