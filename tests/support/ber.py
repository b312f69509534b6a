"""What the directories that misbehave answer with, as BER has it (X.690)."""


def ber(tag, *parts):
    body = b"".join(parts)
    size = len(body)
    if size < 128:
        return bytes([tag, size]) + body
    digits = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(digits)]) + digits + body
