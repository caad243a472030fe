#!/usr/bin/env bash
# Writes small sample media files of every attachment type into a folder (default:
# examples/media beside this script): an 8x8 image in PNG, JPEG and GIF, a tenth of a
# second of silence in WAV, AIFF, MP3 and M4A, and an empty movie in MP4, MPEG and AVI.
# Each file is a valid file of its type, built byte by byte with python3 alone, so the
# script needs nothing beyond Debian's python3. Running it again gives the same bytes.
#
#   examples/make-media.sh [OUTDIR]
set -euo pipefail

out="${1:-$(cd "$(dirname "$0")" && pwd)/media}"
mkdir -p "$out"

python3 - "$out" <<'PY'
import os
import struct
import sys
import wave
import zlib

out = sys.argv[1]


def write(name, data):
    with open(os.path.join(out, name), "wb") as f:
        f.write(data)


# --- images: 8x8, mid grey ---------------------------------------------------------

def png():
    def chunk(kind, body):
        return (struct.pack(">I", len(body)) + kind + body +
                struct.pack(">I", zlib.crc32(kind + body) & 0xFFFFFFFF))
    header = struct.pack(">IIBBBBB", 8, 8, 8, 0, 0, 0, 0)  # 8-bit greyscale
    rows = b"".join(b"\x00" + b"\x80" * 8 for _ in range(8))  # filter 0, grey 128
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
            chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b""))


def jpeg():
    # Baseline greyscale, one 8x8 block whose coefficients are all zero (grey 128).
    # Each Huffman table holds the one symbol this block needs, with the one-bit code 0.
    def segment(marker, body):
        return b"\xff" + bytes([marker]) + struct.pack(">H", len(body) + 2) + body
    quant = segment(0xDB, b"\x00" + b"\x01" * 64)
    frame = segment(0xC0, b"\x08" + struct.pack(">HH", 8, 8) + b"\x01" + b"\x01\x11\x00")
    counts = b"\x01" + b"\x00" * 15  # one code of length 1
    dc = segment(0xC4, b"\x00" + counts + b"\x00")  # DC class 0: category 0
    ac = segment(0xC4, b"\x10" + counts + b"\x00")  # AC class 0: end of block
    scan = segment(0xDA, b"\x01" + b"\x01\x00" + b"\x00\x3f\x00")
    data = b"\x3f"  # bits 0 (DC 0), 0 (EOB), padded with ones
    return b"\xff\xd8" + quant + frame + dc + ac + scan + data + b"\xff\xd9"


def gif():
    header = b"GIF89a" + struct.pack("<HH", 8, 8) + b"\x80\x00\x00"  # 2-colour table
    palette = b"\x80\x80\x80" + b"\x00\x00\x00"
    image = b"\x2c" + struct.pack("<HHHH", 0, 0, 8, 8) + b"\x00"
    # LZW with minimum code size 2: a clear code (4) before every two pixels keeps the
    # table from growing, so every code stays 3 bits wide; then the end code (5).
    stream = []
    for _ in range(32):
        stream += [4, 0, 0]
    stream.append(5)
    bits = value = 0
    packed = bytearray()
    for code in stream:
        value |= code << bits
        bits += 3
        while bits >= 8:
            packed.append(value & 0xFF)
            value >>= 8
            bits -= 8
    if bits:
        packed.append(value & 0xFF)
    blocks = b"".join(bytes([len(packed[i:i + 255])]) + bytes(packed[i:i + 255])
                      for i in range(0, len(packed), 255))
    return header + palette + image + b"\x02" + blocks + b"\x00" + b"\x3b"


write("sample.png", png())
write("sample.jpg", jpeg())
write("sample.gif", gif())

# --- audio: 0.1 s of silence, 8 kHz mono --------------------------------------------

RATE, FRAMES = 8000, 800

with wave.open(os.path.join(out, "sample.wav"), "wb") as w:
    w.setnchannels(1)
    w.setsampwidth(2)
    w.setframerate(RATE)
    w.writeframes(b"\x00\x00" * FRAMES)


def extended(value):
    # An 80-bit IEEE 754 extended number, as AIFF stores its sample rate.
    exponent = value.bit_length() - 1
    mantissa = value << (63 - exponent)
    return struct.pack(">HQ", 16383 + exponent, mantissa)


def aiff():
    comm = struct.pack(">hIh", 1, FRAMES, 16) + extended(RATE)
    ssnd = struct.pack(">II", 0, 0) + b"\x00\x00" * FRAMES
    body = (b"AIFF" + b"COMM" + struct.pack(">I", len(comm)) + comm +
            b"SSND" + struct.pack(">I", len(ssnd)) + ssnd)
    return b"FORM" + struct.pack(">I", len(body)) + body


def mp3():
    # MPEG-1 Layer III, 32 kbit/s, 32 kHz, mono, no CRC: 144 * 32000 / 32000 = 144 bytes a
    # frame. Zero side information and main data decode as silence.
    header = b"\xff\xfb\x18\xc4"
    frame = header + b"\x00" * (144 - len(header))
    return frame * 3


def box(kind, body):
    return struct.pack(">I", 8 + len(body)) + kind + body


def mvhd():
    # Version 0: times, time scale 1000, duration 0, rate 1.0, volume 1.0, identity matrix.
    matrix = struct.pack(">9I", 0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000)
    body = (struct.pack(">I", 0) + struct.pack(">IIII", 0, 0, 1000, 0) +
            struct.pack(">IH", 0x10000, 0x100) + b"\x00" * 10 + matrix + b"\x00" * 24 +
            struct.pack(">I", 1))
    return box(b"mvhd", body)


def iso_media(brand, compatible):
    ftyp = box(b"ftyp", brand + struct.pack(">I", 0) + b"".join(compatible))
    return ftyp + box(b"moov", mvhd())


write("sample.aiff", aiff())
write("sample.mp3", mp3())
write("sample.m4a", iso_media(b"M4A ", [b"M4A ", b"mp42", b"isom"]))

# --- movies: valid containers without frames ----------------------------------------

write("sample.mp4", iso_media(b"isom", [b"isom", b"mp41"]))


def mpeg():
    # MPEG-1 program stream: one pack header (SCR 0, mux rate 1), then the end code.
    pack = b"\x00\x00\x01\xba" + bytes([0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x00, 0x01])
    return pack + b"\x00\x00\x01\xb9"


def avi():
    def chunk(kind, body):
        pad = b"\x00" if len(body) % 2 else b""
        return kind + struct.pack("<I", len(body)) + body + pad

    def riff_list(kind, body):
        return chunk(b"LIST", kind + body)
    # Main header: 40 ms a frame, no frames, no streams, 8x8.
    avih = struct.pack("<10I", 40000, 0, 0, 0x10, 0, 0, 0, 0, 8, 8) + b"\x00" * 16
    hdrl = riff_list(b"hdrl", chunk(b"avih", avih))
    movi = riff_list(b"movi", b"")
    body = b"AVI " + hdrl + movi + chunk(b"idx1", b"")
    return b"RIFF" + struct.pack("<I", len(body)) + body


write("sample.mpg", mpeg())
write("sample.avi", avi())
PY

ls -l "$out" >&2
