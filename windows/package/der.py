"""Distinguished encoding rules, as far as a catalog needs them."""

INTEGER, BIT_STRING, OCTET_STRING, NULL, OBJECT, UTC_TIME, BMP_STRING = 0x02, 0x03, 0x04, 0x05, 0x06, 0x17, 0x1E
SEQUENCE, SET = 0x30, 0x31


class DerError(Exception):
    """The bytes do not follow the rules."""


def element(tag, *parts):
    content = b"".join(parts)
    size = len(content)
    if size < 0x80:
        return bytes([tag, size]) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + content


def context(number, *parts, constructed=True):
    return element(0x80 | (0x20 if constructed else 0) | number, *parts)


def sequence(*parts):
    return element(SEQUENCE, *parts)


def set_of(*parts):
    return element(SET, *sorted(parts))


def octets(content):
    return element(OCTET_STRING, content)


def integer(value):
    return element(INTEGER, value.to_bytes(value.bit_length() // 8 + 1, "big"))


def bmp_string(text):
    return element(BMP_STRING, text.encode("utf-16-be"))


def object_id(text):
    first, second, *rest = map(int, text.split("."))
    content = bytearray()
    for arc in (first * 40 + second, *rest):
        groups = [arc & 0x7F]
        while arc := arc >> 7:
            groups.append(0x80 | arc & 0x7F)
        content += bytes(reversed(groups))
    return element(OBJECT, bytes(content))


def children(content):
    """The (tag, content) pairs that follow each other in `content`."""
    found, at = [], 0
    while at < len(content):
        try:
            tag, size = content[at], content[at + 1]
            at += 2
            if size & 0x80:
                count = size & 0x7F
                size = int.from_bytes(content[at : at + count], "big")
                at += count
        except IndexError as error:
            raise DerError("cut off in a header") from error
        if at + size > len(content):
            raise DerError(f"an element of {size} bytes does not fit in what holds it")
        found.append((tag, content[at : at + size]))
        at += size
    return found
