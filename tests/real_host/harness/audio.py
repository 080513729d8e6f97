"""Known audio: sounds in which any few consecutive samples identify their position.

All samples are values that G.711 (mu-law) can represent, so a call in that codec keeps them bit
for bit, like a call without coding.
"""

import pathlib
import random
import struct
import wave


def ulaw_decode(code: int) -> int:
    """The linear value of a mu-law code, as G.711 defines it."""
    code = ~code & 0xFF
    magnitude = (((code & 0x0F) << 3) + 0x84) << ((code & 0x70) >> 4)
    return 0x84 - magnitude if code & 0x80 else magnitude - 0x84


def make_codes(seed: int, count: int) -> bytes:
    """`count` mu-law codes: loud and quiet values mixed, without the two codes of zero."""
    audible = [code for code in range(256) if code not in (0x7F, 0xFF)]
    return bytes(random.Random(seed).choices(audible, k=count))


def to_linear(codes: bytes) -> bytes:
    values = [ulaw_decode(code) for code in range(256)]
    return struct.pack(f"<{len(codes)}h", *(values[code] for code in codes))


def write_wav(path: pathlib.Path, rate: int, linear: bytes) -> None:
    with wave.open(str(path), "wb") as out:
        out.setnchannels(1)
        out.setsampwidth(2)
        out.setframerate(rate)
        out.writeframes(linear)


class KnownSound:
    """A WAV file for the host to play, and its samples."""

    def __init__(self, path: pathlib.Path, seed: int, rate: int = 8000, seconds: int = 4):
        self.path = path
        self.rate = rate
        self.codes = make_codes(seed, rate * seconds)
        self.linear = to_linear(self.codes)
        write_wav(path, rate, self.linear)

    def longest_match(self, heard: bytes, probe: int = 64) -> int:
        """The length in samples of the longest unbroken stretch of this sound in `heard`.

        The sound may repeat without a break, and the stretch may begin anywhere in it.
        """
        best = position = 0
        while position + probe <= len(heard):
            place = self.linear.find(heard[position:position + probe])
            if place < 0 or place % 2:
                position += 2
                continue
            length = self._match_from(heard, position, place)
            best = max(best, length)
            position += max(length, 2)
        return best // 2

    def _match_from(self, heard: bytes, position: int, place: int) -> int:
        length = 0
        while position + length < len(heard):
            expected = self.linear[place:]
            piece = heard[position + length:position + length + len(expected)]
            common = common_prefix(piece, expected)
            length += common
            if common < len(expected):
                break
            place = 0
        return length - length % 2


def common_prefix(one: bytes, other: bytes) -> int:
    """The length of the longest common beginning."""
    low, high = 0, min(len(one), len(other))
    while low < high:
        middle = (low + high + 1) // 2
        if one[:middle] == other[:middle]:
            low = middle
        else:
            high = middle - 1
    return low
