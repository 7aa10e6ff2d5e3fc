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
write(b0, "zfile-text-name-size-time", b"dir/report.txt\x001000 13727410000 0")

# --- the XMODEM block codec: a set-up byte (bit 0 checksum, bit 1 1024-byte
# block), then bytes read as a block and used for a built one (number, bit to
# flip, data) ---
xb = "xmodem_block"
write(xb, "crc-128", bytes([0]) + block(1, text[:128]))
write(xb, "checksum-128", bytes([1]) + block(7, text[:128], crc=False))
write(xb, "crc-1024", bytes([2]) + block(255, text, size=1024))
write(xb, "checksum-1024-flip-in-check", bytes([3]) + bytes([0, 0x28, 0x20]) + text)
write(xb, "complement-disagrees", bytes([0, SOH, 3, 3]) + text[:130])
write(xb, "cut-short", bytes([0]) + block(2, text[:128])[:60])
write(xb, "not-a-block", bytes([0]) + b"C" + text[:20])


# --- ZMODEM frames --------------------------------------------------------

ZDLE, ZPAD = 0x18, ord("*")
ZESCAPED = {0x0D, 0x10, 0x11, 0x13, 0x18, 0x8D, 0x90, 0x91, 0x93}


def crc32(data):
    crc = 0xFFFFFFFF
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xEDB88320 if crc & 1 else crc >> 1
    return crc


def zesc(data):
    out = bytearray()
    for b in data:
        out += bytes([ZDLE, b ^ 0x40]) if b in ZESCAPED else bytes([b])
    return bytes(out)


def zhex(frame_type, d=(0, 0, 0, 0)):
    body = bytes([frame_type]) + bytes(d)
    text = b"**\x18B" + body.hex().encode() + b"%04x\r\n" % crc16(body)
    return text + (b"" if frame_type in (3, 8) else b"\x11")


def zbin(frame_type, d=(0, 0, 0, 0), c32=True):
    body = bytes([frame_type]) + bytes(d)
    if c32:
        c = crc32(body) ^ 0xFFFFFFFF
        check = bytes([c & 0xFF, c >> 8 & 0xFF, c >> 16 & 0xFF, c >> 24])
    else:
        c = crc16(body)
        check = bytes([c >> 8, c & 0xFF])
    return bytes([ZPAD, ZDLE, ord("C" if c32 else "A")]) + zesc(body + check)


def zsub(data, end, c32=True):
    if c32:
        c = crc32(data + bytes([end])) ^ 0xFFFFFFFF
        check = bytes([c & 0xFF, c >> 8 & 0xFF, c >> 16 & 0xFF, c >> 24])
    else:
        c = crc16(data + bytes([end]))
        check = bytes([c >> 8, c & 0xFF])
    return zesc(data) + bytes([ZDLE, end]) + zesc(check) + (b"\x11" if end == ord("k") else b"")


zf = "zmodem_frames"
binary = bytes(range(256)) * 4
write(zf, "rinit-hex", bytes([0]) + zhex(1, (0, 0, 0, 0x27)))
write(zf, "zfile-then-data-crc32", bytes([0]) + zbin(4) + zsub(b"a.bin\x0020 13727410000 0", ord("k"))
      + zbin(10) + zsub(binary, ord("i")) + zsub(b"tail", ord("k")) + zbin(11, (4, 4, 0, 0)))
write(zf, "data-crc16-byte-by-byte", bytes([0x10]) + zbin(10, c32=False)
      + zsub(binary[:300], ord("j"), c32=False) + zsub(b"", ord("h"), c32=False))
write(zf, "zsinit-after-hex", bytes([0]) + zhex(2, (0, 0, 0, 0x40)) + zsub(b"\x00", ord("k"), c32=False))
bad = bytearray(zbin(10) + zsub(binary[:500], ord("k")))
bad[200] ^= 0x04
write(zf, "damaged-subpacket", bytes([0x73]) + bytes(bad) + zhex(9, (0, 2, 0, 0)))
write(zf, "noise-then-header", bytes([0]) + bytes(range(0x30, 0x7A)) * 30 + zhex(8))
write(zf, "cans", bytes([0]) + bytes([0x18] * 4) + zhex(0) + bytes([0x18] * 6))
write(zf, "capital-hex-and-unknown-format", bytes([2]) + b"**\x18B0100000027FED4\r\n" + b"*\x18Z" + zhex(3))
write(zf, "overlong-subpacket", bytes([0xF0]) + zbin(10) + b"a" * 1100 + bytes([ZDLE, ord("k")]))


# --- received names: a set-up byte (bit 0 full path), the room, the name ---

rn = "received_name"
for seed, full, room, name in [
    ("plain", 0, 255, b"report.txt"),
    ("absolute-full", 1, 255, b"/etc/passwd"),
    ("climb-full", 1, 255, b"../../../x"),
    ("drive-backslash-full", 1, 255, b"C:\\dl\\sub\\x.bin"),
    ("drive-bare", 0, 255, b"A:FILE.TXT"),
    ("controls-and-del", 1, 255, b"a\x01b\x1b[2J\x7f/c"),
    ("nul-ends-name", 0, 255, b"x\x00/etc/passwd"),
    ("only-dots", 1, 255, b"./.././"),
    ("cut-at-separator", 1, 3, b"ab/cd"),
    ("cut-leaves-dots", 1, 4, b"x/..."),
    ("cut-inside-utf8", 0, 3, "\u00e9\u00e9".encode()),
    ("no-room", 0, 0, b"abc"),
    ("long-name", 1, 200, b"d/" * 150),
]:
    write(rn, seed, bytes([full, room]) + name)


# --- the program's escaping of line text ------------------------------------

st = "shown_text"
write(st, "plain-name", b"report-2024.txt")
write(st, "csi-clear-screen", b"a\x1b[2J\x1b[Hb.txt")
write(st, "osc-title-bel", b"\x1b]0;owned\x07name")
write(st, "c1-csi-raw-and-encoded", b"x\x9b31my\xc2\x9b0mz\xc2\xa0")
write(st, "utf8-accents-cjk-emoji", "caf\u00e9-\u6f22\u5b57-\U0001f600.txt".encode())
write(st, "broken-utf8", b"\xc3(\xe6\xbc\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xff\xe6\xbc")
write(st, "backslashes-and-lookalike", b"a\\b\\x41\\")
write(st, "controls-and-del", bytes(range(0, 32)) + b"\x7f")


# --- Kermit packets ------------------------------------------------------------


def kchk1(s):
    t = sum(s)
    return bytes([32 + ((t + ((t & 192) >> 6)) & 63)])


def kcheck(s, kind):
    if kind == 1:
        return kchk1(s)
    if kind == 2:
        t = sum(s) & 0xFFF
        return bytes([32 + (t >> 6), 32 + (t & 63)])
    crc = 0
    for b in s:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0x8408 if crc & 1 else crc >> 1
    return bytes([32 + (crc >> 12), 32 + ((crc >> 6) & 63), 32 + (crc & 63)])


def kpacket(kind, seq, data, check=1, long_form=False):
    n = len(data) + check
    if not long_form and n + 2 < 95:
        body = bytes([32 + n + 2, 32 + seq, ord(kind)])
    else:
        body = bytes([32, 32 + seq, ord(kind), 32 + n // 95, 32 + n % 95])
        body += kchk1(body)
    body += data
    return b"\x01" + body + kcheck(body, check) + b"\r"


def ksetup(check=1, ebq=False, rpt=False, text=False, lf_peer=False, chunk=0, limit=0, room=0):
    return bytes([check | (4 if ebq else 0) | (8 if rpt else 0) | (16 if text else 0) | (32 if lf_peer else 0),
                  chunk | (limit << 4) | (room << 6)])


kp = "kermit_packet"
write(kp, "send-init-and-ack", ksetup() + kpacket("S", 0, b"~* @-#Y3~*!J+0___B\"U1A") + kpacket("Y", 0, b""))
write(kp, "data-with-prefixes-crc", ksetup(3, ebq=True, rpt=True) + kpacket("D", 1, b"ab~%&#M##x#J", 3))
write(kp, "long-packet-check-2", ksetup(2, rpt=True) + kpacket("D", 2, b"xyz~~q" * 40, 2))
write(kp, "long-form-for-a-short-packet", ksetup(1, chunk=3) + kpacket("D", 3, b"short", 1, long_form=True))
bad = bytearray(kpacket("D", 4, b"0123456789" * 20))
bad[6] ^= 1
write(kp, "long-header-check-wrong", ksetup() + bytes(bad) + kpacket("Z", 5, b""))
write(kp, "ctrl-c-inside-a-packet", ksetup() + b"\x01~!Dab\x03\x03\x03" + kpacket("B", 6, b""))
write(kp, "length-one-to-the-limit", ksetup(limit=2) + b"\x01!" + b"x" * 40 + kpacket("Y", 7, b""))
write(kp, "garbage-between-byte-by-byte", ksetup(chunk=1) + b"login:\r\n" + kpacket("F", 1, b"NAME.TXT") + b"+++" + kpacket("A", 2, b"\"#AMJ*!A1#123"))
write(kp, "text-mode-lf-peer", ksetup(text=True, lf_peer=True, rpt=True) + kpacket("D", 8, b"line#M#J~$#Mend"))
write(kp, "decode-errors", ksetup(rpt=True, ebq=True) + kpacket("D", 9, b"ab~") + kpacket("D", 10, b"~#") + kpacket("D", 11, b"x&") + kpacket("D", 12, b"x#"))
write(kp, "name-into-small-sink", ksetup(rpt=True, room=2) + kpacket("F", 1, b"~~n~~n~~n.txt"))
# --- the B+ packet reader ----------------------------------------------------

def bp_quote(b, quote_all=False):
    if b < 0x20 and (quote_all or b in (0x03, 0x05, 0x10, 0x11, 0x13, 0x15)):
        return bytes([0x10, b + 0x40])
    if 0x80 <= b <= 0x9F and quote_all:
        return bytes([0x10, b - 0x20])
    return bytes([b])


def bp_check(method, covered):
    if method == 0:
        s = 0
        for b in covered:
            s *= 2
            s = (s & 255) + 1 if s > 255 else s
            s += b
            s = (s & 255) + 1 if s > 255 else s
        return bytes([s])
    if method == 1:
        c = 0xFFFF
        for b in covered:
            c ^= b << 8
            for _ in range(8):
                c = (((c << 1) ^ 0x1021) if c & 0x8000 else c << 1) & 0xFFFF
        return bytes([c >> 8, c & 0xFF])
    if method == 2:
        c = 0xFFFF
        for b in covered:
            c ^= b
            for _ in range(8):
                c = (c >> 1) ^ 0x8408 if c & 1 else c >> 1
        c ^= 0xFFFF
        return bytes([c & 0xFF, c >> 8])
    c = crc32(covered) ^ 0xFFFFFFFF
    return bytes([c & 0xFF, (c >> 8) & 0xFF, (c >> 16) & 0xFF, c >> 24])


def bp_packet(method, seq, data, quote_all=False):
    seq_char = ord("0") + seq
    out = bytes([0x10, ord("B"), seq_char])
    out += b"".join(bp_quote(b, quote_all) for b in data) + b"\x03"
    for b in bp_check(method, bytes([seq_char]) + data + b"\x03"):
        out += bp_quote(b, quote_all) if method == 0 or b < 0x20 else bytes([b])
    return out


def bp_setup(method, quote_all=False, sends=0, chunk=0, seq=0, after_b=False, ack=True,
             resend=True, alt=False):
    return bytes([method | (4 if quote_all else 0) | (sends << 3) | (chunk << 6),
                  seq | (0x10 if after_b else 0) | (0x20 if ack else 0) |
                  (0x40 if resend else 0) | (0x80 if alt else 0)])


bp = "bplus_wait_ack"
for method in range(4):
    write(bp, "packets-method-%d" % method,
          bp_setup(method, chunk=method) + bp_packet(method, 1, b"N\x00\x03\x10\x91data")
          + bp_packet(method, 1, b"Nrepeat") + bp_packet(method, 2, b"T\x15" * 40))
write(bp, "quote-all-crc32", bp_setup(3, quote_all=True, seq=4)
      + bp_packet(3, 5, bytes(range(256)), quote_all=True))
write(bp, "failure-any-number", bp_setup(0, seq=3) + bp_packet(0, 8, b"FA"))
write(bp, "acks-and-resend-all", bp_setup(1, sends=3)
      + b"\x10;\x151\x10\x31\x10\x31\x10\x33")
write(bp, "no-resend-allowed", bp_setup(2, sends=2, resend=False) + b"\x15\x10\x31\x10\x31")
write(bp, "enq-mid-packet", bp_setup(0, seq=7) + bp_packet(0, 8, b"Nhello")[:6] + b"\x05"
      + bp_packet(0, 8, b"Nhello"))
write(bp, "after-dle-b", bp_setup(1, after_b=True, alt=True, sends=1) + b"1Tx\x03\x00\x00")
write(bp, "early-etx-and-overflow", bp_setup(0, chunk=1) + b"\x03\x10B1" + b"x" * 1100 + b"\x03\x00")
write(bp, "packets-while-unanswered", bp_setup(0, sends=1)
      + b"".join(bp_packet(0, s, b"N") for s in range(2, 7)) + b"\x10\x31\x10\x31")
